#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Instruction counts under callgrind, steadier than timings on a shared
# machine: per query through the service loop (GET of 5 attributes, then
# with 100 own keywords and a 100-keyword selector), per HMAC of the loop's
# messages, and per codec round trip against OpenSSL's HMAC() over the same
# bytes.
#
#   bench/callgrind.sh [BUILD_DIR] [QUERIES]     (default: build 300)
#
# Prints nothing measured (and succeeds) where valgrind is not installed.
set -eu
build=${1:-build}
queries=${2:-300}
if ! command -v valgrind >/dev/null 2>&1 || ! command -v callgrind_annotate >/dev/null 2>&1; then
  echo "callgrind.sh: valgrind not found, nothing measured"
  exit 0
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

# inclusive FILE FUNCTION: the function's inclusive instruction count.
inclusive() {
  callgrind_annotate --inclusive=yes --threshold=100 "$1" 2>/dev/null |
    awk -v f="$2" '{ for (i = 3; i <= NF; ++i) if ($i ~ (":" f "$") || $i ~ (":" f " ")) {
                       gsub(",", "", $1); print $1; exit } }'
}
# calls FILE FUNCTION: how often it was called (from the raw call records).
calls() {
  awk -v f="$2" '
    /^c?fn=\(/ { id = $1; sub(/^c?fn=/, "", id); name = substr($0, index($0, ")") + 2)
                 if (name != "") names[id] = name; if ($0 ~ /^cfn=/) cur = id; next }
    /^calls=/ { if (names[cur] == f) { split($1, a, "="); n += a[2] } }
    END { print n + 0 }' "$1"
}
per() { awk -v a="$1" -v b="$2" 'BEGIN { if (b > 0) printf "%.0f", a / b; else printf "n/a" }'; }

loop=$build/bench/omsdk_loop_bench
if [ -x "$loop" ]; then
  for kw in 0 100; do
    f=$out/loop.$kw
    timeout 600 valgrind --tool=callgrind --callgrind-out-file="$f" "$loop" "$queries" 1 \
      --loop-only --keywords=$kw >/dev/null 2>&1 || { echo "callgrind.sh: loop bench failed"; exit 1; }
    n=$(calls "$f" omr_processMsg)
    echo "loop, $kw keywords: $(per "$(inclusive "$f" omr_processMsg)" "$n") instructions per message" \
      "through omr_processMsg ($n messages), $(per "$(inclusive "$f" omr_svc_loop)" "$n") per" \
      "message through the whole loop"
    if [ $kw = 0 ]; then
      h=$(calls "$f" hmac_sha_msg)
      echo "loop: $(per "$(inclusive "$f" hmac_sha_msg)" "$h") instructions per hmac_sha_msg ($h calls)"
    fi
  done
else
  echo "callgrind.sh: $loop not built"
fi

codec=$build/bench/bench_codec
if [ -x "$codec" ]; then
  n=2000
  f=$out/codec
  timeout 600 valgrind --tool=callgrind --callgrind-out-file="$f" "$codec" --callgrind=$n \
    >/dev/null 2>&1 || { echo "callgrind.sh: codec bench failed"; exit 1; }
  p=$(inclusive "$f" cg_path)
  y=$(inclusive "$f" cg_yardstick)
  l=$(inclusive "$f" cg_library_hmac)
  echo "codec: $(per "$p" $n) instructions per round trip (encode, sign, decode, verify)," \
    "$(per "$y" $n) per OpenSSL HMAC(), round trip / 2 HMAC() = $(awk -v p="$p" -v y="$y" \
    'BEGIN { printf "%.2f", p / (2 * y) }')"
  echo "codec: $(per "$l" $n) instructions per hmac_sha_msg over the same bytes"
else
  echo "callgrind.sh: $codec not built (needs Google Benchmark)"
fi
