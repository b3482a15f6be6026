"""The other side of the property-list interoperability test, on Python's plistlib.

  plistlib_interop.py write DIR   writes py.xml, py.bin (every edge value), py-nul.bin (a string
                                  with NUL characters, which XML cannot hold) and py-big.xml,
                                  py-big.bin (an unsigned 64-bit integer above the signed range)
  plistlib_interop.py check DIR   reads ours.xml, ours.bin and ours-nul.bin, written by the
                                  library from what it read, and compares them with the originals

Exits 0 when everything matches; otherwise prints every difference and exits 1.
"""
import datetime
import math
import os
import plistlib
import sys


def originals():
    deep = "bottom"
    for level in range(200):
        deep = [deep] if level % 2 == 0 else {"level": deep}
    return {
        "unicode": ["", "h\u00e9llo", "\u2713 check", "\U0001d11e clef", "\u65e5\u672c\u8a9e",
                    "a<b>&c", "tab\tline\nfeed", "]]>"],
        "integers": [0, 1, -1, 255, 256, 65535, 65536, 2**31, -2**31, 2**32, 2**63 - 1, -2**63],
        # No 0.0 beside -0.0: plistlib's binary writer shares equal numbers as one object.
        "reals": [-0.0, 1.5, -2.25, 1e308, -1e308, 5e-324, 2.2250738585072014e-308, 0.1,
                  float("inf"), float("-inf")],
        "dates": [datetime.datetime(1, 1, 1), datetime.datetime(1970, 1, 1),
                  datetime.datetime(2001, 1, 1), datetime.datetime(2038, 1, 19, 3, 14, 8),
                  datetime.datetime(9999, 12, 31, 23, 59, 59),
                  datetime.datetime(1600, 2, 29, 12, 30, 45)],
        "data": [b"", bytes(range(256)), b"\0" * 1000],
        "bools": [True, False],
        "deep": deep,
        "wide": {"key%04d" % i: i for i in range(2000)},
    }


def nul_originals():
    return {"nul": "a\0b", "only": "\0", "cr": "x\ry"}


def differences(a, b, path="top"):
    if type(a) is not type(b):
        return ["%s: %r (%s) != %r (%s)" % (path, a, type(a).__name__, b, type(b).__name__)]
    if isinstance(a, float):
        same = (math.isnan(a) and math.isnan(b)) or (
            a == b and math.copysign(1, a) == math.copysign(1, b))
        return [] if same else ["%s: %r != %r" % (path, a, b)]
    if isinstance(a, dict):
        if sorted(a) != sorted(b):
            return ["%s: keys differ" % path]
        return [d for k in a for d in differences(a[k], b[k], path + "." + k)]
    if isinstance(a, list):
        if len(a) != len(b):
            return ["%s: %d != %d elements" % (path, len(a), len(b))]
        return [d for i, (x, y) in enumerate(zip(a, b)) for d in differences(x, y, "%s[%d]" % (path, i))]
    return [] if a == b else ["%s: %r != %r" % (path, a, b)]


def main():
    command, folder = sys.argv[1], sys.argv[2]
    path = lambda name: os.path.join(folder, name)
    if command == "write":
        for name, fmt in (("py.xml", plistlib.FMT_XML), ("py.bin", plistlib.FMT_BINARY)):
            with open(path(name), "wb") as f:
                plistlib.dump(originals(), f, fmt=fmt)
            with open(path(name.replace("py", "py-big")), "wb") as f:
                plistlib.dump({"big": 2**64 - 1}, f, fmt=fmt)
        with open(path("py-nul.bin"), "wb") as f:
            plistlib.dump(nul_originals(), f, fmt=plistlib.FMT_BINARY)
        return 0
    problems = []
    for name, expected in (("ours.xml", originals()), ("ours.bin", originals()),
                           ("ours-nul.bin", nul_originals())):
        with open(path(name), "rb") as f:
            problems += [name + ": " + d for d in differences(expected, plistlib.load(f))]
    print("\n".join(problems) if problems else "ok")
    return 1 if problems else 0


sys.exit(main())
