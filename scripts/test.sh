#!/usr/bin/env bash
# The whole test suite: installs what is missing, then builds and tests with
# g++, cross-builds for Windows with mingw-w64 and runs the suite there under
# wine, builds warning-clean with clang, and runs the suite again under
# AddressSanitizer and UndefinedBehaviorSanitizer.
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

echo "== Windows: mingw-w64 cross build, tests under wine"
# The Windows build of the codec client must print what the Linux one does.
started=$SECONDS
configure_and_test build/windows -DCMAKE_TOOLCHAIN_FILE=cmake/toolchain-mingw-w64-x86_64.cmake \
  -DKAVREL_NATIVE_CODEC_CLIENT="$PWD/build/gcc/tests/kavrel_codec_client"
echo "== Windows stage took $((SECONDS - started)) s"

echo "== clang"
configure_and_test build/clang -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang

echo "== AddressSanitizer and UndefinedBehaviorSanitizer"
ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
  configure_and_test build/sanitize -DCMAKE_CXX_COMPILER=g++ -DCMAKE_C_COMPILER=gcc \
  -DKAVREL_SANITIZE=address,undefined
