#!/usr/bin/env python3
"""Fails on an include that runs up the layer stack (ARCHITECTURE.md, "Layers").

Each folder of include/mirels/ and src/ has a rank; a file may include headers of its own rank
or below. Folders of one rank may include each other (plist and errors are defined in terms of
each other: errors are stored as property lists, and property lists report failures as errors).
"""
import os
import re
import sys

RANKS = {
    "core": 0,
    "execution": 1, "collections": 1, "geometry": 1,
    "platform": 2,
    "plist": 3, "errors": 3,
    "futures": 4, "text": 4,
    "events": 5,
    "analytics": 6, "version": 6,
    "crash": 7, "cli": 7, "queries": 7,
}
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]mirels/([A-Za-z_]+)/')


def main() -> int:
    root = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..")
    failures = []
    for base in ("include/mirels", "src"):
        top = os.path.join(root, base)
        for folder in sorted(os.listdir(top)):
            path = os.path.join(top, folder)
            if not os.path.isdir(path):
                continue
            if folder not in RANKS:
                failures.append(f"{base}/{folder}/: folder has no rank in scripts/check-layers.py")
                continue
            for directory, _, files in os.walk(path):
                for name in sorted(files):
                    if not name.endswith((".h", ".cpp")):
                        continue
                    file = os.path.join(directory, name)
                    with open(file, encoding="utf-8") as text:
                        for number, line in enumerate(text, 1):
                            match = INCLUDE.match(line)
                            if not match:
                                continue
                            target = match.group(1)
                            if target not in RANKS:
                                failures.append(f"{os.path.relpath(file, root)}:{number}: "
                                                f"includes unknown folder {target}/")
                            elif RANKS[target] > RANKS[folder]:
                                failures.append(
                                    f"{os.path.relpath(file, root)}:{number}: {folder}/ "
                                    f"(rank {RANKS[folder]}) includes {target}/ "
                                    f"(rank {RANKS[target]}), which is above it")
    for failure in failures:
        print(failure)
    if failures:
        print(f"check-layers: {len(failures)} include(s) run up the stack")
        return 1
    print("check-layers: every include runs down the stack")
    return 0


if __name__ == "__main__":
    sys.exit(main())
