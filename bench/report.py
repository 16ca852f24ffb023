#!/usr/bin/env python3
"""Turns the benchmark's JSON into docs/bench/cache.md and cache.dat. Usage: report.py JSON FOLDER

Each figure is the median over the repetitions, in nanoseconds an operation; a ratio is a table's
median divided by abseil's in the same run. The spread is that of the cache's own repetitions.
"""
import collections
import json
import os
import statistics
import sys

PEER = "abseil"
NAMES = {
    "kspool": "kspool",
    "abseil": "abseil flat_hash_map",
    "std": "std::unordered_map",
    "boost": "boost::unordered_map",
    "dense": "sparsehash dense_hash_map",
    "sparse": "sparsehash sparse_hash_map",
}
WORKS = {
    "add": "add of new entries, nothing reserved",
    "hit": "presence test, hits (the cache counts them)",
    "fetch": "fetch, hits (nothing is counted)",
    "miss": "presence test, misses",
}

with open(sys.argv[1], encoding="utf-8") as file:
    report = json.load(file)
times = collections.defaultdict(list)
for run in report["benchmarks"]:
    if run["run_type"] == "iteration":
        work, table, count = run["name"].split("/")[:3]
        times[work, table, int(count)].append(1e9 / run["items_per_second"])
median = {key: statistics.median(values) for key, values in times.items()}
counts = sorted({count for _, _, count in times})

out = ["# The cache beside hash tables", ""]
out += [
    "Made by `scripts/bench`: all tables in one run, their rounds mixed, on memory that was touched",
    "before. Nanoseconds an operation, median of the rounds; in brackets the ratio to",
    f"{NAMES[PEER]} (below 1 is faster). Keys are random 32-byte digests, looked up in another order",
    "than they were added in. The cache has pages of a 200th of its entries and `bits` as advised in",
    "the README.", "",
    "![Nanoseconds an operation by number of entries](cache.svg)", "",
]
for work, title in WORKS.items():
    out += [f"## {title[0].upper()}{title[1:]}", ""]
    out += ["| table | " + " | ".join(f"{count:,}" for count in counts) + " |"]
    out += ["|---|" + "---:|" * len(counts)]
    for table, name in NAMES.items():
        cells = [
            f"{median[work, table, n]:.1f} ({median[work, table, n] / median[work, PEER, n]:.2f})"
            for n in counts
        ]
        out.append(f"| {name} | " + " | ".join(cells) + " |")
    spread = ", ".join(
        f"{min(times[work, 'kspool', n]):.0f} to {max(times[work, 'kspool', n]):.0f}" for n in counts
    )
    rounds = len(times[work, "kspool", counts[0]])
    out += ["", f"Fastest to slowest of the cache's {rounds} rounds: {spread} ns.", ""]
context = report["context"]
out += ["## The machine", "",
        f"A virtual machine with {context['num_cpus']} processors of {context['mhz_per_cpu']} MHz, which",
        "shares its caches and memory with others: trust ratios, not single figures.", ""]
with open(os.path.join(sys.argv[2], "cache.md"), "w", encoding="utf-8") as file:
    file.write("\n".join(out))

with open(os.path.join(sys.argv[2], "cache.dat"), "w", encoding="utf-8") as file:
    file.write("entries " + " ".join(NAMES) + "\n")
    for work in WORKS:
        for n in counts:
            file.write(f"{n} " + " ".join(f"{median[work, t, n]:.1f}" for t in NAMES) + "\n")
        file.write("\n\n")
