#!/usr/bin/env python3
"""A loss of power at any moment: what was told to be there is there, and files are the old ones or the new ones.

Usage: power_test.py FOLDER-OF-PROGRAMS RECORDER LATER [SIZE]

Programs run with a library that records what they do to files (support/record_writes.c). From the record come the states
that a disk may have had after each call (disk.py); each one is laid out and opened. The same again with a sync left
out must break a promise, or the test would see nothing.
"""
import base64
import bisect
import contextlib
import copy
import hashlib
import http.client
import itertools
import os
import random
import sqlite3
import sys
import tempfile
import urllib.parse

import disk

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
from claims import Model, files_in, files_of, on_server, seen, write  # noqa: E402
from pool_server import PoolServer  # noqa: E402
from programs import run  # noqa: E402

BIN, RECORDER, LATER = (os.path.abspath(path) for path in sys.argv[1:4])
AGENT, CACHE, MB, SANDBOX = (f"{BIN}/kspool-{name}" for name in ("agent", "cache", "mb", "sandbox"))
SIZE = int(sys.argv[4]) if len(sys.argv) > 4 else 1
SEED = int(os.environ.get("KSPOOL_TEST_SEED") or random.randrange(1 << 32))
NOW = 1700000000
EVERYTHING = "0|0||-1|-1|*|*|*|*|*|*|*|*|*|*|" + "-1|" * 10 + "*"
chance = random.Random(SEED)
noticed = {}  # the syncs that were missing on purpose
total = 0  # states


class Broken(Exception):
    """A promise was."""


def promise(kept, *what):
    if not kept:
        raise Broken(*what)


class Record:
    """A folder, whose files are durable now, and what recorded programs then do in it."""

    def __init__(self, folder):
        self.folder, self.log, self.disk = folder, folder + ".log", disk.Disk(folder)
        open(self.log, "w").close()

    def environment(self, *more):
        return dict(os.environ, LD_PRELOAD=":".join((RECORDER, *more)), KSPOOL_TEST_LATER="10",
                    KSPOOL_RECORD_ROOT=self.folder, KSPOOL_RECORD_LOG=self.log)

    def run(self, *command, preload=()):
        """Runs a program to its good end, by which it promises what it did."""
        run(*command, env=self.environment(*preload))
        with open(self.log, "ab") as log:
            log.write(b"mark 0 0 0\n")

    def states(self, tries, ignored=None, share=1, only="", is_told=lambda event: event.kind == "mark"):
        return disk.states(copy.deepcopy(self.disk), disk.read_log(self.log), chance, tries, is_told, ignored, share, only)

    def versions(self, name):
        """What a file was when names were changed, in order. In the end the folder is as the record has it."""
        now, versions = copy.deepcopy(self.disk), []
        for event in [disk.Event("mark", 0, "", b""), *disk.read_log(self.log)]:
            now.apply(event)
            if event.kind in ("mark", "rename", "remove"):
                content = now.state(chance, "all", "all").get(name)
                versions += [content] if versions[-1:] != [content] else []
        ends = [{path: data for path, data in end.state(chance, "all", "all").items() if not path.endswith("-shm")}
                for end in (now, disk.Disk(self.folder))]
        assert ends[0] == ends[1], [end.keys() for end in ends]
        return versions


def must_notice(what, check, *arguments):
    """That the check finds what was left out on purpose."""
    try:
        check(*arguments)
    except (Broken, sqlite3.DatabaseError):
        noticed[what] = True
        return
    raise AssertionError(f"not noticed: {what}")


def tell(what, states, *counts):
    global total
    total += states
    print(f"power: {what}: " + ", ".join(f"{number} {name}" for number, name in ((states, "states"), *counts)), flush=True)


def cache_of(size):
    """A cache file with that many entries."""
    path = f"{top}/made{size}.cache"
    with open(path + ".data", "wb") as data:
        data.write(chance.randbytes(size * 512))
    run(AGENT, "scan", path + ".data", "--segment", "512", "--cache", path, "--no-count")
    return path


