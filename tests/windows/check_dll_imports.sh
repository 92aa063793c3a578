#!/usr/bin/env bash
# Checks that a DLL imports from no DLL but the allowed ones (compared without
# regard to case, as Windows compares DLL names): a runtime DLL left out of
# the static link, or a driver imported at load time instead of loaded on
# first use, would keep the DLL from loading on a bare machine.
# Usage: check_dll_imports.sh OBJDUMP DLL ALLOWED_DLL...
set -euo pipefail
objdump=$1
dll=$2
shift 2
allowed=$(printf '%s\n' "$@" | tr '[:upper:]' '[:lower:]' | sort -u)
imported=$("$objdump" -p "$dll" | awk '/DLL Name:/ { print $3 }' | tr '[:upper:]' '[:lower:]' | sort -u)
unexpected=$(comm -13 <(echo "$allowed") <(echo "$imported"))
if [ -n "$unexpected" ]; then
  echo "$dll imports DLLs beyond the allowed ones:"
  echo "$unexpected"
  exit 1
fi
echo "$dll imports only:" $imported
