# Helpers shared by the example tests (POSIX sh). Every wait is bounded.

fail() {
  echo "FAIL: $*" >&2
  exit 1
}

# free_port udp|tcp: a port that is free on every address now. It is taken
# below the usual ephemeral range (32768 and up), so that the outgoing
# connections of other programs do not take it meanwhile, and it is never
# the protocol's default. The probe only binds; it sends nothing.
free_port() {
  python3 - "$1" <<'PY'
import random, socket, sys
kind = socket.SOCK_DGRAM if sys.argv[1] == "udp" else socket.SOCK_STREAM
while True:
    port = random.randrange(20000, 32000)
    s = socket.socket(socket.AF_INET, kind)
    try:
        s.bind(("0.0.0.0", port))
    except OSError:
        continue
    finally:
        s.close()
    print(port)
    break
PY
}

# wait_for_line FILE FIXED-STRING SECONDS: 0 once the file holds a line
# containing the string, 1 when the time runs out.
wait_for_line() {
  _n=$(($3 * 10))
  while [ "$_n" -gt 0 ]; do
    grep -qF -- "$2" "$1" 2>/dev/null && return 0
    sleep 0.1
    _n=$((_n - 1))
  done
  return 1
}

# wait_for_exit PID SECONDS: 0 once the process has gone, 1 on time-out.
wait_for_exit() {
  _n=$(($2 * 10))
  while [ "$_n" -gt 0 ]; do
    kill -0 "$1" 2>/dev/null || return 0
    sleep 0.1
    _n=$((_n - 1))
  done
  return 1
}

# expect_in FILE FIXED-STRING...: every string occurs in the file.
expect_in() {
  _f=$1
  shift
  for _s in "$@"; do
    grep -qF -- "$_s" "$_f" || { echo "--- $_f:" >&2; cat "$_f" >&2; fail "missing: $_s"; }
  done
}

# expect_order FILE FIXED-STRING...: the strings occur on lines in this order.
expect_order() {
  _f=$1
  shift
  _line=0
  for _s in "$@"; do
    _next=$(grep -nF -- "$_s" "$_f" | cut -d: -f1 | awk -v after="$_line" '$1 > after { print; exit }')
    [ -n "$_next" ] || { echo "--- $_f:" >&2; cat "$_f" >&2; fail "not found after line $_line: $_s"; }
    _line=$_next
  done
}
