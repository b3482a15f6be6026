#!/usr/bin/env python3
"""Runs one example program and checks what it prints.

Every non-empty line of the expectation file that does not start with '#' is a regular
expression that must match (re.search) a line of the program's standard output, in the file's
order; other output may come between. The program must also exit with status 0 within 60 s.

Usage: check_output.py PROGRAM EXPECTATION_FILE
"""
import re
import subprocess
import sys


def main() -> int:
    program, expectation_file = sys.argv[1], sys.argv[2]
    try:
        run = subprocess.run([program], capture_output=True, text=True, timeout=60, check=False)
    except subprocess.TimeoutExpired:
        print(f"{program}: still running after 60 s", file=sys.stderr)
        return 1
    lines = run.stdout.splitlines()

    def dump() -> None:
        print(f"--- stdout\n{run.stdout}--- stderr\n{run.stderr}", file=sys.stderr)

    if run.returncode != 0:
        print(f"{program}: exited with status {run.returncode}", file=sys.stderr)
        dump()
        return 1
    with open(expectation_file, encoding="utf-8") as f:
        patterns = [p.rstrip("\n") for p in f if p.strip() and not p.startswith("#")]
    position = 0
    for pattern in patterns:
        expression = re.compile(pattern)
        while position < len(lines) and not expression.search(lines[position]):
            position += 1
        if position == len(lines):
            print(f"{program}: no output line (after the previous match) matches {pattern!r}",
                  file=sys.stderr)
            dump()
            return 1
        position += 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
