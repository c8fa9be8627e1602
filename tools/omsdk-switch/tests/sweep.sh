#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The sweep against three demo lamps on loopback, handshaken one
# acknowledgement at a time (the others wait their turn): first all answer,
# paced by the rate; then one lamp is frozen (SIGSTOP) and the next sweep
# counts it as timed out while the others still answer, and the command
# exits 1.
# Usage: sweep.sh SWITCH LAMP
set -u
. "$(dirname "$0")/../../../examples/tests/lib.sh"
switch=$1 lamp=$2
dir=$(mktemp -d)
pids="" sw_pid=""
trap 'for p in $pids $sw_pid; do kill -CONT "$p" 2>/dev/null; kill "$p" 2>/dev/null; done; rm -rf "$dir"' EXIT
port=$(free_port udp)

timeout 40 "$switch" --port "$port" --source 127.0.0.2 --key s3cret --timeout 1 --acks-in-flight 1 --json \
  "wait-for 3 15" "sweep level,name --rate 10" "wait 2" "sweep level --in-flight 1" \
  >"$dir/out" 2>"$dir/err" &
sw_pid=$!
wait_until 10 has "$dir/out" "hearing discovery" || { cat "$dir/out" "$dir/err"; fail "no switch"; }
for i in 1 2 3; do
  "$lamp" --port "$port" --address 127.0.0.1 --key s3cret --name "lamp-$i" \
    --mac "02:00:00:00:00:0$i" --run-for 30 >"$dir/ep$i.out" 2>&1 &
  pids="$pids $!"
  [ "$i" = 3 ] && frozen=$!
done
wait_until 20 has "$dir/out" '"event":"sweep"' || { cat "$dir/out" "$dir/err"; fail "no first sweep"; }
kill -STOP "$frozen"
rc=0
wait "$sw_pid" || rc=$?
sw_pid=""

python3 - "$dir/out" "$rc" <<'PY' || { cat "$dir/out" "$dir/err"; fail "sweep"; }
import json, sys
lines = [json.loads(l) for l in open(sys.argv[1])]
rc = int(sys.argv[2])
sweeps = [l for l in lines if l["event"] == "sweep"]
assert len(sweeps) == 2, sweeps
first, second = sweeps
counts = lambda s: [s[k] for k in ("asked", "answered", "not_addressed", "refused", "failed", "timed_out")]
assert counts(first) == [3, 3, 0, 0, 0, 0], first
# Three queries at 10 a second start 0.1 s apart.
assert first["seconds"] >= 0.2, first
lat = first["latency_ms"]
order = [lat[k] for k in ("min", "p50", "p90", "p99", "max")]
assert order == sorted(order) and order[0] > 0, lat
assert counts(second) == [3, 2, 0, 0, 0, 1], second
assert 1.0 <= second["seconds"] < 3, second
failures = [l for l in lines if l["event"] == "result" and l["action"] == "sweep"]
assert len(failures) == 1 and "in 1 s" in failures[0]["error"], failures
assert rc == 1, "exit status %d" % rc
PY
echo "sweep: ok"
