#!/usr/bin/env bash
# Compares the dynamic symbols a shared library defines with the export lists.
# Usage: check_exports.sh LIBRARY LIST [LIST...]
set -euo pipefail
library=$1
shift
expected=$(grep -hE '^[A-Za-z_]' "$@" | sort -u)
actual=$(nm -D --defined-only "$library" | awk 'NF >= 3 { print $3 }' | sed 's/@.*//' | sort -u)
if [ "$expected" != "$actual" ]; then
  echo "exported symbols differ from the lists (< expected only, > exported only):"
  diff <(echo "$expected") <(echo "$actual") || true
  exit 1
fi
echo "$(echo "$actual" | wc -l) symbols exported, as listed"
