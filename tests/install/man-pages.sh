#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The man pages format without a warning (mandoc -T lint, else groff -ww),
# and each program's man page documents every option its --help lists.
# Usage: man-pages.sh MAN_DIR [PROGRAM...]   (omsdk-x is checked against omsdk-x.1)
set -u
dir=$1
shift
fail=0

for page in "$dir"/*.[0-9]; do
  if command -v mandoc >/dev/null 2>&1; then
    out=$(mandoc -T lint -W warning "$page" 2>&1)
  elif command -v groff >/dev/null 2>&1; then
    out=$(groff -man -ww -z "$page" 2>&1)
  else
    echo "man-pages: neither mandoc nor groff: formatting not checked"
    break
  fi
  [ -z "$out" ] || { echo "$out"; fail=1; }
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
options() { grep -oE -- '--[a-z][a-z-]*' | sort -u; }
for prog in "$@"; do
  page=$dir/$(basename "$prog").1
  timeout 10 "$prog" --help | options >"$work/help"
  sed 's/\\-/-/g' "$page" | options >"$work/man"
  missing=$(comm -23 "$work/help" "$work/man")
  if [ -n "$missing" ]; then
    echo "$page lacks options that $(basename "$prog") --help lists:" "$(echo $missing)"
    fail=1
  fi
done
[ "$fail" = 0 ] && echo "man pages ok"
exit "$fail"
