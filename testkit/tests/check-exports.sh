#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The kit's shared library exports exactly the names of its list, and
# libomsdk.so.0 none of them.
# Usage: check-exports.sh LIBOMSDK_TESTKIT_SO EXPORTS_TXT LIBOMSDK_SO
set -eu
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
sed 's/#.*//; s/[[:space:]]//g' "$2" | grep -v '^$' | sort -u > "$work/want"
nm -D --defined-only "$1" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | sort -u > "$work/have"
diff "$work/want" "$work/have" || { echo "the kit's exports differ from $2"; exit 1; }
if nm -D --defined-only "$3" | grep -q ' ohmara_tk_'; then
  echo "libomsdk.so.0 contains the kit"; exit 1
fi
echo "kit exports ok: $(wc -l < "$work/want")"
