#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks what tshark, with the ohmara.lua plugin, decodes from captures
written by make_capture, against the expectations file (tests/expected.txt):
every message's class, action, shipment and TLVs in order, and its digest
verdict with the right key, the key in hex, a wrong key, and one corrupted
message.

  check_dissector.py GENERATOR PLUGIN EXPECT

Exits 77 (skipped) when tshark is missing, unless CI=true.
"""
import hashlib
import hmac
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

UDP_PORT = 47017
SECRET = "s3cret-key"
SWITCH_NONCE, ENDPOINT_NONCE = 0x11223344, 0xA5A5F00F  # as make_capture writes them
SUMMARY = re.compile(r"^Ohmara (\S+) (\S+) (\S+), seq (\d+), digest (.+)$")


def expectations(path):
    messages = []
    for line in open(path, encoding="utf-8"):
        if line.startswith("msg "):
            messages.append((line.split()[1:4], []))
        elif line.strip() and not line.startswith("#"):
            messages[-1][1].append(line.strip())
    return messages


def show(elem, name):
    f = next((f for f in elem.iter("field") if f.get("name") == name), None)
    return None if f is None else f.get("show")


def decoded(capture, plugin, key):
    out = subprocess.run(["tshark", "-n", "-r", capture, "-X", "lua_script:" + plugin,
                          "-o", "ohmara.udp_port:%d" % UDP_PORT, "-o", "ohmara.key:" + key,
                          "-T", "pdml"], capture_output=True, text=True, timeout=60, check=False)
    lua = [l for l in out.stderr.splitlines() if "lua" in l.lower()]
    if out.returncode != 0 or lua:
        raise RuntimeError("tshark (%d): %s" % (out.returncode, out.stderr))
    for proto in ET.fromstring(out.stdout).iter("proto"):
        if proto.get("name") != "ohmara":
            continue
        m = SUMMARY.match(proto.get("showname", ""))
        assert m, "unexpected summary %r" % proto.get("showname")
        tlvs = []
        for t in proto.findall("field"):
            if t.get("name") == "ohmara.tlv":
                q = int(show(t, "ohmara.tlv.qualifier"))
                tlvs.append("%s%s = %s" % (show(t, "ohmara.tlv.name"), "[q%d]" % q if q else "",
                                           show(t, "ohmara.tlv.value")))
        bad = sum(1 for f in proto.iter("field") if f.get("name") == "ohmara.digest.bad")
        yield (list(m.group(1, 2, 3)), tlvs, show(proto, "ohmara.digest.status"), m.group(5),
               bad, (show(proto, "ohmara.digest.nonce_key") or "").replace(":", ""))


def check(capture, plugin, want, key, verdicts, values=True):
    # The per-connection key, computed here independently of the plugin.
    seed = struct.pack(">I", SWITCH_NONCE ^ ENDPOINT_NONCE)
    nonce_key = hmac.new(seed, (SECRET.encode() + b"\0" * 20)[:20], hashlib.sha1).hexdigest()
    got = list(decoded(capture, plugin, key))
    fails = [] if len(got) == len(want) else ["%d messages, %d expected" % (len(got), len(want))]
    for i, ((head, tlvs, status, summary, bad, nk), (whead, wtlvs)) in enumerate(zip(got, want)):
        where = "message %d (%s)" % (i, " ".join(whead))
        v = verdicts.get(i, verdicts["all"])
        if head != whead or (values and tlvs != wtlvs):
            fails.append("%s: %s %s\n    want %s" % (where, head, tlvs, wtlvs))
        if (status, summary, bad) != (v, v, int(v == "mismatch")):
            fails.append("%s: digest %s/%s, %d warnings, expected %s" % (where, status, summary,
                                                                       bad, v))
        if v == "ok" and nk not in ("", nonce_key):
            fails.append("%s: nonce key %s, expected %s" % (where, nk, nonce_key))
    return fails


def main():
    generator, plugin, expect = sys.argv[1:4]
    if shutil.which("tshark") is None:
        print("tshark not found" + ("" if os.environ.get("CI") == "true" else ": skipped"))
        return 1 if os.environ.get("CI") == "true" else 77
    want = expectations(expect)
    failed = 0
    with tempfile.TemporaryDirectory() as tmp:
        signed, corrupt = os.path.join(tmp, "signed.pcapng"), os.path.join(tmp, "corrupt.pcapng")
        subprocess.run([generator, signed, str(UDP_PORT), SECRET], check=True, timeout=60)
        subprocess.run([generator, corrupt, str(UDP_PORT), SECRET, "5"], check=True, timeout=60)
        runs = [("right key", signed, SECRET, {"all": "ok"}, True),
                ("key in hex", signed, "hex:" + SECRET.encode().hex(), {"all": "ok"}, True),
                ("wrong key", signed, "not-the-key", {"all": "mismatch"}, True),
                ("one corrupted message", corrupt, SECRET, {"all": "ok", 5: "mismatch"}, False)]
        for name, capture, key, verdicts, values in runs:
            fails = check(capture, plugin, want, key, verdicts, values)
            print("%s: %s" % (name, "FAILED" if fails else "ok"))
            for f in fails:
                print("  " + f)
            failed += bool(fails)
    print("%d passed, %d failed" % (len(runs) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
