#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The conformance suite against one endpoint on loopback, asserting exactly
# which cases fail. The demo lamp must pass everything; each faulty
# endpoint must fail the cases its fault breaks and nothing else.
# Usage: conform.sh SWITCH LAMP FAULTY SCENARIO
set -u
. "$(dirname "$0")/../../../examples/tests/lib.sh"
switch=$1 lamp=$2 faulty=$3 scenario=$4
dir=$(mktemp -d)
ep_pid="" sw_pid=""
trap 'for p in $ep_pid $sw_pid; do kill "$p" 2>/dev/null; done; rm -rf "$dir"' EXIT
port=$(free_port udp)
more=""
case $scenario in
  lamp)        ep="$lamp --key s3cret";              expect="" ;;
  wrong-key)   ep="$lamp --key not-the-secret";      expect="discovery-signed handshake-active shutdown" ;;
  out-of-range) ep="$faulty --key s3cret --fault accept-out-of-range"; expect="set-level-refused" ;;
  ignore-out-of-range) ep="$faulty --key s3cret --fault ignore-out-of-range"; expect="set-level-refused" ;;
  readback)    ep="$faulty --key s3cret --fault wrong-readback";       expect="set-level" ;;
  sequence)    ep="$faulty --key s3cret --fault stuck-sequence";       expect="discovery-sequence" ;;
  interval)    ep="$faulty --key s3cret --fault none --interval 2";    expect=""; more="--interval 2" ;;
  slow-interval) ep="$faulty --key s3cret --fault slow-interval --interval 2"
               expect="discovery-repeated"; more="--interval 2" ;;
  *) fail "unknown scenario $scenario" ;;
esac

# shellcheck disable=SC2086
timeout 90 "$switch" conform --port "$port" --from 127.0.0.2 --key s3cret $more \
  --junit "$dir/report.xml" --json "$dir/report.json" \
  --stop-command "kill -TERM \$(cat $dir/ep.pid)" first >"$dir/out" 2>&1 &
sw_pid=$!
wait_until 10 has "$dir/out" "hearing discovery" || { cat "$dir/out"; fail "the suite did not start"; }
# shellcheck disable=SC2086
$ep --port "$port" --address 127.0.0.1 >"$dir/ep.out" 2>&1 &
ep_pid=$!
echo "$ep_pid" >"$dir/ep.pid"
rc=0
wait "$sw_pid" || rc=$?
sw_pid=""
cat "$dir/out"

# Verdicts from the JSON report; the JUnit file read by a real XML parser
# must say the same; the lamp's run must fit the 60 s budget.
python3 - "$dir/report.json" "$dir/report.xml" "$expect" "$rc" <<'EOF' || fail "$scenario"
import json, sys, xml.etree.ElementTree as ET
report, junit, expect, rc = json.load(open(sys.argv[1])), ET.parse(sys.argv[2]).getroot(), set(sys.argv[3].split()), int(sys.argv[4])
failed = {c["id"] for c in report["cases"] if c["verdict"] == "fail"}
assert failed == expect, "failing %s, expected %s" % (sorted(failed), sorted(expect))
assert rc == (1 if expect else 0), "exit status %d" % rc
assert junit.tag == "testsuites" and len(junit) == 1, junit.tag
cases = junit.find("testsuite").findall("testcase")
assert [c.get("name") for c in cases] == [c["id"] for c in report["cases"]]
assert {c.get("name") for c in cases if c.find("failure") is not None} == failed
assert int(junit.get("failures")) == len(failed) and int(junit.get("tests")) == len(cases) == 30
assert report["seconds"] < 60, "the run took %s s" % report["seconds"]
EOF
echo "conform $scenario: failing cases as expected: ${expect:-none}"