def check_caches(record, tries, ignored=None):
    """Each state has the version that was promised last, or the next one."""
    versions, states, count = record.versions("it.cache"), record.states(tries, ignored), 0
    while batch := list(itertools.islice(states, 50)):
        with tempfile.TemporaryDirectory(dir=top) as folder:
            files = []
            for number, (told, state) in enumerate(batch):
                content = state.get("it.cache")
                promise(content in versions[told:told + 2], told, state.keys(), content and len(content))
                os.mkdir(f"{folder}/{number}")
                disk.lay(state, f"{folder}/{number}")
                files += [f"{folder}/{number}/it.cache"] if content is not None else []
            run(CACHE, "verify", *files or [cache_of(1)])
            for path in files[:2]:  # over what the loss left
                run(CACHE, "shrink", path, "-o", path, "--limit", "2")
                assert sorted(os.listdir(os.path.dirname(path))) == ["it.cache", "it.cache.lock"]
        count += len(batch)
    return count


def cache_file():
    os.mkdir(top + "/cache")
    record = Record(top + "/cache")
    for size in (40, 300, 200, *[20000, 100][:SIZE - 1]):  # 16,384 are written at once
        record.run(CACHE, "shrink", cache_of(size), "-o", top + "/cache/it.cache", "--limit", "2")
    tell("a cache file", check_caches(record, 40 * SIZE))
    must_notice("of a cache file", check_caches, record, 4, disk.File)
    must_notice("of its folder", check_caches, record, 4, disk.Folder)


def check_set_up(record, tries, ignored=None):
    """The folder is missing, or empty as before, or whole; and whole once init has ended."""
    whole, count = disk.Disk(record.folder).state(chance, "all", "all"), 0
    for told, state in record.states(tries, ignored):
        made = {path: data for path, data in state.items() if path.split("/")[0] == "pool"}
        promise(made == whole or not told and not made.keys() - {"pool"}, told, made.keys())
        count += 1
    return count


def set_up():
    count = 0
    for number, options in enumerate((["--url", "http://127.0.0.1:1"], ["--url", "https://127.0.0.1:1", "--tls"])):
        os.makedirs(f"{top}/setup{number}" + "/pool" * number)
        record = Record(f"{top}/setup{number}")
        record.run(SANDBOX, "init", record.folder + "/pool", *options)
        count += check_set_up(record, 20 * SIZE)
        must_notice("of a file that init makes", check_set_up, record, 4, disk.File)
        must_notice("of a folder that init makes", check_set_up, record, 4, disk.Folder)
    tell("a folder that init makes", count)


class Client:
    """Counts the answers that it and those before it got."""

    def __init__(self, server, answers=0):
        server.admin("clock", NOW)
        self.answers = answers + 1
        self.connection = http.client.HTTPConnection(server.url[7:], timeout=30)
        self.login = "Basic " + base64.b64encode(f"agent:{server.password}".encode()).decode()

    def ask(self, request_id, action, parameters):
        body = urllib.parse.urlencode({"action": action, **parameters}, quote_via=urllib.parse.quote).replace("/", "%2F")
        self.connection.request("POST", "/ws/metabase", body, {
            "Content-Type": "application/x-www-form-urlencoded", "Request-Id": f"{request_id:032x}", "Authorization": self.login})
        answer = self.connection.getresponse()
        self.answers += 1
        return answer.status, answer.read()

    def view(self):
        """All that the pool has."""
        return [self.ask(chance.getrandbits(120), *request) for request in (
            ("dir", {"path": "/", "recursive": 1}), ("find", {"dataselection": 1, "filter": EVERYTHING}),
            ("getlastimage", {"dsid": 1, "client": "", "policy": "", "parentid": -1, "datetime": 0}))]


def some_change():
    path, other = (f"/{chance.choice('abcd')}" for _ in range(2))
    image = {"dsid": 1, "client": "anna", "policy": "daily", "imagename": f"i{chance.randrange(5)}", "flags": 0}
    numbers = chance.choices(range(60), k=chance.choice((1, 20, 200)))
    pos = {"dataselection": 1, "data": "".join(f"0|1|me|0|0|anna|daily|i|/f|{n}|{n:064x}|f|x|x|x|" + "1|" * 10 +
                                               "c" * chance.randrange(300) + "\n" for n in numbers)}
    return chance.choice((
        ("mkdir", {"path": path}), ("mkdir", {"path": path + other}), ("move", {"source": path, "destination": other}),
        ("copy", {"source": path, "destination": other + "/e", "recursive": 1}), ("delete", {"path": path, "recursive": 1}),
        ("import", pos), ("expire", pos), ("setlastimage", {**image, "parentid": 0, "datetime": chance.randrange(1 << 40)}),
        ("deleteimage", {**image, "appname": "x"}), ("setimgretention", {**image, "wormflags": 0, "retention": 9})))


