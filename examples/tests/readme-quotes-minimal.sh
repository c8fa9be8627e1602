#!/bin/sh
# SPDX-License-Identifier: Apache-2.0
# The README quotes examples/minimal.c in full: the two must not drift apart.
# Usage: readme-quotes-minimal.sh README.md examples/minimal.c
set -u
python3 - "$1" "$2" <<'PY'
import sys
readme = open(sys.argv[1]).read()
source = open(sys.argv[2]).read()
if "```c\n" + source + "```\n" not in readme:
    sys.exit("FAIL: %s does not quote %s verbatim in a ```c block" % (sys.argv[1], sys.argv[2]))
print("README quotes minimal.c: ok")
PY
