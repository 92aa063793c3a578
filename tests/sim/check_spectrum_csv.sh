#!/usr/bin/env bash
# Checks a CSV written by acquire against the default simulated CM2
# instrument: the header, one row per detector point, and the most prominent
# peaks on mercury or argon lines, as a calibration lamp shows them.
# Usage: check_spectrum_csv.sh FILE [ROWS]
set -euo pipefail
csv=$1
rows=${2:-2048}

# Air wavelengths (nm) of the lamp's strong Hg I and Ar I lines.
lines="253.652 296.728 302.150 313.155 334.148 365.015 404.656 407.783 435.833
546.074 576.960 579.066 696.543 706.722 738.398 750.387 763.511 772.376 794.818
811.531 826.452 842.465 912.297 965.779"

tr -d '\r' <"$csv" | awk -v rows="$rows" -v lines="$lines" -F, '
  NR == 1 { if ($0 != "wavelength_nm,counts") { print "bad header: " $0; bad = 1 } next }
  { n++; nm[n] = $1; c[n] = $2 }
  END {
    if (bad) exit 1
    if (n != rows) { print "expected " rows " rows, found " n; exit 1 }
    # A peak is the highest point within 5 points either side; its
    # prominence is its height above the lowest point within 20.
    peaks = 0
    for (i = 2; i < n; i++) {
      top = 1; low = c[i]
      for (j = i - 20; j <= i + 20; j++) {
        if (j < 1 || j > n || j == i) continue
        if (j >= i - 5 && j <= i + 5 && (c[j] > c[i] || (c[j] == c[i] && j < i))) top = 0
        if (c[j] < low) low = c[j]
      }
      if (top) { peaks++; at[peaks] = nm[i]; prominence[peaks] = c[i] - low }
    }
    count = split(lines, known, /[ \n]+/)
    for (k = 1; k <= 8 && k <= peaks; k++) {
      best = 0
      for (p = 1; p <= peaks; p++) if (!used[p] && (best == 0 || prominence[p] > prominence[best])) best = p
      used[best] = 1
      near = 0
      for (l = 1; l <= count; l++) if (known[l] != "" && (at[best] - known[l])^2 < 0.3^2) near = known[l]
      if (!near) { printf "peak %d at %s nm is on no Hg or Ar line\n", k, at[best]; exit 1 }
      printf "peak %d at %s nm: line %s nm\n", k, at[best], near
    }
    if (peaks < 8) { print "only " peaks " peaks"; exit 1 }
  }'
