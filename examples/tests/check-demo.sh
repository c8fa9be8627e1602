#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# Runs the demo on an existing build tree (OMSDK_DEMO_BUILD_DIR and the
# program paths come from the environment) and checks its key lines.
# Usage: check-demo.sh PATH-TO-scripts/demo
set -u
. "$(dirname "$0")/lib.sh"
[ -n "${OMSDK_DEMO_BUILD_DIR:-}" ] || fail "OMSDK_DEMO_BUILD_DIR is not set"
out=$(mktemp)
trap 'rm -f "$out"' EXIT
timeout 90 sh "$1" >"$out" 2>&1 || { cat "$out" >&2; fail "the demo failed or took too long"; }
id=$(sed -n 's/^lamp   | endpoint \([0-9a-f]\{32\}\): .*/\1/p' "$out")
[ -n "$id" ] || { cat "$out" >&2; fail "no identifier in the lamp's first line"; }

# The handshake; a GET of the lamp at level 10 (4 W + 6 W a level step, 1 W
# when off); the SETs applied and read back; the alarm answered; a clean
# shutdown and the lamp leaving.
expect_order "$out" \
  "lamp   | status: UP" \
  "digest verified" \
  "lamp   | status: ACTIVE" \
  "handshake: $id active" \
  "get $id: accepted" \
  "  level = 10" \
  "  usage = 64 W" \
  "  usage-vector = [1, 10, 16, 22, 28, 34, 40, 46, 52, 58, 64] W" \
  "  delta-vector = [-63, -54, -48, -42, -36, -30, -24, -18, -12, -6, 0] W" \
  "  device-type = dimmable lamp" \
  "lamp   | SET level 3 (from switch), usage now 22 W" \
  'lamp   | SET name "hall-lamp" (from switch)' \
  "  level = 3" \
  "  usage = 22 W" \
  "  name = hall-lamp"
expect_order "$out" \
  "lamp   | requesting an alarm (in 60 s, parameters 1 0)" \
  "alarm request from $id: id 1 set seconds 60 params 1,0" \
  "lamp   | alarm 1 answered: ok" \
  "lamp   | SIGINT received, shutting down" \
  "lamp   | status: SHUTDOWN" \
  "lamp   | status: DOWN" \
  "lamp   | clean shutdown" \
  "== demo: done"
expect_order "$out" "lamp   | SIGINT received, shutting down" \
  "$id leaves the domain"
! grep -q "MISSING" "$out" || fail "the demo's own summary misses a step"

# The lamp's capture, decoded by the dissector: every message of the run (its
# datagrams, the switch's messages and the lamp's answers) verifies with the
# domain's key, and none with another key.
if command -v tshark >/dev/null 2>&1; then
  port=$(sed -n 's/.*UDP port \([0-9]*\)$/\1/p' "$out" | head -1)
  here=$(cd "$(dirname "$0")/../.." && pwd)
  verdicts() {
    tshark -n -r "$OMSDK_DEMO_BUILD_DIR/demo/demo.pcapng" -X "lua_script:$here/tools/wireshark/ohmara.lua" \
      -o "ohmara.udp_port:$port" -o "ohmara.key:$1" 2>/dev/null | grep -o '\[digest [a-z]*\]'
  }
  ok=$(verdicts demo-secret | grep -c '\[digest ok\]')
  all=$(verdicts demo-secret | wc -l)
  [ "$all" -ge 20 ] && [ "$ok" -eq "$all" ] || fail "capture: $ok of $all messages verify with the key"
  bad=$(verdicts not-the-secret | grep -c '\[digest mismatch\]')
  [ "$bad" -eq "$all" ] || fail "capture: $bad of $all messages mismatch with a wrong key"
  echo "demo: capture decoded, $all messages, every digest verified"
elif [ "${CI:-}" = true ]; then
  fail "tshark is missing"
fi
echo "demo: all checks passed"
