#!/bin/sh
# The demo device's command line and life cycle without a switch: argument
# errors, --help, running for a set time, stopping on SIGINT and SIGTERM
# (also before the loop is up), and the identifier derived from --mac.
# Usage: endpoint-cli.sh PATH-TO-omsdk-endpoint
set -u
EP=$1
. "$(dirname "$0")/lib.sh"

tmp=$(mktemp -d)
pid=""
cleanup() {
  [ -n "$pid" ] && kill -KILL "$pid" 2>/dev/null
  rm -rf "$tmp"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

PORT=$(free_port udp)

# --- argument errors: exit 2, one line of reason, then the usage --------
bad_args() {
  # $1: expected fragment of the reason; the rest: the arguments
  _want=$1
  shift
  timeout 10 "$EP" "$@" >"$tmp/out" 2>"$tmp/err"
  _rc=$?
  [ "$_rc" -eq 2 ] || fail "'$*' exited $_rc, expected 2"
  head -n 1 "$tmp/err" | grep -qF "omsdk-endpoint: $_want" ||
    fail "'$*': first line of stderr is '$(head -n 1 "$tmp/err")', expected '$_want'"
  grep -qF "usage: omsdk-endpoint" "$tmp/err" || fail "'$*': no usage after the reason"
  [ ! -s "$tmp/out" ] || fail "'$*': wrote to standard output"
}
bad_args "unknown option --colour" --colour
bad_args "--port needs a value" --port
bad_args "--port: '0' is not a port" --port 0
bad_args "--port: '65536' is not a port" --port 65536
bad_args "--port: '12ab' is not a port" --port 12ab
bad_args "--listen-port: '-1' is not a port" --listen-port -1
bad_args "--importance: '0' is not a number from 1 to 100" --importance 0
bad_args "--importance: '101' is not a number from 1 to 100" --importance 101
bad_args "--address: '127.0.0' is not a dotted-quad" --address 127.0.0
bad_args "--address: 'localhost' is not a dotted-quad" --address localhost
bad_args "--mac: '00:11:22:33:44' is not six" --mac 00:11:22:33:44
bad_args "--mac: '00:11:22:33:44:5g' is not six" --mac 00:11:22:33:44:5g
bad_args "--mac: '00:11:22:33:44:55:66' is not six" --mac 00:11:22:33:44:55:66
bad_args "--log-level: 'loud' is not a level" --log-level loud
bad_args "--log-level: '7' is not a level" --log-level 7
bad_args "--alarm-after: '-1' is not a number of seconds" --alarm-after -1
bad_args "--run-for: '2s' is not a number of seconds" --run-for 2s
bad_args "--key: the secret is empty" --key ""
bad_args "unexpected argument 'now'" --run-for 1 now
# The library refuses a domain with a blank; the device reports it as an
# argument error too, after the library's own lines.
timeout 10 "$EP" --domain "my domain" --port "$PORT" >"$tmp/out" 2>"$tmp/err"
rc=$?
[ "$rc" -eq 2 ] || fail "a domain with a blank: exit $rc, expected 2"
expect_order "$tmp/err" "Invalid or no characters defined for domain" \
  "omsdk-endpoint: --domain: 'my domain' was refused" "usage: omsdk-endpoint"

# --- --help: exit 0, every option documented on standard output ---------
timeout 10 "$EP" --help >"$tmp/out" 2>"$tmp/err" || fail "--help did not exit 0"
for opt in --domain --name --role --keywords --importance --device-type --key --mac \
           --address --port --listen-port --log-level --alarm-after --run-for --help; do
  grep -qF -- "$opt" "$tmp/out" || fail "--help does not mention $opt"
done

# --- --run-for: the whole life cycle, readable lines only on stdout -----
LPORT=$(free_port tcp)
timeout 20 "$EP" --port "$PORT" --listen-port "$LPORT" --run-for 0.5 --mac 00:11:22:33:44:55 \
  --name porch --role "night light" --importance 7 >"$tmp/out" 2>"$tmp/err"
rc=$?
[ "$rc" -eq 0 ] || { cat "$tmp/err" >&2; fail "--run-for 0.5 exited $rc"; }
# The identifier made from a MAC: E0 D0 0D E0, six zero bytes, the MAC.
expect_order "$tmp/out" \
  'endpoint e0d00de0000000000000001122334455: "porch" in domain "demo", role "night light", importance 7, level 10' \
  "status: INITIALIZING" \
  "listening for the switch on TCP port $LPORT" \
  "status: UP" \
  "run time of 0.5 s over, shutting down" \
  "status: SHUTDOWN" \
  "status: DOWN" \
  "clean shutdown"
# The library's own unterminated lines go to standard error, not here.
if grep -q "@@@" "$tmp/out"; then fail "library output mixed into standard output"; fi
grep -q "@@@" "$tmp/err" || fail "the library's key-context lines vanished"

# --- signals: a clean shutdown from another thread than the loop's -----
for sig in TERM INT; do
  : >"$tmp/out"
  "$EP" --port "$PORT" >"$tmp/out" 2>"$tmp/err" &
  pid=$!
  wait_for_line "$tmp/out" "status: UP" 10 || fail "SIG$sig run: never UP"
  kill -"$sig" "$pid"
  wait_for_exit "$pid" 20 || fail "SIG$sig: still running 20 s later"
  wait "$pid"
  rc=$?
  pid=""
  [ "$rc" -eq 0 ] || { cat "$tmp/err" >&2; fail "SIG$sig: exit status $rc"; }
  expect_order "$tmp/out" "status: UP" "SIG$sig received, shutting down" "status: SHUTDOWN" \
    "status: DOWN" "clean shutdown"
done

# A signal as soon as the device has printed its start line, when the
# loop may not be UP yet (a shutdown it refuses must be retried).
: >"$tmp/out"
"$EP" --port "$PORT" >"$tmp/out" 2>"$tmp/err" &
pid=$!
wait_for_line "$tmp/out" "endpoint " 10 || fail "early signal run: no start line"
kill -INT "$pid"
wait_for_exit "$pid" 20 || fail "early SIGINT: still running 20 s later"
wait "$pid"
rc=$?
pid=""
[ "$rc" -eq 0 ] || { cat "$tmp/err" >&2; fail "early SIGINT: exit status $rc"; }
expect_order "$tmp/out" "SIGINT received, shutting down" "status: SHUTDOWN" "status: DOWN" \
  "clean shutdown"

echo "endpoint command line: all checks passed"
