#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and tests with
# g++, builds warning-clean with clang, and runs the suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer, and finally runs the
# spectral tests, whose operations allocate per-call buffers, under valgrind.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

jobs=$(nproc 2>/dev/null || echo 2)

configure_and_test() {
  local dir=$1
  shift
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Debug "$@" >/dev/null
  cmake --build "$dir" -j "$jobs"
  (cd "$dir" && ctest --output-on-failure -j "$jobs")
}

echo "== g++"
configure_and_test build/gcc -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc

echo "== clang"
configure_and_test build/clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang

echo "== AddressSanitizer and UndefinedBehaviorSanitizer"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  configure_and_test build/sanitize -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc \
  -DKAVREL_SANITIZE=address,undefined

# The spectral operations allocate and free a buffer on every path, failure
# paths included; valgrind checks the plain g++ build for leaks there.
echo "== valgrind: spectral operations"
valgrind --quiet --leak-check=full --error-exitcode=1 build/gcc/tests/kavrel_unit_tests \
  --gtest_brief=1 --gtest_filter='Spectral*:Wavelength*:Spectrum*:Flash*:External*'
