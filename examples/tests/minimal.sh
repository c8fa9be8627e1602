#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The smallest program runs its loop on a thread, shuts it down from the
# main thread and exits 0, its status callback having seen every step.
# Usage: minimal.sh PATH-TO-minimal
set -u
. "$(dirname "$0")/lib.sh"
out=$(mktemp)
trap 'rm -f "$out"' EXIT
timeout 30 "$1" >"$out" 2>&1 || { cat "$out" >&2; fail "minimal did not exit 0"; }
expect_order "$out" "status 2" "status 1" "status 4" "status 0" "done"  # INITIALIZING UP SHUTDOWN DOWN
echo "minimal: ok"
