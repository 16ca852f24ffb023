#!/usr/bin/env python3
"""kspool-agent record against a model: random runs of two clients in two data selections, over trees that
change, or cannot be read, with images that expire, kills, failures, and servers and files from elsewhere.

Usage: agent_model_test.py AGENT SANDBOX MB LATER [RUNS]

After each run: every segment that it called known, and every file that it did not read, was in an image that
was on the server as it was recorded. To forget is allowed, to claim falsely never.
"""
import json
import os
import random
import shutil
import subprocess
import sys
import tempfile
import time

from claims import Model, at, files_in, files_of, on_server, seen, write
from pool_server import PoolServer
from programs import POWERLESS, run

AGENT, SANDBOX, MB, LATER = sys.argv[1:5]
RUNS = int(sys.argv[5]) if len(sys.argv) > 5 else 50
SEED = int(os.environ.get("KSPOOL_TEST_SEED") or random.randrange(1 << 32))
chance = random.Random(SEED)
saved = {}     # what may come back: folder -> copy
seen.update(dict.fromkeys(("killed", "failed", "whole", "stale", "kept"), 0))


def change(tree):
    path = f"{tree}/{chance.choice('ab')}/{chance.randrange(8)}"
    if os.path.exists(path) and chance.random() < 0.3:
        os.remove(path)
    elif os.path.exists(path) and chance.random() < 0.2:
        os.rename(path, path[:-1] + "9")
    else:
        write(chance, path)


def record(model, ds, client):
    """A run of a client, perhaps disturbed, and the check of what it claimed."""
    key, tree = (client, f"i{chance.randrange(4)}"), f"{top}/{client}"
    cache = f"{caches}/{chance.choice((f'{ds}', f'{ds}.{client}'))}.cache"
    options = [tree, "--ds", str(ds), "--client", client, "--image", key[1], "--cache", cache, "--segment", "512",
               "--list", chance.choice(("2", "500")), *chance.choices(([], ["--force"], ["--rebind"]), (8, 1, 1))[0]]
    before = on_server(MB, ds)
    hidden = f"{tree}/{chance.choice('ab')}" + chance.choice(("", f"/{chance.randrange(8)}"))
    hidden = hidden if chance.random() < 0.3 and os.path.exists(hidden) else None
    kept = {path: po for path, po in on_server(MB, ds, whole=False).get(key, {}).items() if at(hidden, path) and
            (key in before or po["newsegments"] == po["segments"])}
    here = {file for file in files_in(tree) if not at(hidden, file[0])} | files_of(kept)
    model.tried.setdefault((ds, *key), []).append(frozenset(here))
    disturbed = chance.choices(("", "kill", "kill in the save", "fault"), (6, 1, 1, 1))[0]
    if disturbed == "fault":
        action = chance.choice(("addlist", "setlastimage", "find", "deleteimage", "expire"))
        server.admin("faults", [{"kind": "event", "code": 77, "action": action}])
    later = {"LD_PRELOAD": LATER, "KSPOOL_TEST_LATER": "10", "ASAN_OPTIONS": "verify_asan_link_order=0"}
    if hidden:
        os.chmod(hidden, 0)
    running = subprocess.Popen([*POWERLESS, AGENT, "record", *options], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               env={**os.environ, **(later if chance.random() < 0.8 else {})})
    if disturbed == "kill":
        time.sleep(chance.uniform(0, 0.08))
    while disturbed == "kill in the save" and running.poll() is None and not os.path.exists(cache + ".new"):
        pass
    if disturbed.startswith("kill"):
        running.kill()
    said = running.communicate()[0]
    if hidden:
        os.chmod(hidden, 0o755)
    server.admin("faults", method="DELETE")
    finished = running.returncode == (3 if hidden else 0)
    assert finished or disturbed, (running.returncode, said)
    seen["killed" if running.returncode < 0 else "whole" if finished else "failed"] += 1
    after = on_server(MB, ds).get(key, {})
    model.check(ds, key, before, {path: po for path, po in after.items() if kept.get(path) != po}, finished)
    if finished:
        assert files_of(after) == model.tried[(ds, *key)][-1], (sorted(after), said)
        seen["stale"] += len(before.get(key, {}).keys() - after.keys())
        seen["kept"] += len(kept)
        assert not [name for name in os.listdir(caches) if name.startswith(cache[len(caches) + 1:] + ".") and
                    name.endswith(".new")], os.listdir(caches)
        if chance.random() < 0.2 and files_of(after) and not hidden:  # what is on the server is known, not only forgotten
            again = [tree, "--ds", str(ds), "--client", client, "--image", "new", "--cache", cache, "--segment", "512"]
            assert json.loads(run(AGENT, "record", "--dry-run", "--json", *again).stdout)["newSegments"] == 0
    time.sleep(0.01)  # a file that changes now has another time than the one that was read


def expire(ds):
    images = on_server(MB, ds)
    if not images:
        return
    client, image = chance.choice(sorted(images))
    pos = list(images[client, image].values())
    named = "--client", client, "--image", image
    if chance.random() < 0.3 and pos:
        lost = "|".join(str(value) for value in chance.choice(pos).values())
        run(MB, "po", "expire", str(ds), input=lost + "\n")
    elif chance.random() < 0.5:
        run(MB, "image", "delete", str(ds), *named, "--policy", "default")
    else:
        run(AGENT, "expire", "--ds", str(ds), *named)


def swap(folder):
    """Keeps a copy of a folder, or brings one back."""
    if folder in saved and chance.random() < 0.5:
        shutil.rmtree(folder)
        shutil.copytree(chance.choice(saved[folder]), folder)
    else:
        saved.setdefault(folder, []).append(f"{top}/copy{len(os.listdir(top))}")
        shutil.copytree(folder, saved[folder][-1])


def damage():
    """A cache file, or its facts, is lost, or comes from elsewhere."""
    names = [name for name in os.listdir(caches) if not name.endswith(".lock")]
    if not names:
        return
    name = f"{caches}/{chance.choice(sorted(names))}"
    if chance.random() < 0.5:
        os.remove(name)
    else:
        swap(caches)


def replace_server():
    server.stop()
    swap(pool)
    server.start()


with tempfile.TemporaryDirectory() as top:
    pool, caches = top + "/pool", top + "/caches"
    os.mkdir(caches)
    for client in ("anna", "bert"):
        for folder in "ab":
            os.makedirs(f"{top}/{client}/{folder}")
    server = PoolServer(SANDBOX, pool)
    shutil.copytree(pool, top + "/fresh")
    saved[pool] = [top + "/fresh"]
    server.start()
    model = Model()
    for _ in range(RUNS):
        client = chance.choice(("anna", "bert"))
        for _ in range(chance.randrange(4)):
            change(f"{top}/{client}")
        record(model, chance.choice((1, 1, 1, 2)), client)
        if chance.random() < 0.2:
            chance.choices((lambda: expire(1), damage, replace_server), (3, 1, 1))[0]()
    server.stop()
assert RUNS < 50 or seen["known"] and seen["unread"], seen
print(f"record against a model: {RUNS} runs, {', '.join(f'{n} {what}' for what, n in seen.items())}; KSPOOL_TEST_SEED={SEED}")
