#!/usr/bin/env bash
# Compares the symbols a shared library exports with the export lists: the
# dynamic symbols of an ELF library (read with nm), the export table of a
# Windows DLL (read with objdump), where a name must also be undecorated and
# no function may be exported by ordinal alone.
# Usage: [NM=nm] [OBJDUMP=objdump] check_exports.sh LIBRARY LIST [LIST...]
set -euo pipefail
library=$1
shift

# The named entries of a DLL's export table, after checking that every entry
# of its address table has a name.
dll_exports() {
  local table
  table=$("${OBJDUMP:-objdump}" -p "$library")
  local addresses names
  addresses=$(awk '/^\tExport Address Table[ \t]+[0-9a-fA-F]+$/ { print $NF; exit }' <<<"$table")
  names=$(awk '/^\t\[Name Pointer\/Ordinal\] Table[ \t]+[0-9a-fA-F]+$/ { print $NF; exit }' <<<"$table")
  if [ -z "$addresses" ] || [ "$addresses" != "$names" ]; then
    echo "export table of $library: ${addresses:-no} entries, ${names:-no} names" >&2
    exit 1
  fi
  awk '/\[Ordinal\/Name Pointer\] Table/ { listing = 1; next }
       listing && /^\t\[ *[0-9]+\] / { print $NF; next }
       listing { exit }' <<<"$table"
}

expected=$(grep -hE '^[A-Za-z_]' "$@" | sort -u)
case "$library" in
  *.dll | *.DLL) actual=$(dll_exports | sort) ;;
  *) actual=$("${NM:-nm}" -D --defined-only "$library" | awk 'NF >= 3 { print $3 }' | sed 's/@.*//' | sort -u) ;;
esac
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ from the lists (< expected only, > exported only):"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "$(echo "$actual" | wc -l) symbols exported, as listed"
