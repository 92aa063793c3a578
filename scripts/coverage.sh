#!/usr/bin/env bash
# Line and branch coverage of the library (src/, and sim/ where it exists)
# by the test suite: builds with gcc's coverage instrumentation, runs the
# tests, and reports per file and in total with gcovr. Branches that only
# C++ exception handling takes, and those the compiler proves unreachable,
# are left out of the count.
#
#   scripts/coverage.sh            # report on the terminal
#   COVERAGE_HTML=1 scripts/coverage.sh   # also build/coverage/coverage.html
set -euo pipefail
cd "$(dirname "$0")/.."
build=${COVERAGE_BUILD:-build/coverage}

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
  -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc -DKAVREL_COVERAGE=ON >/dev/null
cmake --build "$build"
find "$build" -name '*.gcda' -delete
# Installing and the MSVC header checks compile nothing of the library.
(cd "$build" && ctest -j "$(nproc)" --output-on-failure -E 'install_consumer|header_msvc' >/dev/null)

roots=(src/)
[ -d sim ] && roots+=(sim/)
# Coverage data is looked for in the build folder alone: the rest of the tree
# may hold other builds, and the Windows stage's wine prefix links to /.
options=(--root . --object-directory "$build" --exclude-throw-branches --exclude-unreachable-branches "$build")
filters=()
for root in "${roots[@]}"; do filters+=(--filter "$root"); done
echo "== lines"
gcovr "${options[@]}" "${filters[@]}" --txt
echo "== branches"
gcovr "${options[@]}" "${filters[@]}" --txt --branches
for root in "${roots[@]}"; do
  echo "== $root"
  # gcovr replaces its output file (it must never be /dev/null): write the
  # report it is not asked for into the build folder.
  gcovr "${options[@]}" --filter "$root" --print-summary -o "$build/coverage-${root%/}.txt"
done
if [ -n "${COVERAGE_HTML:-}" ]; then
  gcovr "${options[@]}" "${filters[@]}" --html-details "$build/coverage.html"
fi
