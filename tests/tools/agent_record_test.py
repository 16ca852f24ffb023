#!/usr/bin/env python3
"""kspool-agent record, find and expire against a pool server. Usage: agent_backup_test.py AGENT SANDBOX"""
import atexit
import json
import os
import random
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time

import programs
from pool_server import PoolServer

AGENT, SANDBOX = sys.argv[1:]
K = 1024


def run(*arguments, code=0, **variables):
    return programs.run(AGENT, *arguments, code=code, env={**os.environ, **variables})


def record(image, *options, code=0, segment="4KiB", kept=None):
    return json.loads(run("record", tree, "--client", "me", "--image", image, "--cache", kept or cache,
                          "--segment", segment, "--json", *options, code=code).stdout)


def found(image):
    return programs.found(AGENT, image)


with tempfile.TemporaryDirectory() as top:
    pool, tree, cache = top + "/pool", top + "/tree", top + "/blocks.cache"
    server = PoolServer(SANDBOX, pool)
    blocks = [random.Random(i).randbytes(4 * K) for i in range(8)]
    for i, name in enumerate(["a|b%", "sub/c", "sub/d", "e*", "f", "g"]):
        os.makedirs(os.path.dirname(f"{tree}/{name}"), exist_ok=True)
        with open(f"{tree}/{name}", "wb") as file:
            file.write(blocks[i] + blocks[7])
    server.start()

    # All is new, then all is known; a changed file is new again.
    first = record("one", "--list", "4")
    assert (first["files"], first["recorded"], first["found"]) == (6, 6, 6), first
    assert (first["segments"], first["newSegments"], first["cached"]) == (12, 7, 7), first
    again = record("two")
    assert (again["newSegments"], again["found"]) == (0, 6), again
    with open(tree + "/f", "ab") as file:
        file.write(b"more")
    assert record("two")["newSegments"] == 1
    paths = [entry["path"] for entry in found("two")]
    assert paths == [f"{tree}/{n}" for n in ("a|b%", "e*", "f", "g", "sub/c", "sub/d")], paths
    sizes = [e["size"] for e in found("*") if e["path"].endswith("/f")]
    assert sizes == [8 * K, 8 * K + 4], sizes

    # The server loses its answer: what was sent counts once. It refuses: nothing is remembered.
    server.admin("faults", [{"kind": "lose", "action": "addlist"}])
    assert record("three", "--list", "2", code=13)["recorded"] == 0
    assert record("three", "--list", "2")["found"] == 6
    server.admin("faults", [{"kind": "event", "code": 77, "action": "addlist", "times": 9}])
    with open(tree + "/g", "wb") as file:
        file.write(blocks[6])
    assert record("four", code=1)["recorded"] == 0
    server.stop()
    assert record("four", code=13)["newSegments"] == 1
    server.start()  # which has kept what it confirmed
    assert len(found("three")) == 6
    assert record("four")["newSegments"] == 1

    # Killed in the middle of a run, or told to stop: the next run completes it.
    server.admin("faults", [{"kind": "delay", "ms": 300, "times": 3, "action": "addlist"}])
    for sent, status in ((signal.SIGKILL, -9), (signal.SIGINT, 3)):
        running = subprocess.Popen([AGENT, "record", tree, "--client", "me", "--image", "five",
                                    "--cache", cache, "--list", "1"], stdout=subprocess.PIPE)
        atexit.register(running.kill)  # however the test ends
        while open(cache + ".lock").read() != f"{running.pid}\n":
            time.sleep(0.05)
        second = run("record", tree, "--client", "me", "--image", "none", "--cache", cache, code=1).stderr
        assert f"held by process {running.pid}\n" in second, second
        running.send_signal(sent)
        assert running.wait() == status, running.returncode
    assert 0 < len(found("five")) < 6
    assert record("five")["found"] == 6

    # The server is killed in the middle: what it confirmed is there when it comes back.
    server.admin("faults", [{"kind": "delay", "ms": 100, "times": 9, "action": "addlist"}])
    running = subprocess.Popen([AGENT, "record", tree, "--client", "me", "--image", "killed", "--cache",
                                cache, "--list", "1", "--json"], stdout=subprocess.PIPE,
                               stderr=subprocess.PIPE, text=True)
    atexit.register(running.kill)  # however the test ends
    time.sleep(0.35)
    server.kill()
    confirmed = json.loads(running.communicate()[0])["recorded"]
    assert running.returncode == 13 and 0 < confirmed < 6, (running.returncode, confirmed)
    server.start()
    assert confirmed <= len(found("killed")) <= confirmed + 1
    assert record("killed")["found"] == 6

    # A cache of nothing has no file.
    os.mkdir(top + "/empty")
    run("record", top + "/empty", "--image", "none", "--cache", top + "/none.cache")
    assert [name for name in os.listdir(top) if name.startswith("none.cache")] == ["none.cache.lock"]

    # Another's file is not replaced, and that is said before anything is sent.
    other = "record", tree, "--client", "me", "--image", "never", "--cache", AGENT
    assert "not a cache file" in run(*other, code=1).stderr and not found("never")

    # Without a client, the files are those of this host.
    run("record", tree, "--image", "here", "--cache", top + "/here.cache")
    run("find", "--client", socket.gethostname(), "--image", "here")

    # A damaged cache is not used, and is replaced.
    with open(cache, "r+b") as file:
        file.seek(100)
        file.write(b"\xff\xff")
    assert record("six")["newSegments"] == 8
    assert record("six")["newSegments"] == 0

    # More segments than the limit has room for: a part of them is known the next time. What is gone
    # makes room for what came, at the end of a run that was full.
    def fill(seed):
        with open(tree + "/large", "wb") as file:
            file.write(random.Random(seed).randbytes(20_000 * 512))

    def limited(image):
        done = record(image, "--limit", "1", segment="512", kept=top + "/small.cache")
        assert done["cached"] * 72 <= 1 << 20, done
        return done

    fill(1)
    all_new = limited("big1")
    assert all_new["cached"] > 13_000, all_new
    again = limited("big2")
    assert again["newSegments"] == all_new["newSegments"] - all_new["cached"], (again, all_new)
    fill(2)
    limited("big3")
    limited("big4")
    assert limited("big5")["newSegments"] < 7_500

    # A lower limit than that of the cache that is there.
    large = record("big6", "--limit", "2", segment="512", kept=top + "/small.cache")
    lower = limited("big7")
    assert large["cached"] > 20_000 and lower["newSegments"] == 0, (large, lower)

    # A disk that is full while the cache is saved: the old one is kept.
    before = open(top + "/small.cache", "rb").read()
    full = programs.run(AGENT, "record", tree, "--client", "me", "--image", "big8", "--cache", top + "/small.cache",
                        "--segment", "512", "--limit", "1", code=1, restore_signals=False,
                        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (9000, 9000)))
    assert "could not be replaced: File too large" in full.stderr, full
    assert open(top + "/small.cache", "rb").read() == before
    assert not os.path.exists(top + "/small.cache.new")
    os.remove(tree + "/large")

    # A pattern is for finding only: it would expire other images as well.
    for bad in (("--client", "me", "--image", "*"), ("--client", "m?", "--image", "six"),
                ("--client", "me", "--image", "a|b"), ("--client", "me")):
        run("expire", *bad, code=2)
    run("record", tree, "--image", "s*", code=2)
    run("expire", "--client", "me", "--image", "six")
    assert found("six") == [] and len(found("five")) == 6
    run("expire", "--client", "me", "--image", "six", code=10)
    run("record", tree, "--image", "x", code=12, KSPOOL_PASSWORD="wrong")
    run("find", "--client", "me", code=12, KSPOOL_PASSWORD="wrong")
    run("find", "--ds", "0", code=10)
    assert server.password not in run("record", tree, "--image", "x", "-v").stderr
    server.stop()
print("kspool-agent record: as expected")
