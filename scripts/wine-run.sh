#!/usr/bin/env bash
# Runs a Windows program under wine: the emulator that the Windows cross
# build puts in front of its test programs.
# Usage: wine-run.sh PREFIX PROGRAM [ARGUMENTS...]
# PREFIX is the wine prefix, a folder of the build tree. The first run makes
# it, without dialogs; later runs share it.
set -euo pipefail
export WINEPREFIX=$1
shift
export WINEDEBUG=${WINEDEBUG:--all}
# No offer to install Mono or Gecko, and no window of any kind.
export WINEDLLOVERRIDES="mscoree,mshtml="
unset DISPLAY WAYLAND_DISPLAY

# Debian's wine64 keeps its launcher outside PATH.
wine=$(command -v wine64 || echo /usr/lib/wine/wine64)
if [ ! -x "$wine" ]; then
  echo "wine-run.sh: wine64 not found (install the wine64 package)" >&2
  exit 127
fi

ready=$WINEPREFIX/.prefix-ready
if [ ! -e "$ready" ]; then
  mkdir -p "$(dirname "$WINEPREFIX")"
  # ctest starts several programs at once; one of them makes the prefix
  # while the others wait.
  exec 9>"$WINEPREFIX.lock"
  flock 9
  if [ ! -e "$ready" ]; then
    if ! "$wine" wineboot --init >"$WINEPREFIX.log" 2>&1; then
      echo "wine-run.sh: wineboot failed, see $WINEPREFIX.log" >&2
      exit 1
    fi
    touch "$ready"
  fi
  exec 9>&-
fi
exec "$wine" "$@"
