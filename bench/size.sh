#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Size of the product: the stripped shared library against the 140 KiB goal,
# its biggest sections, the padding between its segments, and the biggest
# functions and tables (from the unstripped file).
#
#   bench/size.sh [BUILD_DIR]     (default: build; a Release build is what ships)
set -eu
build=${1:-build}
goal=143360
lib=$(ls "$build"/libomsdk.so.*.*.* 2>/dev/null | head -n 1)
[ -n "$lib" ] || { echo "size.sh: no libomsdk.so.X.Y.Z in $build"; exit 1; }
out=$(mktemp)
trap 'rm -f "$out"' EXIT
strip -o "$out" "$lib"
bytes=$(stat -c %s "$out")
echo "$(basename "$lib") stripped: $bytes bytes, goal $goal:" \
  "$(awk -v b="$bytes" -v g="$goal" 'BEGIN { printf "%s by %d", b <= g ? "met" : "missed", b <= g ? g - b : b - g }')"

echo "biggest sections:"
size -A "$out" | awk '$1 ~ /^\./ && $2 > 0 { print $2, $1 }' | sort -rn | head -n 10 |
  awk '{ printf "  %8d  %s\n", $1, $2 }'

# Bytes of the file that belong to no section (alignment between segments).
pad=0
last=0
readelf -SW "$out" | sed -n 's/^ *\[ *[0-9]*\] *//p' | grep -v '^NULL\|NOBITS' |
  while read -r name type addr off size rest; do echo "$off $size"; done > "$out.sec"
while read -r off size; do
  o=$((0x$off)); s=$((0x$size))
  [ "$o" -eq 0 ] && continue
  [ "$last" -gt 0 ] && [ "$o" -gt "$last" ] && pad=$((pad + o - last))
  last=$((o + s))
done < "$out.sec"
rm -f "$out.sec"
echo "padding between sections: $pad bytes"

echo "biggest symbols:"
nm --size-sort -S -C -t d "$lib" | tail -n 12 | tac |
  awk '{ n = $4; for (i = 5; i <= NF; ++i) n = n " " $i
         printf "  %8d  %s %s\n", $2, $3, substr(n, 1, 100) }'
