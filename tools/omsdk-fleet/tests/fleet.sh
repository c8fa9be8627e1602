#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Twenty endpoints in one fleet process against the switch: all become
# active, each answers with its own name and level, a sweep reaches all of
# them, and SIGINT ends the fleet with every endpoint's discovery delete.
# Usage: fleet.sh SWITCH FLEET
set -u
. "$(dirname "$0")/../../../examples/tests/lib.sh"
switch=$1 fleet=$2 n=20
dir=$(mktemp -d)
fl_pid="" sw_pid=""
trap 'for p in $fl_pid $sw_pid; do kill "$p" 2>/dev/null; done; rm -rf "$dir"' EXIT
port=$(free_port udp)

timeout 40 "$switch" --port "$port" --source 127.0.0.2 --key s3cret --timeout 2 --json \
  "wait-for $n 10" "get name,level" "sweep level,name --in-flight 8" "wait 1.5" list \
  >"$dir/out" 2>"$dir/err" &
sw_pid=$!
wait_until 10 has "$dir/out" "hearing discovery" || { cat "$dir/out" "$dir/err"; fail "no switch"; }
timeout 40 "$fleet" --port "$port" --key s3cret --count "$n" --address 127.1.0.250 \
  --name unit --first 7 >/dev/null 2>"$dir/fleet" &
fl_pid=$!
wait_until 15 has "$dir/out" '"event":"sweep"' || { cat "$dir/out" "$dir/err" "$dir/fleet"; fail "no sweep"; }
kill -INT "$fl_pid"
frc=0
wait "$fl_pid" || frc=$?
fl_pid=""
src=0
wait "$sw_pid" || src=$?
sw_pid=""

python3 - "$dir/out" "$dir/fleet" "$n" "$frc" "$src" <<'PY' || { cat "$dir/out" "$dir/err" "$dir/fleet"; fail "fleet"; }
import json, sys
lines = [json.loads(l) for l in open(sys.argv[1])]
fleet = open(sys.argv[2]).read()
n, frc, src = int(sys.argv[3]), int(sys.argv[4]), int(sys.argv[5])
# Each endpoint answers for itself: unit-7 ... unit-26, level = number mod 11.
got = {}
for l in lines:
    if l["event"] == "result" and l["action"] == "get":
        v = {x["name"]: x["value"] for x in l["values"]}
        got[v["name"]] = v["level"]
assert got == {"unit-%d" % k: k % 11 for k in range(7, 7 + n)}, got
sweep = [l for l in lines if l["event"] == "sweep"]
assert len(sweep) == 1 and sweep[0]["asked"] == n and sweep[0]["answered"] == n, sweep
assert sweep[0]["seconds"] < 3, sweep
# Addresses count up from 127.1.0.250, skipping .255 and .0.
listed = [l for l in lines if l["event"] == "list"]
addrs = sorted(l["address"].split(":")[0] for l in listed)
want = ["127.1.0.%d" % k for k in range(250, 255)] + ["127.1.1.%d" % k for k in range(1, 16)]
assert addrs == sorted(want), addrs
# SIGINT: every endpoint said goodbye and the fleet exited cleanly.
assert [l["state"] for l in listed] == ["left"] * n, [l["state"] for l in listed]
assert "fleet: all %d endpoints ACTIVE" % n in fleet and "fleet: %d endpoints stopped" % n in fleet, fleet
assert frc == 0 and src == 0, (frc, src)
PY
echo "fleet: ok"
