#!/bin/sh
# Runs the demo against an existing build tree and checks what it shows:
# the handshake, the GET values of the lamp at level 10, both SETs, the
# alarm and its answer, and the clean shutdown.
# Usage: check-demo.sh PATH-TO-scripts/demo
# (OMSDK_DEMO_BUILD_DIR and the program paths come from the environment.)
set -u
DEMO=$1
. "$(dirname "$0")/lib.sh"

[ -n "${OMSDK_DEMO_BUILD_DIR:-}" ] || fail "OMSDK_DEMO_BUILD_DIR is not set"
out=$(mktemp)
trap 'rm -f "$out"' EXIT

start=$(date +%s)
timeout 90 sh "$DEMO" >"$out" 2>&1
rc=$?
took=$(($(date +%s) - start))
[ "$rc" -eq 0 ] || { cat "$out" >&2; fail "the demo exited $rc"; }
[ "$took" -lt 60 ] || fail "the demo took $took s"

id=$(sed -n 's/^lamp   | endpoint \([0-9a-f]\{32\}\): .*/\1/p' "$out")
[ -n "$id" ] || { cat "$out" >&2; fail "no identifier in the lamp's first line"; }

# Discovery and the handshake.
expect_order "$out" \
  "lamp   | status: UP" \
  "switch | new endpoint $id from 127.0.0.1:" \
  "switch | discovery from 127.0.0.1:" \
  "switch |   digest verified" \
  "lamp   | status: ACTIVE" \
  "switch | handshake: $id active"

# The first GET: every attribute of the lamp at level 10, where it draws
# 4 W + 6 W per level step (1 W when off).
expect_order "$out" \
  "switch | handshake: $id active" \
  "switch | get $id: CV_SHIPMENT_ACK_WILL" \
  "switch |   level = 10" \
  "switch |   usage = 64 (units 0)" \
  "switch |   units = 0" \
  "switch |   caliber = -1 (CV_CORVANE_USAGE_CALIBER_PRESUMED)" \
  "switch |   category = 1 (CV_CORVANE_USAGE_CONSUMER)" \
  "switch |   usage-vector = [1, 10, 16, 22, 28, 34, 40, 46, 52, 58, 64]" \
  "switch |   delta-vector = [-63, -54, -48, -42, -36, -30, -24, -18, -12, -6, 0]" \
  "switch |   importance = 50" \
  "switch |   name = lamp-1" \
  "switch |   role = light" \
  "switch |   keywords = lamp,dimmable" \
  "switch |   device-type = dimmable lamp"

# The SETs, seen by the lamp and acknowledged, then read back.
expect_order "$out" \
  "switch |   device-type = dimmable lamp" \
  "lamp   | SET level 3 (from switch), usage now 22 W" \
  "switch | set $id: CV_SHIPMENT_ACK_WILL" \
  'lamp   | SET name "hall-lamp" (from switch)' \
  "switch | set $id: CV_SHIPMENT_ACK_WILL" \
  "switch | get $id: CV_SHIPMENT_ACK_WILL" \
  "switch |   level = 3" \
  "switch |   usage = 22" \
  "switch |   name = hall-lamp"

# The alarm: asked for by the lamp, carried by a discovery update, answered.
expect_order "$out" \
  "lamp   | requesting an alarm (in 60 s, parameters 1 0)" \
  "switch |   ALARM                seconds=60 param2=0 param1=1 id=1 operation=1 (set)" \
  "switch | alarm request from $id: id 1 set seconds 60 params 1,0" \
  "switch | alarm answer to $id: id 1 ok"
expect_order "$out" \
  "switch | alarm request from $id: id 1 set seconds 60 params 1,0" \
  "lamp   | alarm 1 answered: ok"

# The clean shutdown, and the lamp leaving the domain.
expect_order "$out" \
  "lamp   | alarm 1 answered: ok" \
  "lamp   | SIGINT received, shutting down" \
  "lamp   | status: SHUTDOWN" \
  "lamp   | status: DOWN" \
  "lamp   | clean shutdown"
expect_order "$out" \
  "lamp   | SIGINT received, shutting down" \
  "switch |   CV_CLASS_DISCOVERY  CV_ACTION_KVQR_CORVANE_DISCOVERY_DELETE  CV_SHIPMENT_SEND"
expect_in "$out" "== demo: done"
if grep -q "MISSING" "$out"; then fail "the demo's own summary misses a step"; fi

echo "demo: all checks passed ($took s)"
