#!/usr/bin/env python3
"""kspool-agent record is killed at any moment of a run, half of them while it saves its cache.

Usage: agent_kill_test.py AGENT SANDBOX CACHE [KILLS]
"""
import json
import os
import random
import signal
import subprocess
import sys
import tempfile
import time

import programs
from pool_server import PoolServer
from programs import run

AGENT, SANDBOX, CACHE = sys.argv[1:4]
KILLS = int(sys.argv[4]) if len(sys.argv) > 4 else 8
SEED = int(os.environ.get("KSPOOL_TEST_SEED") or random.randrange(1 << 32))
FILES, SEGMENT, SIZE = 60, 512, 1 << 20
chance = random.Random(SEED)


def options(image):
    return [tree, "--client", "me", "--image", image, "--cache", cache, "--segment",
            f"{SEGMENT}B", "--list", "4", "--json"]


def complete(image):
    """A run that nobody disturbs."""
    done = run(AGENT, "record", *options(image))
    assert done.stderr == "", done.stderr
    return json.loads(done.stdout)


def found(image):
    return {entry["path"] for entry in programs.found(AGENT, image)}


def entries(file):
    """What a cache file holds, None when it is refused or not there."""
    if not os.path.exists(file):
        return None
    done = subprocess.run([CACHE, "verify", file], capture_output=True, text=True)
    assert done.returncode in (0, 1), done
    if done.returncode == 1:
        return None
    return json.loads(run(CACHE, "stat", file, "--json").stdout)["records"]


def change():
    """The beginning of a file gets new contents."""
    path = chance.choice(paths)
    with open(path, "r+b") as file:
        file.write(chance.randbytes(SIZE // 8))


def saving(running):
    """Waits for the new cache file; False when the run was over before."""
    while not os.path.exists(cache + ".new"):
        if running.poll() is not None:
            return False
    return True


def measure():
    """How long a run takes, and the save at its end; None when that was not seen."""
    start = time.monotonic()
    running = subprocess.Popen([AGENT, "record", *options("measured")], stdout=subprocess.DEVNULL)
    if not saving(running):
        return None
    begun = time.monotonic()
    while os.path.exists(cache + ".new"):
        pass
    saved = time.monotonic() - begun
    assert running.wait() == 0
    return time.monotonic() - start, saved


def kill(image, whole, save):
    """Whether it died of it; it may have been faster."""
    running = subprocess.Popen([AGENT, "record", *options(image)], stdout=subprocess.DEVNULL)
    if save is None:
        time.sleep(chance.uniform(0, whole))
    elif saving(running):
        time.sleep(chance.uniform(0, 0.8 * save))
    running.send_signal(signal.SIGKILL)
    return running.wait() == -signal.SIGKILL


with tempfile.TemporaryDirectory() as top:
    pool, tree, kept, scratch = (f"{top}/{name}" for name in ("pool", "tree", "kept", "scratch"))
    for folder in (tree, kept, scratch):
        os.mkdir(folder)
    cache = kept + "/blocks.cache"
    server = PoolServer(SANDBOX, pool)
    os.environ["TMPDIR"] = scratch
    server.start()
    paths = [f"{tree}/{i}" for i in range(FILES)]
    for path in paths:
        with open(path, "wb") as file:
            file.write(chance.randbytes(SIZE))

    complete("first")
    whole, save = next(times for times in (measure() for _ in range(20)) if times)
    kills = halves = refused = within = 0
    while kills < KILLS:
        change()
        image, before = f"i{kills}", entries(cache)
        if not kill(image, whole, save if kills % 2 else None):
            continue
        kills += 1
        # The cache is the old one or the new one; what was being written is whole or refused.
        assert entries(cache) is not None and entries(cache) >= before
        left = set(os.listdir(kept)) - {"blocks.cache", "blocks.cache.lock"}
        assert left <= {"blocks.cache.new"} and not os.listdir(scratch), left
        if left:
            halves += 1
            refused += entries(cache + ".new") is None
        sent = found(image)
        within += 0 < len(sent) < FILES
        assert sent <= set(paths)
        done = complete(image)
        assert (done["files"], done["found"]) == (FILES, FILES), done
        assert found(image) == set(paths)
        # Whole again: all that the server knows of is known, and nothing is left behind.
        assert sorted(os.listdir(kept)) == ["blocks.cache", "blocks.cache.lock"] and entries(cache) == done["cached"], done
        assert complete(image)["newSegments"] == 0
    server.stop()
print(f"kills: {kills} of a run of {whole * 1000:.0f} ms with a save of {save * 1000:.1f} ms; {within} with "
      f"a part of the files sent, {halves} with a new cache begun, {refused} of these refused; "
      f"KSPOOL_TEST_SEED={SEED}")
