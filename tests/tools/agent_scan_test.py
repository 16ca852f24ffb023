#!/usr/bin/env python3
"""kspool-agent scan on a tree whose contents are known. Usage: agent_scan_test.py AGENT"""
import json
import os
import random
import sys
import tempfile

from programs import check_full_disk, check_usage, run

AGENT = sys.argv[1]
K = 1024


def scan(*arguments):
    return json.loads(run(AGENT, "scan", "--json", *arguments).stdout)


def build(top):
    blocks = [random.Random(i).randbytes(4 * K) for i in range(6)]
    files = {
        "a": blocks[0] + blocks[1] + blocks[0],  # repeats itself once
        "sub/b": blocks[1] + blocks[2][:100],    # one block of a, and a short last segment
        "sub/c": b"",
        "sub/d": blocks[2][:100],                # the same short segment
        "odd\nname": blocks[3],
    }
    os.mkdir(top + "/sub")
    for name, data in files.items():
        with open(f"{top}/{name}", "wb") as file:
            file.write(data)
    os.symlink("a", top + "/link")
    os.mkfifo(top + "/pipe")
    return sum(len(data) for data in files.values())


with tempfile.TemporaryDirectory() as top:
    os.chmod(top, 0o755)
    size = build(top)
    for digest, area in (("sha256", "1"), ("md5", "5000")):
        found = scan("--segment", "4KiB", "--digest", digest, "--area", area, "--bits", "3", top)
        assert (found["files"], found["skipped"], found["all"]["bytes"]) == (5, 0, size), found
        assert found["unique"] == {"segments": 4, "bytes": 12 * K + 100}, found
        assert found["repeatedSameFile"] == {"segments": 1, "bytes": 4 * K}, found
        assert found["repeatedOtherFile"] == {"segments": 2, "bytes": 4 * K + 100}, found
        cache = found["cache"]
        assert (cache["entries"], cache["hits"], cache["misses"], cache["bits"]) == (4, 3, 4, 3)

    assert scan(top + "/sub/c")["dedupRatio"] == 0  # nothing of nothing

    people = run(AGENT, "scan", "--trace", "--lock", top)
    assert "Dedup ratio" in people.stdout and "KSCacheInit: bits = 3" in people.stderr

    check_usage(AGENT, *(("scan", *bad) for bad in (
        (top + "/none",), (top + "/link",), (top + "/pipe",), ("--bits", "30", top), ("--segment", "1", top),
        ("--digest", "crc32", top), ("--nonsense", top), ())))

    # An unreadable file, as somebody whom permissions bind.
    os.chmod(top + "/odd\nname", 0)
    powerless = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []
    partial = run(*powerless, AGENT, "scan", "--json", top, code=3)
    assert json.loads(partial.stdout)["skipped"] == 1, partial.stdout
    assert "odd\\x0aname: Permission denied" in partial.stderr, partial.stderr

    kernel = run(AGENT, "scan", "/proc/sys/kernel", top + "/a", code=3)
    assert kernel.stderr == "kspool-agent: /proc/sys/kernel: is the kernel's, not scanned\n", kernel.stderr

check_full_disk(1, AGENT, "scan", __file__)
print("kspool-agent scan: as expected")
