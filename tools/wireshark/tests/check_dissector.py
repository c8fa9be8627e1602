#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks what tshark, with the ohmara.lua plugin, decodes from a capture.

  check_dissector.py check --capture F --plugin P --expect E [--key K]
                     [--nonce-key HEX] [--udp-port N] [--digests WHICH]
      F decoded against the expectations file E (see tests/expected.txt):
      every message's class, action, shipment and TLVs in order. WHICH says
      which digests must verify: "ok" (all), "mismatch" (none), or "ok" with
      exceptions, e.g. "ok,5=mismatch" (0-based message indexes).

  check_dissector.py selftest --generator G --plugin P --expect E
      Writes captures with G (make_capture) and runs the checks above on
      them: the right key, a wrong one, the key in hex, no secret, an
      explicit nonce key, and one corrupted message.

Exits 77 (skipped) when tshark is missing, unless CI=true.
"""
import argparse
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

TSHARK_TIMEOUT_S = 60
UDP_PORT = 47017
SECRET = "s3cret-key"
# The nonces make_capture puts in the exchange.
SWITCH_NONCE, ENDPOINT_NONCE = 0x11223344, 0xA5A5F00F
SUMMARY = re.compile(r"^Ohmara (\S+) (\S+) (\S+), seq (\d+), digest (.+)$")


def parse_expectations(path):
    messages = []
    with open(path, encoding="utf-8") as f:
        for line in f:
            if not line.strip() or line.startswith("#"):
                continue
            if line.startswith("msg "):
                messages.append({"head": line.split()[1:4], "tlvs": []})
            else:
                messages[-1]["tlvs"].append(line.strip())
    return messages


def run_tshark(capture, plugin, key, nonce_key, udp_port):
    cmd = ["tshark", "-n", "-r", capture, "-X", "lua_script:" + plugin,
           "-o", "ohmara.udp_port:%d" % udp_port, "-o", "ohmara.key:" + key,
           "-o", "ohmara.nonce_key:" + nonce_key, "-T", "pdml"]
    out = subprocess.run(cmd, capture_output=True, text=True, timeout=TSHARK_TIMEOUT_S,
                         check=False)
    if out.returncode != 0:
        raise RuntimeError("tshark failed (%d): %s" % (out.returncode, out.stderr))
    lua_errors = [l for l in out.stderr.splitlines() if "Lua" in l or "lua" in l]
    if lua_errors:
        raise RuntimeError("plugin errors: " + "; ".join(lua_errors))
    return ET.fromstring(out.stdout)


def field(elem, name):
    for f in elem.iter("field"):
        if f.get("name") == name:
            return f
    return None


def decoded_messages(pdml):
    msgs = []
    for packet in pdml.iter("packet"):
        for proto in packet.iter("proto"):
            if proto.get("name") != "ohmara":
                continue
            m = SUMMARY.match(proto.get("showname", ""))
            if m is None:
                raise AssertionError("unexpected summary %r" % proto.get("showname"))
            tlvs = []
            for t in proto.findall("field"):
                if t.get("name") != "ohmara.tlv":
                    continue
                name = field(t, "ohmara.tlv.name").get("show")
                qual = int(field(t, "ohmara.tlv.qualifier").get("show"))
                value = field(t, "ohmara.tlv.value").get("show")
                tlvs.append("%s%s = %s" % (name, "[q%d]" % qual if qual else "", value))
            status = field(proto, "ohmara.digest.status").get("show")
            nonce_key = field(proto, "ohmara.digest.nonce_key")
            msgs.append({
                "head": list(m.group(1, 2, 3)), "digest": status, "summary_digest": m.group(5),
                "tlvs": tlvs,
                "experts": sum(1 for f in proto.iter("field")
                               if f.get("name") == "ohmara.digest.bad"),
                "nonce_key": nonce_key.get("show").replace(":", "") if nonce_key is not None else None,
            })
    return msgs


def expected_digests(which, count):
    parts = which.split(",")
    want = [parts[0]] * count
    for p in parts[1:]:
        i, v = p.split("=")
        want[int(i)] = v
    return want


def check(capture, plugin, expect, key="", nonce_key="", udp_port=UDP_PORT, digests="ok",
          values=True, derived_key=None):
    """Returns a list of failures (empty when all is as expected)."""
    want = parse_expectations(expect)
    got = decoded_messages(run_tshark(capture, plugin, key, nonce_key, udp_port))
    fails = []
    if len(got) != len(want):
        fails.append("%d messages decoded, %d expected" % (len(got), len(want)))
    digest_want = expected_digests(digests, len(want))
    for i, (g, w) in enumerate(zip(got, want)):
        where = "message %d (%s)" % (i, " ".join(w["head"]))
        if g["head"] != w["head"]:
            fails.append("%s: decoded as %s" % (where, " ".join(g["head"])))
        if values and g["tlvs"] != w["tlvs"]:
            fails.append("%s: TLVs\n    got  %s\n    want %s" % (where, g["tlvs"], w["tlvs"]))
        if g["digest"] != digest_want[i] or g["summary_digest"] != digest_want[i]:
            fails.append("%s: digest %s, expected %s" % (where, g["digest"], digest_want[i]))
        if g["experts"] != (1 if digest_want[i] == "mismatch" else 0):
            fails.append("%s: %d mismatch warnings" % (where, g["experts"]))
        if derived_key and g["nonce_key"] not in (None, derived_key):
            fails.append("%s: derived nonce key %s, expected %s" % (where, g["nonce_key"],
                                                                    derived_key))
    return fails


def nonce_key_of(secret, endpoint_id):
    """The per-connection key, computed here independently of the plugin."""
    seed = struct.pack(">I", SWITCH_NONCE ^ ENDPOINT_NONCE)
    data = (secret + b"\0" * 20)[:20] if secret else endpoint_id
    return hmac.new(seed, data, hashlib.sha1).hexdigest()


def selftest(args):
    with tempfile.TemporaryDirectory() as tmp:
        def capture(name, secret, corrupt=None):
            path = os.path.join(tmp, name)
            cmd = [args.generator, path, str(UDP_PORT), secret]
            if corrupt is not None:
                cmd.append(str(corrupt))
            subprocess.run(cmd, check=True, timeout=TSHARK_TIMEOUT_S)
            return path

        signed = capture("signed.pcapng", SECRET)
        derived = nonce_key_of(SECRET.encode(), None)
        runs = [
            ("right key", dict(capture=signed, key=SECRET, derived_key=derived)),
            ("key in hex", dict(capture=signed, key="hex:" + SECRET.encode().hex())),
            ("wrong key", dict(capture=signed, key="not-the-key", digests="mismatch")),
            ("nonce key given, secret wrong",
             dict(capture=signed, key="not-the-key", nonce_key=derived,
                  digests="ok,0=mismatch,1=mismatch,2=mismatch")),
            ("no secret", dict(capture=capture("unkeyed.pcapng", "-"), key="",
                               derived_key=nonce_key_of(
                                   b"", b"EP-0000000000000000000000000007A"))),
            ("one corrupted message", dict(capture=capture("corrupt.pcapng", SECRET, 5),
                                           key=SECRET, digests="ok,5=mismatch", values=False)),
        ]
        failed = 0
        for name, kw in runs:
            fails = check(plugin=args.plugin, expect=args.expect, **kw)
            print("%s: %s" % (name, "ok" if not fails else "FAILED"))
            for f in fails:
                print("  " + f)
            failed += bool(fails)
        print("%d passed, %d failed" % (len(runs) - failed, failed))
        return 1 if failed else 0


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("mode", choices=["check", "selftest"])
    ap.add_argument("--plugin", required=True)
    ap.add_argument("--expect", required=True)
    ap.add_argument("--generator")
    ap.add_argument("--capture")
    ap.add_argument("--key", default="")
    ap.add_argument("--nonce-key", default="")
    ap.add_argument("--udp-port", type=int, default=UDP_PORT)
    ap.add_argument("--digests", default="ok")
    args = ap.parse_args()
    if shutil.which("tshark") is None:
        if os.environ.get("CI") == "true":
            print("tshark not found (scripts/install-deps installs it)")
            return 1
        print("tshark not found: skipped")
        return 77
    if args.mode == "selftest":
        return selftest(args)
    fails = check(args.capture, args.plugin, args.expect, args.key, args.nonce_key,
                  args.udp_port, args.digests)
    for f in fails:
        print(f)
    return 1 if fails else 0


if __name__ == "__main__":
    sys.exit(main())
