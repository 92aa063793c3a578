#!/usr/bin/env bash
# Builds the libFuzzer targets with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each one after the other for a bounded
# time from its seeds and its regression cases. Exits non-zero on the first
# crash, leak or timeout, whose input is left in the build folder.
#
#   scripts/fuzz-smoke.sh [seconds per target, default 30] [target ...]
#
# FUZZ_BUILD names the build folder (build/fuzz). New inputs the fuzzer finds
# interesting are kept in FUZZ_BUILD/fuzz/corpus/<target>, so later runs go on
# from where earlier ones stopped.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-30}
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(codec exchange operations sim)
build=${FUZZ_BUILD:-build/fuzz}

cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
  -DKAVREL_BUILD_FUZZ=ON -DKAVREL_BUILD_TESTS=OFF >/dev/null
cmake --build "$build" --target "${targets[@]/#/kavrel_fuzz_}" "${targets[@]/#/kavrel_replay_}"

for target in "${targets[@]}"; do
  # Long enough for the largest packet (16384 bytes) and a little past it.
  case $target in
    codec) max_len=17000 ;;
    *) max_len=20000 ;;
  esac
  corpus=$build/fuzz/corpus/$target
  crashes=$build/fuzz/crashes
  mkdir -p "$corpus" "$crashes"
  log=$build/fuzz/$target.log
  echo "== fuzzing $target for $seconds s (log: $log)"
  started=$SECONDS
  inputs=("$corpus" "$build/fuzz/seeds/$target")
  [ -d "fuzz/regressions/$target" ] && inputs+=("fuzz/regressions/$target")
  status=0
  "$build/fuzz/kavrel_fuzz_$target" -max_total_time="$seconds" -max_len="$max_len" -timeout=10 \
    -print_final_stats=1 -artifact_prefix="$crashes/$target-" "${inputs[@]}" >"$log" 2>&1 || status=$?
  grep -E '^stat::number_of_executed_units' "$log" || true
  echo "== $target: exit $status after $((SECONDS - started)) s"
  if [ "$status" -ne 0 ]; then
    tail -n 40 "$log"
    exit "$status"
  fi
done
