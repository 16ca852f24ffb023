#!/usr/bin/env python3
"""Measures kspool-agent on a tree of small files, beside other programs that read such trees.
Usage: agent.py AGENT SANDBOX DOCUMENT [FILES]

The tree is made below $TMPDIR and read once before anything is timed. The commands of a round take turns, and
each figure is the median of the rounds. Other backup programs take part when they are installed.
"""
import json
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../tests/tools"))
from pool_server import PoolServer  # pylint: disable=wrong-import-position

AGENT, SANDBOX, DOCUMENT = map(os.path.abspath, sys.argv[1:4])
FILES = int(sys.argv[4]) if len(sys.argv) > 4 else 80_000
AVERAGE = 12_500
CORES = len(os.sched_getaffinity(0))
SCAN_ROUNDS, BACKUP_ROUNDS = 9, 5
SCAN, SERIAL, SUMS = "`kspool-agent scan`", "`kspool-agent scan --jobs 1`", f"`find` and `xargs -P{CORES} sha256sum`"


def make_tree(top):
    """Sizes are distributed exponentially; three files of ten begin like others."""
    chance = random.Random(1)
    common = chance.randbytes(1 << 20)
    for i in range(FILES):
        folder = f"{top}/project-{i // 4000:02d}/part-{i // 100 % 40:02d}"
        os.makedirs(folder, exist_ok=True)
        size = min(int(chance.expovariate(1 / AVERAGE)), len(common))
        with open(f"{folder}/file-{i:06d}.dat", "wb") as file:
            file.write(common[:size] if chance.random() < 0.3 else chance.randbytes(size))


def timed(*command, **options):
    """Seconds and output."""
    begin = time.monotonic()
    done = subprocess.run(command, check=True, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, **options)
    return time.monotonic() - begin, done.stdout


def scan_rounds(tree):
    found = {SCAN: [], SERIAL: [], SUMS: []}
    sums = f"find '{tree}' -type f -print0 | xargs -0 -P{CORES} sha256sum"
    for _ in range(SCAN_ROUNDS):
        found[SCAN].append(timed(AGENT, "scan", "--json", tree)[0])
        found[SERIAL].append(timed(AGENT, "scan", "--json", "--jobs", "1", tree)[0])
        found[SUMS].append(timed("sh", "-c", sums)[0])
    return found


class Record:
    name = "`kspool-agent record`"

    def __init__(self, home):
        self.cache = home + "/cache"
        self.server = PoolServer(SANDBOX, home + "/pool")
        self.server.start()

    def run(self, tree):
        seconds, output = timed(AGENT, "record", tree, "--image", "bench", "--cache", self.cache, "--json")
        report = json.loads(output)
        return seconds, report["serverSeconds"]

    def end(self):
        self.server.stop()


class Peer:
    """A backup program, which also stores the data."""

    def __init__(self, home, name, init, backup):
        self.name = name
        self.backup = backup
        self.environment = dict(os.environ, RESTIC_PASSWORD="bench", RESTIC_REPOSITORY=home + "/store",
                                BORG_REPO=home + "/store", BORG_BASE_DIR=home, XDG_CACHE_HOME=home)
        timed(*init, env=self.environment)

    def run(self, tree):
        number = str(time.monotonic_ns())
        command = [part.format(tree=tree, number=number) for part in self.backup]
        return timed(*command, env=self.environment)[0], 0.0

    def end(self):
        pass


PEERS = {
    "restic": ("`restic backup`", ["restic", "init"], ["restic", "backup", "{tree}"]),
    "borg": ("`borg create`", ["borg", "init", "--encryption=none"], ["borg", "create", "::{number}", "{tree}"]),
}


def backup_rounds(tree):
    """For each program the rounds, each with the seconds of two runs and of its server in them."""
    found = {}
    makers = [Record] + [lambda home, peer=peer: Peer(home, *peer)
                         for program, peer in PEERS.items() if shutil.which(program)]
    for _ in range(BACKUP_ROUNDS):
        for make in makers:
            with tempfile.TemporaryDirectory() as home:
                program = make(home)
                found.setdefault(program.name, []).append((program.run(tree), program.run(tree)))
                program.end()
    return found


def median(values):
    return statistics.median(values)


def scan_table(found):
    ratios = {name: median(own / peer for own, peer in zip(found[name], found[SUMS])) for name in found}
    lines = ["| command | seconds | fastest and slowest | of `sha256sum` |", "|---|---:|---:|---:|"]
    for name, seconds in found.items():
        lines.append(f"| {name} | {median(seconds):.2f} | {min(seconds):.2f} and {max(seconds):.2f} | {ratios[name]:.2f} |")
    return lines, ratios[SCAN]


def backup_table(found):
    lines = ["| program | first run | second run | second of first |", "|---|---:|---:|---:|"]
    rows = {name: [(first[0], second[0]) for first, second in rounds] for name, rounds in found.items()}
    rows[Record.name + ", without the server"] = [
        tuple(seconds - server for seconds, server in runs) for runs in found[Record.name]]
    for name in sorted(rows):
        first, second = (median(run[i] for run in rows[name]) for i in (0, 1))
        lines.append(f"| {name} | {first:.2f} | {second:.2f} | {second / first:.3f} |")
    return lines


def document(tree_bytes, scans, backups):
    table, ratio = scan_table(scans)
    rate = tree_bytes / median(scans[SCAN]) / 1e6
    return [
        "# The agent on a tree of small files", "",
        f"Written by `scripts/bench agent`. The tree has {FILES:,} files of {tree_bytes / 1e9:.2f} GB, which are in the page",
        f"cache. {CORES} cores may be used. The commands of a round take turns.", "",
        "## Scan", "", f"Medians of {SCAN_ROUNDS} rounds. The scan walks the tree, reads and hashes, and asks and feeds its cache.",
        "", *table, "", f"A scan takes {ratio:.2f} of the time of `sha256sum`, in the median of the rounds, and handles {rate:,.0f} MB a",
        "second.", "",
        "## Record", "", f"Seconds, medians of {BACKUP_ROUNDS} rounds. Each round begins with an empty pool; nothing changes between its two",
        "runs. `record` sends what is recorded of the files to a server on the same machine, and stores no data.",
        "The other programs, if any, store the data as well, compressed, so that their first runs do more.", "",
        *backup_table(backups), ""]


def main():
    with tempfile.TemporaryDirectory() as home:
        tree = home + "/tree"
        make_tree(tree)
        tree_bytes = json.loads(timed(AGENT, "scan", "--json", tree)[1])["all"]["bytes"]
        lines = document(tree_bytes, scan_rounds(tree), backup_rounds(tree))
    with open(DOCUMENT, "w", encoding="utf-8") as file:
        file.write("\n".join(lines))


main()
