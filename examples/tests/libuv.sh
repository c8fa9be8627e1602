#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The libuv example runs a lamp by turns in a libuv loop, shuts it down from
# the loop and exits 0, its status callback having seen every step.
# Usage: libuv.sh PATH-TO-libuv
set -u
. "$(dirname "$0")/lib.sh"
out=$(mktemp)
trap 'rm -f "$out"' EXIT
timeout 30 "$1" 1 "$(free_port udp)" >"$out" 2>&1 || { cat "$out" >&2; fail "libuv did not exit 0"; }
expect_order "$out" "status 2" "status 1" "status 4" "status 0" "done"
echo "libuv: ok"
