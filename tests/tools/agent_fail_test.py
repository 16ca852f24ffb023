#!/usr/bin/env python3
"""kspool-agent while calls of it fail: memory, reads, writes, opens, syncs, the rename of its cache.
Usage: agent_fail_test.py AGENT SANDBOX SHIM [RUNS]

Whatever fails, a recording ends with a documented exit code and a word on it, and the next one completes.
A sync that fails is never passed over. A read that fails costs a scan no entry of its cache.
"""
import os
import random
import subprocess
import sys
import tempfile

from pool_server import PoolServer
from programs import found

AGENT, SANDBOX, SHIM = sys.argv[1:4]
RUNS = int(sys.argv[4]) if len(sys.argv) > 4 else 100
DOCUMENTED = {0, 1, 3, 12, 13}
FILES = 12
SEED = int(os.environ.get("KSPOOL_TEST_SEED", "1"))

with tempfile.TemporaryDirectory() as top:
    pool, tree, cache = top + "/pool", top + "/tree", top + "/blocks.cache"
    server = PoolServer(SANDBOX, pool)
    server.start()
    os.mkdir(tree)
    for i in range(FILES):
        with open(f"{tree}/{i}", "wb") as file:
            file.write(random.Random(i).randbytes(3000))

    def record(image, **variables):
        return subprocess.run([AGENT, "record", tree, "--client", "me", "--image", image,
                               "--cache", cache, "--segment", "1KiB"],
                              env={**os.environ, **variables}, capture_output=True, text=True)

    def check_whole(image):
        whole = record(image)
        assert whole.returncode == 0, whole
        assert len(found(AGENT, image)) == FILES, found(AGENT, image)

    def init(folder, **variables):
        return subprocess.run([SANDBOX, "init", f"{top}/{folder}", "--url", "http://127.0.0.1:1"],
                              env={**os.environ, **variables}, capture_output=True, text=True)

    for program, least in ((init, 7), (record, 4)):
        for nth in range(1, 99):
            done = program(f"synced{nth}", LD_PRELOAD=SHIM, FAIL_NTH=str(nth), FAIL_ONLY="fsync", FAIL_COUNT=top + "/count")
            if int(open(top + "/count").read()) < nth:
                break
            assert done.returncode in (1, 3) and "Input/output error" in done.stderr, (nth, done)
        assert done.returncode == 0 and nth > least, (nth, done)

    scanned, small = top + "/scanned.cache", tree + "/0"
    for path in (tree, small):
        for nth in range(1, 99):
            done = subprocess.run([AGENT, "scan", path, "--cache", scanned, "--segment", "1KiB"], env={
                **os.environ, "LD_PRELOAD": SHIM, "FAIL_NTH": str(nth if path == small else 0),
                "FAIL_ONLY": "read", "FAIL_COUNT": top + "/count"}, capture_output=True, text=True)
            assert os.path.getsize(scanned) == 24 + 41 * 3 * FILES, (nth, done)
            if int(open(top + "/count").read()) < nth or path == tree:
                break
        assert done.returncode == 0 and nth > (path == small) * 5, (nth, done)

    counted = record("first", LD_PRELOAD=SHIM, FAIL_COUNT=top + "/count")
    assert counted.returncode == 0, counted
    calls = int(open(top + "/count").read())
    chance = random.Random(SEED)
    failed = 0
    for run in range(RUNS):
        nth = chance.randrange(1, calls + 1)
        image = f"image{run // 20}"
        ending = {"FAIL_ALL": "1"} if run % 2 else {}
        if run % 4 == 0 and os.path.exists(cache):
            os.remove(cache)
        done = record(image, LD_PRELOAD=SHIM, FAIL_NTH=str(nth), **ending)
        unread = done.returncode == 2 and ("could not be read as a whole" in done.stderr or ending)
        assert unread or done.returncode in DOCUMENTED, (nth, ending, done)
        failed += done.returncode != 0
        assert done.returncode == 0 or done.stderr or ending, (nth, done)
        if run % 20 == 19:
            check_whole(image)
    assert failed > RUNS // 10, failed
    server.stop()
    print(f"torture: kspool-agent, {RUNS} of its {calls} calls failed, {failed} runs with them")
