# SPDX-License-Identifier: Apache-2.0
# Helpers shared by the example tests (POSIX sh). Every wait is bounded.
fail() { echo "FAIL: $*" >&2; exit 1; }

# free_port udp|tcp: a port free on every address now, below the usual
# ephemeral range (so that other programs do not take it meanwhile) and so
# never the protocol's default. The probe only binds; it sends nothing.
free_port() {
  python3 -c 'import random, socket, sys
kind = socket.SOCK_DGRAM if sys.argv[1] == "udp" else socket.SOCK_STREAM
while True:
    p, s = random.randrange(20000, 32000), socket.socket(socket.AF_INET, kind)
    try: s.bind(("0.0.0.0", p)); break
    except OSError: pass
    finally: s.close()
print(p)' "$1"
}

# wait_until SECONDS COMMAND...: 0 once the command succeeds, 1 on time-out.
wait_until() {
  _n=$(($1 * 10)); shift
  until "$@"; do
    [ "$_n" -gt 0 ] || return 1
    sleep 0.1; _n=$((_n - 1))
  done
}
has() { grep -qF -- "$2" "$1" 2>/dev/null; }
gone() { ! kill -0 "$1" 2>/dev/null; }

# expect_order FILE FIXED-STRING...: the strings occur on lines in this order.
expect_order() {
  _f=$1; _line=0; shift
  for _s in "$@"; do
    _next=$(grep -nF -- "$_s" "$_f" | cut -d: -f1 | awk -v after="$_line" '$1 > after { print; exit }')
    [ -n "$_next" ] || { cat "$_f" >&2; fail "not found after line $_line: $_s"; }
    _line=$_next
  done
}
