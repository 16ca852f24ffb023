#!/usr/bin/env python3
"""Batches of the Python package beside those of C, on the same cache and keys, and beside a dict.
Usage: python.py PEER DOCUMENT [ENTRIES...]    PEER: the library of python_peer.c
"""
import ctypes
import os
import statistics
import sys
import time

import kspool
import numpy
from kspool._kspool import ffi

PEER, DOCUMENT = ctypes.CDLL(os.path.abspath(sys.argv[1])), sys.argv[2]
PEER.peerSeconds.restype = ctypes.c_double
SIZES = [int(size) for size in sys.argv[3:]] or [1_000_000, 5_000_000]
ROUNDS, LOOKUPS, BATCH, BAR = 5, 3, 1000, 0.8
PYTHON, BATCHES, C, DICT = "Python, one call", f"Python, {BATCH:,} a call", f"C, {BATCH:,} a call", "dict"
WORKS = {"add": "add of new keys", "exists": "presence test, hits", "fetch": "fetch, hits", "miss": "fetch, misses"}


def warm(count):
    """Touches as much memory as a round takes, so that nobody pays for the first mapping of it."""
    numpy.ones(max(count * 400, 2 << 30), dtype=numpy.uint8)


def timed(call):
    begin = time.thread_time()
    call()
    return time.thread_time() - begin


def in_batches(function, keys, values):
    for at in range(0, len(keys), BATCH):
        function(keys[at:at + BATCH], values[at:at + BATCH])


def in_c(cache, work, keys, values):
    seconds = PEER.peerSeconds(ctypes.c_void_p(int(ffi.cast("uintptr_t", cache._open()))), work,
                               ctypes.c_void_p(keys.ctypes.data), ctypes.c_size_t(len(keys)),
                               ctypes.c_void_p(values.ctypes.data))
    assert seconds >= 0
    return seconds


def add_to(table, keys):
    for number, key in enumerate(keys):
        table[key] = number


def ways_of(work, cache, keys, values, table, names):
    """What is timed: each way does one work over all keys."""
    function = {"add": cache.add_batch, "exists": cache.exists_batch}.get(work, cache.fetch_batch)
    number = {"add": 0, "exists": 1}.get(work, 2)
    return {
        PYTHON: lambda: timed(lambda: function(keys, values)),
        BATCHES: lambda: timed(lambda: in_batches(function, keys, values)),
        C: lambda: in_c(cache, number, keys, values),
        DICT: lambda: timed(lambda: add_to(table, names) if work == "add" else [table.get(name) for name in names]),
    }


def measure(count):
    """The seconds of all rounds, by work and way. Within a round the ways take turns; each add has a new cache."""
    random = numpy.random.default_rng(1)
    keys, others = (random.integers(0, 256, (count, 32), dtype=numpy.uint8) for _ in range(2))
    asked, values = keys[random.permutation(count)], numpy.arange(count, dtype=numpy.uint64)
    names = {"add": list(map(bytes, keys)), "miss": list(map(bytes, others))}
    names["exists"] = names["fetch"] = list(map(bytes, asked))
    seconds = {(work, way): [] for work in WORKS for way in (PYTHON, BATCHES, C, DICT)}
    for turn in range(ROUNDS):
        for place in range(4):
            warm(count)
            cache, table = kspool.Cache(count), {}
            way = (PYTHON, BATCHES, C, DICT)[(turn + place) % 4]
            seconds["add", way].append(ways_of("add", cache, keys, values, table, names["add"])[way]())
        cache, table = kspool.Cache(count), {}
        assert cache.add_batch(keys, values) == count
        add_to(table, names["add"])
        for work in ("exists", "fetch", "miss"):
            found = numpy.zeros(count, dtype=numpy.uint64)
            ways = ways_of(work, cache, others if work == "miss" else asked, found, table, names[work])
            for place in range(4 * LOOKUPS):
                way = list(ways)[(turn + place) % 4]
                if way != DICT or place < 4 and work != "exists":  # which a dict does not tell from a fetch
                    seconds[work, way].append(ways[way]())
    return seconds


def rows(count, seconds):
    for work, title in WORKS.items():
        best = {way: statistics.median(seconds[work, way] or seconds["fetch", way])
                for way in (PYTHON, BATCHES, C, DICT)}
        ratios = [statistics.median(c / own for c, own in zip(seconds[work, C], seconds[work, way]))
                  for way in (PYTHON, BATCHES)]
        times = " | ".join(f"{best[way] / count * 1e9:.1f}" for way in best)
        cells = " | ".join(f"{ratio:.2f}" if ratio >= BAR else f"**{ratio:.2f}**" for ratio in ratios)
        yield f"| {title} | {times} | {cells} | {best[DICT] / best[PYTHON]:.1f} |"


def document(measured):
    lines = ["# The Python package", "",
             "Written by `scripts/bench python`. Nanoseconds of the processor for each key, medians of",
             f"{ROUNDS} rounds on warmed-up memory, each with {LOOKUPS} turns of batched lookups. Keys are random",
             "32-byte digests in a NumPy array, looked up in another order than they were added in. The ways",
             "take turns, on the same cache. The loop in C gets its keys ready made; the dict gets its keys as",
             "bytes objects, made before, and returns a list. A rate is that of Python divided by that of C,",
             f"the median over the turns; the bar is {BAR}, and what misses it is bold.", ""]
    for count, seconds in measured.items():
        lines += [f"## {count:,} entries", "",
                  f"| | {PYTHON} | {BATCHES} | {C} | {DICT} | rate of one call | rate of {BATCH:,} a call |"
                  " one call, times as fast as a dict |",
                  "|---|---:|---:|---:|---:|---:|---:|---:|", *rows(count, seconds), ""]
    return lines


with open(DOCUMENT, "w", encoding="utf-8") as file:
    file.write("\n".join(document({count: measure(count) for count in SIZES})))
