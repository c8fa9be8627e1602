#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The demo device's command line and life cycle without a switch: argument
# errors, --help, a timed run with the identifier made from --mac, and a
# clean stop on SIGTERM and SIGINT, also before the loop is up.
# Usage: endpoint-cli.sh PATH-TO-omsdk-endpoint
set -u
EP=$1
. "$(dirname "$0")/lib.sh"
tmp=$(mktemp -d)
pid=""
trap '[ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null; rm -rf "$tmp"' EXIT
trap 'exit 1' INT TERM
PORT=$(free_port udp)

# bad_args REASON ARGS...: exit 2, the reason on the first line of stderr,
# then the usage; nothing on stdout.
bad_args() {
  _want=$1; shift
  timeout 10 "$EP" "$@" >"$tmp/out" 2>"$tmp/err"
  _rc=$?
  [ "$_rc" -eq 2 ] || fail "'$*' exited $_rc, expected 2"
  head -n 1 "$tmp/err" | grep -qF "omsdk-endpoint: $_want" || fail "'$*': $(head -n 1 "$tmp/err")"
  has "$tmp/err" "usage: omsdk-endpoint" || fail "'$*': no usage after the reason"
  [ ! -s "$tmp/out" ] || fail "'$*': wrote to standard output"
}
bad_args "unknown option --colour" --colour
bad_args "--port: '65536' is not a port" --port 65536
bad_args "--importance: '101' is not a number from 1 to 100" --importance 101
bad_args "--address: 'localhost' is not a dotted-quad" --address localhost
bad_args "--mac: '00:11:22:33:44:5g' is not six" --mac 00:11:22:33:44:5g
bad_args "--run-for: '2s' is not a number of seconds" --run-for 2s
bad_args "--key: the secret is empty" --key ""
bad_args "unexpected argument 'now'" --run-for 1 now
# A domain the library refuses: an argument error too, after its own lines.
timeout 10 "$EP" --domain "my domain" --port "$PORT" >"$tmp/out" 2>"$tmp/err"
[ $? -eq 2 ] || fail "a domain with a blank: exit status not 2"
expect_order "$tmp/err" "Invalid or no characters defined for domain" \
  "omsdk-endpoint: --domain: 'my domain' was refused" "usage: omsdk-endpoint"
timeout 10 "$EP" --help >"$tmp/out" 2>&1 || fail "--help did not exit 0"
has "$tmp/out" "--listen-port" || fail "--help does not document --listen-port"
has "$tmp/out" "--hardened" || fail "--help does not document --hardened"

# A timed run. The identifier from a MAC: E0 D0 0D E0, six zero bytes, the MAC.
LPORT=$(free_port tcp)
timeout 20 "$EP" --port "$PORT" --listen-port "$LPORT" --run-for 0.5 --mac 00:11:22:33:44:55 \
  --name porch --role "night light" --importance 7 >"$tmp/out" 2>"$tmp/err" ||
  { cat "$tmp/err" >&2; fail "--run-for 0.5 did not exit 0"; }
expect_order "$tmp/out" \
  'endpoint e0d00de0000000000000001122334455: "porch" in domain "demo", role "night light", importance 7, level 10' \
  "status: INITIALIZING" "listening for the switch on TCP port $LPORT" "status: UP" \
  "run time of 0.5 s over, shutting down" "status: SHUTDOWN" "status: DOWN" "clean shutdown"
! has "$tmp/out" "@@@" || fail "the library's own lines mixed into standard output"
# The hardened profile: the same life.
timeout 20 "$EP" --port "$PORT" --run-for 0.3 --hardened >"$tmp/out" 2>"$tmp/err" ||
  { cat "$tmp/err" >&2; fail "--hardened --run-for 0.3 did not exit 0"; }
expect_order "$tmp/out" "status: UP" "status: DOWN" "clean shutdown"

# Signals, handled on another thread than the loop's; the last one as soon
# as the start line is out, when the loop may not be UP yet.
for case in "TERM status: UP" "INT status: UP" "INT endpoint "; do
  sig=${case%% *}
  "$EP" --port "$PORT" >"$tmp/out" 2>"$tmp/err" &
  pid=$!
  wait_until 10 has "$tmp/out" "${case#* }" || fail "$case: never there"
  kill -"$sig" "$pid"
  wait_until 20 gone "$pid" || fail "$case: still running 20 s after SIG$sig"
  wait "$pid"
  rc=$? pid=""
  [ "$rc" -eq 0 ] || { cat "$tmp/err" >&2; fail "$case: exit status $rc"; }
  expect_order "$tmp/out" "SIG$sig received, shutting down" "status: SHUTDOWN" "status: DOWN" \
    "clean shutdown"
done
echo "endpoint command line: all checks passed"
