#!/usr/bin/env bash
# Runs one program built natively and the same program built for Windows
# (through the given runner, e.g. wine) and compares what they print on
# standard output byte for byte. Both must also succeed.
# Usage: same_output.sh NATIVE_PROGRAM RUNNER... WINDOWS_PROGRAM
set -euo pipefail
native=$1
shift
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

"$native" >"$scratch/native.out"
"$@" >"$scratch/windows.out"
if ! cmp "$scratch/native.out" "$scratch/windows.out"; then
  echo "outputs differ (< native, > windows; bytes shown with od -c):"
  diff <(od -An -c "$scratch/native.out") <(od -An -c "$scratch/windows.out") || true
  exit 1
fi
echo "$(wc -c <"$scratch/native.out") bytes, identical"
