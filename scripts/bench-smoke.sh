#!/usr/bin/env bash
# Smoke run of the benchmarks: builds them and runs each once, briefly, so
# that CI notices a benchmark that no longer builds or whose exchanges fail.
# No timing is judged here; the README's Performance section has the
# command that measures.
# Usage: scripts/bench-smoke.sh [BUILD_DIR]   (default build/bench-smoke)
set -euo pipefail
cd "$(dirname "$0")/.."
dir=${1:-build/bench-smoke}
jobs=$(nproc 2>/dev/null || echo 2)

cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKAVREL_BUILD_BENCH=ON \
  -DKAVREL_BUILD_TESTS=OFF >/dev/null
cmake --build "$dir" -j "$jobs" --target kavrel_bench

# A benchmark whose exchange fails reports "ERROR OCCURRED" and the program
# still exits 0: look for it.
log="$dir/bench-smoke.log"
"$dir/bench/kavrel_bench" --benchmark_min_time=0.01 | tee "$log"
if grep -q "ERROR OCCURRED" "$log"; then
  echo "bench-smoke: a benchmark failed" >&2
  exit 1
fi
