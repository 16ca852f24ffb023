#!/usr/bin/env python3
"""Counts the instructions of the library's hot operations and compares them with committed figures.

Usage: op_counts_test.py PROGRAM COMPILER FIGURES [--update]

Counted by callgrind, over the library's own code only, so that the figures hang on the compiler and
on nothing else. A figure that is 3 % off either way fails: more is a loss, less is to be kept.
An operation through the C++ headers, "X (C++)", may take half a percent more than X of the same run. Both
are counted with the caller's side, where the code of the headers is, and have no committed figures.
"""
import json
import os
import re
import subprocess
import sys
import tempfile

TOLERANCE = 0.03
WRAPPED, MOST_WRAPPED = " (C++)", 1.005
LIBRARY = "/libkspool"

program, compiler, figures = sys.argv[1:4]
update = "--update" in sys.argv[4:]


def count(operation, whole=False):
    with tempfile.TemporaryDirectory() as folder:
        out = os.path.join(folder, "out")
        subprocess.run(
            ["valgrind", "--tool=callgrind", "--toggle-collect=countedOperation", "--compress-strings=no",
             "--compress-pos=no", f"--callgrind-out-file={out}", program, operation],
            check=True, stderr=subprocess.DEVNULL)
        with open(out, encoding="utf-8") as file:
            return own_cost(file, whole)


def own_cost(lines, whole):
    """The sum of costs of lines in the library, or in all; what calls cost stands behind a `calls=` line."""
    total, ours, called = 0, False, False
    for line in lines:
        if line.startswith("ob="):
            ours = LIBRARY in line
        elif line.startswith("calls="):
            called = True
        elif re.match(r"\d", line):
            if (ours or whole) and not called:
                total += int(line.split()[1])
            called = False
    return total


with open(figures, encoding="utf-8") as file:
    known = json.load(file)
expected = known.get(compiler)
operations = subprocess.run([program], capture_output=True, text=True, check=True).stdout.splitlines()
assert operations, "no operations"
pairs = {name + WRAPPED: name for name in operations if name + WRAPPED in operations}
assert pairs, "nothing through the C++ headers"
for wrapped, plain in pairs.items():
    ratio = count(wrapped, True) / count(plain, True)
    print(f"{wrapped}: {ratio:.4f} of the instructions of {plain}")
    assert ratio <= MOST_WRAPPED, wrapped
counts = {name: count(name) for name in operations if name not in {*pairs, *pairs.values()}}
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
