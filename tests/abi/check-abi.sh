#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Checks the shared library's dynamic symbols against the expected export
# lists (one name a line, any number of *.txt files) and its NEEDED entries.
set -eu
lib=$1
listdir=$2
fail=0

expected=$(mktemp); actual=$(mktemp)
trap 'rm -f "$expected" "$actual"' EXIT
cat "$listdir"/*.txt | sed 's/#.*//; s/[[:space:]]//g' | grep -v '^$' | sort -u > "$expected"
nm -D --defined-only "$lib" | awk '$2 ~ /^[TDBRVW]$/ {print $3}' | sed 's/@.*//' | sort -u > "$actual"

missing=$(comm -23 "$expected" "$actual")
extra=$(comm -13 "$expected" "$actual")
if [ -n "$missing" ]; then echo "missing exports:"; echo "$missing"; fail=1; fi
if [ -n "$extra" ]; then echo "unexpected exports:"; echo "$extra"; fail=1; fi
if grep -q '^_Z' "$actual"; then echo "C++ symbols exported"; fail=1; fi

needed=$(readelf -d "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
for n in $needed; do
  case $n in
    libc.so.*|libcrypto.so.*|libuuid.so.*|libgcc_s.so.*) ;;
    # sanitizer runtimes appear only in the instrumented build
    libasan.so.*|libubsan.so.*|libtsan.so.*) ;;
    *) echo "unexpected NEEDED entry: $n"; fail=1 ;;
  esac
done
soname=$(readelf -d "$lib" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
[ "$soname" = "libomsdk.so.0" ] || { echo "SONAME is '$soname'"; fail=1; }

count=$(wc -l < "$expected")
if [ $fail -eq 0 ]; then echo "ABI ok: $count exports, NEEDED: $needed"; fi
exit $fail
