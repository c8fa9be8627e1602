#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Fleet benchmark (not a test): for each N, one omsdk-fleet process with N
# endpoints on loopback and one omsdk-switch that waits for all of them and
# sweeps them once. Prints per N: the heap and descriptors each endpoint
# holds (the fleet's own count, mallinfo2 and /proc/self/fd), the time until
# every endpoint is ACTIVE, and the sweep's throughput and latency.
# Usage: bench/fleet.sh BUILD-DIR [N...]   (default N: 100 1000 10000)
# FLEETS=K splits each N over K fleet processes (numbers and addresses apart),
# for a machine whose descriptor limit holds fewer than N + 512. The
# endpoints' listener ports count up from LISTEN_PORT (default 10000, below
# the system's ephemeral range, where choosing a free port is slow once
# thousands are taken); LISTEN_PORT=0 lets the system choose each.
set -u
build=${1:?usage: bench/fleet.sh BUILD-DIR [N...]}
shift
[ $# -gt 0 ] || set -- 100 1000 10000
switch=$build/tools/omsdk-switch/omsdk-switch fleet=$build/tools/omsdk-fleet/omsdk-fleet
. "$(dirname "$0")/../examples/tests/lib.sh"
dir=$(mktemp -d)
fl_pid="" sw_pid=""
trap 'for p in $fl_pid $sw_pid; do kill "$p" 2>/dev/null; done; rm -rf "$dir"' EXIT
echo "machine: $(nproc) cores; $(uptime)"
for n in "$@"; do
  port=$(free_port udp)
  timeout 300 "$switch" --port "$port" --source 127.0.0.2 --key bench --timeout 5 --json \
    "wait-for $n 120" "sweep level,name --in-flight 128" >"$dir/sw" 2>"$dir/sw.err" &
  sw_pid=$!
  wait_until 10 has "$dir/sw" "hearing discovery" || fail "no switch"
  # The kernel's count of datagrams dropped at the switch's port (last
  # column of /proc/net/udp), sampled while the switch lives.
  hexport=$(printf ':%04X ' "$port")
  (while kill -0 "$sw_pid" 2>/dev/null; do
     grep -F "00000000$hexport" /proc/net/udp >"$dir/udp.new" && mv "$dir/udp.new" "$dir/udp"
     sleep 0.5
   done) &
  k=${FLEETS:-1} base=${LISTEN_PORT:-10000}
  fl_pid=""
  for j in $(seq 1 "$k"); do
    listen=""
    [ "$base" -eq 0 ] || listen="--listen-port $((base + (j - 1) * (n / k + 256)))"
    # shellcheck disable=SC2086
    timeout 300 "$fleet" --port "$port" --key bench --count $((n / k)) \
      --first $(((j - 1) * (n / k) + 1)) --address "127.$((j + 1)).0.1" $listen \
      --run-for 280 >/dev/null 2>"$dir/fl.$j" &
    fl_pid="$fl_pid $!"
  done
  wait "$sw_pid"; sw_rc=$?; sw_pid=""
  for p in $fl_pid; do kill -INT "$p" 2>/dev/null; wait "$p"; done; fl_pid=""
  cat "$dir"/fl.* >"$dir/fl"
  touch "$dir/udp"
  python3 - "$n" "$dir/sw" "$dir/fl" "$sw_rc" "$dir/udp" <<'PY'
import datetime, json, re, sys
n, sw, fl, rc = int(sys.argv[1]), sys.argv[2], open(sys.argv[3]).read(), int(sys.argv[4])
udp = open(sys.argv[5]).read().split()
active = re.findall(r"all \d+ endpoints ACTIVE after ([\d.]+) s", fl)
heap = re.findall(r"heap \d+ bytes for \d+ endpoints \((\d+) each\), \d+ descriptors \(([\d.]+) each\)", fl)
sweep = [json.loads(l) for l in open(sw) if '"event":"sweep"' in l]
print("N=%d" % n)
print("  all ACTIVE after (s, per fleet process): %s" % (active if active else "not all: %s" % fl.strip().splitlines()[-2:]))
lines = [json.loads(l) for l in open(sw) if l.startswith("{")]
at = lambda l: datetime.datetime.fromisoformat(l["time"]).timestamp()
t0 = [at(l) for l in lines if l["event"] == "note" and "hearing discovery" in l["text"]]
up = [at(l) for l in lines if l["event"] == "handshake" and l.get("state") == "active"]
if t0 and len(up) >= n:
    print("  switch: all %d active %.2f s after it started" % (n, sorted(up)[n - 1] - t0[0]))
print("  switch: %d handshakes completed, %s datagrams dropped at its port"
      % (len(up), udp[-1] if udp else "?"))
for h in heap:
    print("  heap: %s bytes per endpoint; descriptors: %s per endpoint" % h)
if sweep:
    s = sweep[0]
    lat = s.get("latency_ms", {})
    print("  sweep: %d asked, %d answered, %d failed, %d timed out in %.3f s (%.0f/s); latency ms p50 %s p90 %s p99 %s max %s"
          % (s["asked"], s["answered"], s["failed"], s["timed_out"], s["seconds"],
             s["asked"] / s["seconds"] if s["seconds"] else 0, lat.get("p50"), lat.get("p90"), lat.get("p99"), lat.get("max")))
else:
    print("  sweep: none (switch exit %d)" % rc)
PY
done
