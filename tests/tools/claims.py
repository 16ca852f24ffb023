"""What kspool-agent record may call known: the files of a test, and the judge of the POs that runs made of them."""
import hashlib
import json
import os
import random
import subprocess

SEGMENT = 512
blocks = [random.Random(i).randbytes(SEGMENT) for i in range(40)]
contents = {}  # digest of a file -> its segments, by number
seen = {"known": 0, "unread": 0}


def write(chance, path, size=None):
    """New contents, or the old ones once more; the size tells nothing, and the time may be an old one."""
    size = chance.choice((0, 1, 1, 1, 2, 3)) if size is None else size
    numbers = [chance.randrange(len(blocks)) for _ in range(size)]
    times = (0, chance.randrange(3)) if chance.random() < 0.5 else None
    with open(path, "wb") as file:
        file.write(b"".join(blocks[n] for n in numbers))
    if times:
        os.utime(path, times)
    digests = b"".join(hashlib.sha256(blocks[n]).digest() for n in numbers)
    contents[hashlib.sha256(digests).hexdigest()] = numbers


def on_server(mb, ds, whole=True):
    """Images, `whole`: those with a record: (client, image) -> {path: PO}."""
    records = subprocess.run([mb, "image", "last", str(ds)], capture_output=True, text=True)
    assert records.returncode in (0, 10), records
    recorded = {tuple(line.split("|")[i] for i in (1, 4)) for line in records.stdout.splitlines()}
    images = {key: {} for key in recorded}
    found = subprocess.run([mb, "po", "find", str(ds), "--json"], capture_output=True, text=True)
    for po in json.loads(found.stdout) if found.returncode == 0 else []:
        images.setdefault((po["client"], po["image"]), {})[po["folder"] + "/" + po["name"]] = po
    return {key: pos for key, pos in images.items() if key in recorded or not whole}


def runs_of(pos):
    return {po["comment"].split(" run=")[1].split(" ")[0] for po in pos.values() if po["type"] == "f"}


class Model:
    """What was recorded, by data selection, client and image: the files of each recording that was tried."""

    def __init__(self):
        self.tried = {}

    def live(self, ds, images):
        """The images on the server that are one of these recordings, whole."""
        return {key: pos for key, pos in images.items()
                if files_of(pos) in self.tried.get((ds, *key), [])}

    def check(self, ds, key, before, after, finished):
        """The claims of the POs of an image that a run has made, against the server before the run."""
        held = {k: pos for k, pos in self.live(ds, before).items() if k != key}
        known = {n for pos in held.values() for po in pos.values() if po["type"] == "f" for n in contents[po["digest"]]}
        old_runs, met = set().union(*map(runs_of, before.values())), set()
        for path, po in sorted(after.items()):
            if po["type"] != "f" or not finished and before.get(key, {}).get(path) == po:
                continue
            numbers, reader = contents[po["digest"]], po["comment"].split(" run=")[1]
            run_id, image = reader.split(" image=")
            if run_id in old_runs:
                seen["unread"] += 1
                assert any(k[1] == image and other["digest"] == po["digest"] and f" run={run_id} " in other["comment"]
                           for k, pos in held.items() for other in pos.values()), (path, po, held.keys())
                continue
            must = len(set(numbers) - known - met)
            met.update(numbers)
            seen["known"] += len(numbers) - po["newsegments"]
            assert po["newsegments"] >= must, ("called known", path, po, must, sorted(known))


def at(hidden, path):
    """Whether a path is a hidden one or below it."""
    return hidden is not None and (path + "/").startswith(hidden + "/")


def files_of(pos):
    return frozenset((path, po["digest"]) for path, po in pos.items() if po["type"] == "f")


def files_in(tree):
    found = set()
    for folder, _, names in os.walk(tree):
        for name in names:
            with open(f"{folder}/{name}", "rb") as file:
                data = file.read()
            digests = b"".join(hashlib.sha256(data[i:i + SEGMENT]).digest() for i in range(0, len(data), SEGMENT))
            found.add((f"{folder}/{name}", hashlib.sha256(digests).hexdigest()))
    return frozenset(found)
