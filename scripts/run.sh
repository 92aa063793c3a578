#!/usr/bin/env bash
# Builds the kavrel command line, installing what the build needs on a fresh
# Debian machine, and runs it with the arguments given:
#
#   ./scripts/run.sh info acquire --plot -o spectrum.csv
#
# When no instrument is attached (kavrel scan finds no bridge), it runs on
# the simulated instruments instead and says so; --sim chooses them always.
#
# stdout carries only kavrel's output; the build's log is shown only when the
# build fails.
set -euo pipefail
root="$(cd "$(dirname "$0")/.." && pwd)"
bash "$root/scripts/setup.sh" --build-only >&2
build="$root/build/run"
program="$build/tools/kavrel/kavrel"
[ -x "$program" ] || echo "run.sh: building kavrel into build/run (a minute or two the first time)" >&2
# Warnings stay warnings here: the test suite is where they are errors.
log="$build/build.log"
mkdir -p "$build"
if ! { cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKAVREL_BUILD_TESTS=OFF \
         -DKAVREL_WARNINGS_AS_ERRORS=OFF && cmake --build "$build" --target kavrel; } >"$log" 2>&1; then
  cat "$log" >&2
  echo "run.sh: the build failed; its log is $log" >&2
  exit 1
fi
if [[ " $* " != *" --sim "* ]] && ! "$program" --quiet scan >/dev/null 2>&1; then
  echo "run.sh: no instrument attached: using the simulated instruments (kavrel --sim)" >&2
  set -- --sim "$@"
fi
exec "$program" "$@"
