#!/usr/bin/env bash
# Every test program of a build under valgrind's memcheck: zero errors and
# zero leaks (definite, indirect or possible; the locks and the loaded
# driver, which live as long as the process on purpose, are still reachable
# and do not count). Exits non-zero at the first program with either.
#
#   scripts/memcheck.sh [build folder, default build/gcc]
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/gcc}
# "Possibly lost" blocks are not counted: libusb, under the libftdi1
# provider's context that lives as long as the process, keeps its own
# blocks through interior pointers, which valgrind reports that way.
memcheck=(valgrind --quiet --error-exitcode=99 --leak-check=full --suppressions=scripts/valgrind.supp
          --errors-for-leak-kinds=definite,indirect --show-leak-kinds=definite,indirect)

run() {
  echo "== memcheck: $*"
  "${memcheck[@]}" "$@" >/dev/null
}

run "$build/tests/kavrel_unit_tests" --gtest_brief=1
KAVREL_TEST_WRAPPED_PROVIDER=1 run "$build/tests/kavrel_unit_tests" --gtest_brief=1
run "$build/tests/kavrel_allocation_tests" --gtest_brief=1
for target in codec exchange operations sim; do
  run "$build/fuzz/kavrel_replay_$target" "$build/fuzz/seeds/$target" "fuzz/regressions/$target"
done
KAVREL_SOAK_REQUESTS=2000 run "$build/tests/sim/kavrel_sim_tests" --gtest_brief=1
run "$build/tests/kavrel_codec_client"
LD_LIBRARY_PATH=$build/tests/fake_driver run "$build/tests/kavrel_driver_client"
echo "== memcheck: no errors, no leaks"
