#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The epoll example runs two lamps by turns on its one thread, shuts both
# down from it and exits 0, each lamp's status callback (told apart by the
# context pointer) having seen every step.
# Usage: epoll.sh PATH-TO-epoll
set -u
. "$(dirname "$0")/lib.sh"
out=$(mktemp)
trap 'rm -f "$out"' EXIT
timeout 30 "$1" 1 "$(free_port udp)" >"$out" 2>&1 || { cat "$out" >&2; fail "epoll did not exit 0"; }
for lamp in lamp-1 lamp-2; do
  expect_order "$out" "$lamp status 2" "$lamp status 1" "$lamp status 4" "$lamp status 0" "done"
done
echo "epoll: ok"
