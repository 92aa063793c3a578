#!/usr/bin/env bash
# Builds the kavrel command line, installing what the build needs on a fresh
# Debian machine, and runs it with the arguments given:
#
#   ./scripts/run.sh --sim acquire --plot -o spectrum.csv
#
# The build's own output goes to stderr, so stdout carries only kavrel's data.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/setup.sh" --build-only >&2
build="$root/build/run"
# Warnings stay warnings here: the test suite is where they are errors.
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKAVREL_BUILD_TESTS=OFF \
      -DKAVREL_WARNINGS_AS_ERRORS=OFF >/dev/null
cmake --build "$build" --target kavrel -- --quiet 2>&1 | { grep -v '^ninja: no work to do' || true; } >&2
exec "$build/tools/kavrel/kavrel" "$@"
