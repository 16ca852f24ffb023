#!/usr/bin/env python3
"""Counts the instructions of the library's hot operations and compares them with committed figures.

Usage: op_counts_test.py PROGRAM COMPILER FIGURES [--update]

Counted by callgrind, over the library's own code only, so that the figures hang on the compiler and
on nothing else. A figure that is 3 % off either way fails: more is a loss, less is to be kept.
"""
import json
import os
import re
import subprocess
import sys
import tempfile

TOLERANCE = 0.03
LIBRARY = "/libkspool"

program, compiler, figures = sys.argv[1:4]
update = "--update" in sys.argv[4:]


def count(operation):
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out")
        subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=countedOperation", "--compress-strings=no",
             "--compress-pos=no", f"--callgrind-out-file={out}", program, operation],
            check=True, stderr=subprocess.DEVNULL)
        with open(out, encoding="utf-8") as file:
            return own_cost(file)


def own_cost(lines):
    """The sum of costs of lines in the library; what calls cost stands behind a `calls=` line."""
    total, ours, called = 0, False, False
    for line in lines:
        if line.startswith("ob="):
            ours = LIBRARY in line
        elif line.startswith("calls="):
            called = True
        elif re.match(r"\d", line):
            if ours and not called:
                total += int(line.split()[1])
            called = False
    return total


with open(figures, encoding="utf-8") as file:
    known = json.load(file)
expected = known.get(compiler)
operations = subprocess.run([program], capture_output=True, text=True, check=True).stdout.splitlines()
assert operations, "no operations"
counts = {operation: count(operation) for operation in operations}
if update:
    known[compiler] = counts
    with open(figures, "w", encoding="utf-8") as file:
        json.dump(known, file, indent=2)
        file.write("\n")
elif expected is None:
    print(f"no figures for {compiler}: " + json.dumps(counts))
    sys.exit(77)
else:
    off = [name for name in counts
           if abs(counts[name] / expected.get(name, 1) - 1) > TOLERANCE]
    for name, number in counts.items():
        print(f"{name:12} {number:>10} instructions, {expected.get(name)} committed"
              + (" OFF" if name in off else ""))
    assert not off and set(expected) == set(counts), off
