#!/usr/bin/env python3
"""Turns the benchmarks' JSON into documents. Usage: report.py cache|session FOLDER JSON...

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
    "kspool": "kspool, single calls",
    "batch": "kspool, batches of 1,000",
    "abseil": "abseil flat_hash_map",
    "prefetch": "the same, each key prefetched 16 ahead",
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

CARE = {  # work: title, peer
    "adler": ("Adler-32 of a block in a near cache, a byte", "zlib", "libdeflate"),
    "save": ("save, an entry, beside one write of as many bytes", "write"),
    "load": ("load, an entry, beside batched adds of the same keys", "add"),
    "limit": ("limit check that drops a tenth, with compaction, an entry, beside a copy of the pages",
              "memcpy"),
}

times = collections.defaultdict(list)
kind, folder, *names = sys.argv[1:]
for name in names:
    with open(name, encoding="utf-8") as file:
        report = json.load(file)
    for run in report["benchmarks"]:
        if run["run_type"] == "iteration":
            work, table, count = run["name"].split("/")[:3]
            times[work, table, int(count)].append(1e9 / run["items_per_second"])
median = {key: statistics.median(values) for key, values in times.items()}
counts = sorted({count for work, _, count in times if work in WORKS})


def write(name, lines):
    with open(os.path.join(folder, name), "w", encoding="utf-8") as file:
        file.write("\n".join(lines))


def machine():
    context = report["context"]
    return [
        "## The machine", "",
        f"A virtual machine with {context['num_cpus']} processors of {context['mhz_per_cpu']} MHz, which",
        "shares its caches and memory with others: trust ratios, not single figures.", "",
    ]


def cache_report():
    out = ["# The cache beside hash tables", ""]
    out += [
        "Made by `scripts/bench`: all tables in one run, their rounds mixed, on memory that was touched",
        "before. Nanoseconds an operation, median of the rounds; in brackets the ratio to",
        f"{NAMES[PEER]} (below 1 is faster). Keys are random 32-byte digests, looked up in another order",
        "than they were added in. The cache has pages of a 200th of its entries, in whole huge pages if as",
        "large, and `bits` as KSCacheBitsFor() tells.", "",
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
        out += ["", f"Fastest to slowest of the {rounds} rounds of single calls: {spread} ns.", ""]
    out += ["## What keeps a cache in order", "",
            "Nanoseconds for each entry (or byte); the ratio is kspool's time divided by the peer's.", "",
            "| work | entries | kspool | peer | ratio |", "|---|---:|---:|---:|---:|"]
    for work, (title, *peers) in CARE.items():
        for n in sorted({count for name, _, count in times if name == work}):
            for peer in peers:
                own, other = median[work, "kspool", n], median[work, peer, n]
                entries = f"{n:,}" if n > 1 else ""
                out.append(f"| {title} | {entries} | {own:.3g} | {peer} {other:.3g} | {own / other:.2f} |")
    out += [""]
    write("cache.md", out + machine())

    with open(os.path.join(folder, "cache.dat"), "w", encoding="utf-8") as file:
        file.write("entries " + " ".join(NAMES) + "\n")
        for work in WORKS:
            for n in counts:
                file.write(f"{n} " + " ".join(f"{median[work, t, n]:.1f}" for t in NAMES) + "\n")
            file.write("\n\n")


SESSION = {  # work: title, peer
    "http": ("requests over http", "libcurl"),
    "tls": ("requests over TLS with a client certificate", "libcurl"),
    "find": ("lines of a 100 MB answer, whole query", "libcurl"),
    "lines": ("lines of a 100 MB answer, cursor alone", "memchr"),
}


def session_report():
    out = [
        "# Sessions beside bare libcurl", "",
        "Made by `scripts/bench session`: each pair in one run, its rounds mixed. How many were done in a",
        "second, median of the rounds; in brackets the slowest and the fastest round. A ratio above 1 is",
        "faster than the peer.", "",
        "Requests go to the development server in the same process, one connection a round. The libcurl",
        "loop sends the same bytes with the same options and collects the answer; the session gives each",
        "request an id, checks the answer and converts it. A query's answer comes from a server that only",
        "sends it, on a connection of its own; its cursor is compared with a loop that finds each line's",
        "end by memchr and overwrites it.", "",
        "| | kspool | peer | ratio |", "|---|---:|---:|---:|",
    ]
    for work, (title, peer) in SESSION.items():
        (n,) = {count for name, _, count in times if name == work}
        rates = {t: [1e9 / ns for ns in times[work, t, n]] for t in ("kspool", peer)}
        cells = [
            f"{statistics.median(r):,.0f} ({min(r):,.0f} to {max(r):,.0f})" for r in rates.values()
        ]
        ratio = statistics.median(rates["kspool"]) / statistics.median(rates[peer])
        out.append(f"| {title} | {cells[0]} | {peer} {cells[1]} | {ratio:.2f} |")
    write("session.md", out + [""] + machine())


{"cache": cache_report, "session": session_report}[kind]()