def dump(database):
    """Whether it is sound, and all rows of all tables."""
    with contextlib.closing(sqlite3.connect(database)) as connection:
        connection.execute("PRAGMA synchronous = OFF")
        names = [name for name, in connection.execute("SELECT name FROM sqlite_master WHERE type = 'table' ORDER BY name")]
        rows = [connection.execute(f'SELECT * FROM "{name}" ORDER BY 1, 2').fetchall() for name in names]
        return connection.execute("PRAGMA integrity_check").fetchall(), hashlib.sha256(repr(rows).encode()).digest()


class Changes:
    """Changes that a recorded server was asked for one after the other, and what it then had."""

    def __init__(self, folder, rounds, number, sync=True):
        os.mkdir(folder)
        self.server = PoolServer(SANDBOX, folder + "/pool")
        self.record = Record(folder)
        self.asked, self.got, self.views, self.dumps = [], [], [], [dump(":memory:")]
        self.confirmed, answers = [], 0  # the number of answers with that to a change
        for _ in range(rounds):
            self.server.start(sync=sync, env=self.record.environment())
            client = Client(self.server, answers)
            if not self.views:
                self.look(client)
            for _ in range(number):
                self.asked.append((len(self.asked) + 1, *some_change()))
                self.got.append(client.ask(*self.asked[-1]))
                self.confirmed.append(client.answers)
                self.look(client)
            self.server.stop()
            answers = client.answers
        self.record.versions("pool/pool.db")

    def look(self, client):
        self.views.append(client.view())
        self.dumps.append(dump(self.server.folder + "/pool.db"))

    def check(self, tries, ignored=None, share=1.0, program=0.0):
        """Each state has the changes that were confirmed, and perhaps the next one."""
        count = opened = 0
        for answers, state in self.record.states(tries, ignored, share,
                                                 is_told=lambda event: event.data.startswith(b"HTTP/1.1 ")):
            told = bisect.bisect(self.confirmed, answers)
            state["pool/pool.db-shm"] = chance.randbytes(32768)  # shared memory: worth nothing after a loss
            with tempfile.TemporaryDirectory(dir=top) as folder:
                disk.lay(state, folder)
                if chance.random() < program:
                    opened += 1
                    self.serve(folder + "/pool", told)
                else:
                    promise(dump(folder + "/pool/pool.db") in self.dumps[told + (told > 0):told + 3], told)
            count += 1
        return count, opened

    def serve(self, folder, told):
        """The same by the program. The last change and the next one are then sent once more under their ids."""
        server = copy.copy(self.server)
        server.folder = folder
        server.start("--port", "0")
        client = Client(server)
        promise(client.view() in self.views[told:told + 2], told)
        for number in range(max(0, told - 1), min(told + 1, len(self.asked))):
            again = client.ask(*self.asked[number])
            promise(again[0] == self.got[number][0], told, again)
        promise(client.view() == self.views[min(told + 1, len(self.asked))], told)
        server.kill()


