#!/usr/bin/env python3
"""Runs every translation unit of a compile_commands.json through the
compiler's front end only (-fsyntax-only), in parallel: the warnings the
front end gives (clang's thread-safety analysis among them) without
generating code or linking.

    scripts/syntax-check.py BUILD/compile_commands.json [JOBS]

Prints each unit's diagnostics and exits non-zero when one fails."""
import concurrent.futures
import json
import shlex
import subprocess
import sys


def front_end_only(command):
    args = shlex.split(command)
    out = []
    skip_next = False
    for arg in args:
        if skip_next:
            skip_next = False
        elif arg == "-o":
            skip_next = True
        elif arg != "-c":
            out.append(arg)
    return out + ["-fsyntax-only"]


def check(unit):
    done = subprocess.run(front_end_only(unit["command"]), cwd=unit["directory"],
                          capture_output=True, text=True)
    return done.returncode, done.stdout + done.stderr


def main():
    units = json.load(open(sys.argv[1]))
    jobs = int(sys.argv[2]) if len(sys.argv) > 2 else 2
    failed = 0
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for code, text in pool.map(check, units):
            if text.strip():
                print(text, end="")
            failed += code != 0
    print(f"syntax check: {len(units)} translation units, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