def database():
    changes = Changes(top + "/database", 2 + SIZE // 4, 12)
    count, opened = changes.check(4 * SIZE, program=0.03)
    if SIZE > 1:  # a log that is written from its start again
        long = Changes(top + "/long", 1, 80)
        assert sum(event.path.endswith("-wal") and event.number == 0 for event in disk.read_log(long.record.log)) > 2
        count += long.check(1, share=0.1)[0]
    must_notice("of the database", changes.check, 4, disk.File)
    must_notice("of its folder in the pool", changes.check, 4, disk.Folder)
    must_notice("with --no-sync", Changes(top + "/unsynced", 1, 4, sync=False).check, 4)
    tell("the database of the sandbox", count, (opened, "opened by kspool-sandbox"))


class Recordings:
    """Recordings of a tree through a cache, with a server of which images expire."""

    def __init__(self):
        self.tree = top + "/tree"
        for folder in (self.tree, top + "/agent/caches"):
            os.makedirs(folder)
        self.server, self.model = PoolServer(SANDBOX, top + "/agent/pool"), Model()

    def call(self, image, caches):
        return [AGENT, "record", self.tree, "--client", "anna", "--image", image, "--cache", caches + "/it.cache",
                "--segment", "512", "--list", "3"]

    def step(self, empty):
        """A recording; `empty`: of empty files, with no image left, by which the cache loses its file."""
        for name in range(6) if empty else chance.choices(range(6), k=3):
            write(chance, f"{self.tree}/{name}", 0 if empty else None)
        self.record = Record(top + "/agent")
        self.server.start(sync=True, env=self.record.environment())
        for _, name in sorted(on_server(MB, 1)):
            if empty or chance.random() < 0.3:
                run(AGENT, "expire", "--client", "anna", "--image", name)
        image = f"i{chance.randrange(3)}"
        self.model.tried.setdefault((1, "anna", image), []).append(files_in(self.tree))
        self.record.run(*self.call(image, top + "/agent/caches"), preload=[LATER])
        self.server.stop()

    def check_pair(self, tries, ignored=None):
        """The pairs of facts and cache that a run may leave: in order, the cache last."""
        facts, caches = (self.record.versions("caches/it.cache" + end) for end in (".facts", ""))
        pairs, count = [(one, caches[0]) for one in facts] + [(facts[-1], caches[-1])], 0
        for told, state in self.record.states(tries, ignored, only="caches"):
            pair = state.get("caches/it.cache.facts"), state.get("caches/it.cache")
            promise(pair in (pairs[-1:] if told else pairs), told, [one and one[:200] for one in pair])
            count += 1
        return count

    def check_claims(self, number):
        """Some states of both sides, or of the agent's alone, are recorded upon."""
        states = list(self.record.states(1, only=chance.choice(("", "caches"))))
        for _, state in chance.sample(states, number):
            with tempfile.TemporaryDirectory(dir=top) as folder:
                disk.lay(state, folder)
                self.check_claim(folder, copy.deepcopy(self.model))
        return number

    def check_claim(self, folder, model):
        server = copy.copy(self.server)
        server.folder = folder + "/pool"
        server.start()
        key, before = ("anna", f"i{chance.randrange(4)}"), on_server(MB, 1)
        model.tried.setdefault((1, *key), []).append(files_in(self.tree))
        later = {**os.environ, "LD_PRELOAD": LATER, "KSPOOL_TEST_LATER": "20"}
        done = run(*self.call(key[1], folder + "/caches"), *chance.choice(([], ["--force"])), env=later)
        promise("is not used" not in done.stderr and "damaged" not in done.stderr, done.stderr)
        after = on_server(MB, 1)[key]
        model.check(1, key, before, after, finished=True)
        assert files_of(after) == files_in(self.tree)
        server.kill()


def agent():
    recordings, count, recorded = Recordings(), 0, 0
    for number in range(4 + 2 * SIZE):
        recordings.step(empty=number % 4 == 2)
        count += recordings.check_pair(4)
        recorded += recordings.check_claims(3 + SIZE // 2)
    must_notice("of facts or cache", recordings.check_pair, 4, disk.File)
    must_notice("of their folder", recordings.check_pair, 4, disk.Folder)
    tell("facts and cache of kspool-agent", count, (recorded, "recorded upon"),
         (seen["known"], "segments called known"), (seen["unread"], "files not read"))


with tempfile.TemporaryDirectory(dir="/dev/shm" if os.path.isdir("/dev/shm") else None) as top:  # states are many
    top = os.path.realpath(top)
    try:
        for part in (cache_file, set_up, database, agent):
            part()
    except Exception:
        print(f"KSPOOL_TEST_SEED={SEED}", file=sys.stderr)
        raise
print(f"power: {total} states in all, {len(noticed)} missing syncs noticed: {', '.join(noticed)}; KSPOOL_TEST_SEED={SEED}")
