#!/usr/bin/env python3
"""The Python package, from a cache of its own and beside a sandbox. Usage: python_test.py SANDBOX"""
import array
import concurrent.futures
import hashlib
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import urllib.request

import kspool
from kspool import PO, Cache, Session

os.environ["PATH"] = os.path.dirname(sys.argv[1]) + ":" + os.environ["PATH"]
DIGEST, NARROW, MANY = bytes(range(32)), bytes(range(16)), 2_000_000
THREADS = concurrent.futures.ThreadPoolExecutor()


def digests(first, count, width=32):
    return b"".join(hashlib.sha256(b"%d" % number).digest()[:width] for number in range(first, first + count))


def numbers(kind, count):
    return array.array(kind, bytes(array.array(kind).itemsize * count))


def refused(kind, call, *words):
    """That a call raises an exception, whose status and text have these words."""
    try:
        call()
    except kind as error:
        assert all(word in f"{error}" for word in words), (error, words)
    else:
        raise AssertionError(f"no {kind.__name__}")


def batches_do_what_single_calls_do():
    for kind, width in ((kspool.SHA256, 32), (kspool.MD5, 16)):
        for count in (0, 1, 999, 1000, 1001, 2500):
            keys, cache, plain = digests(0, count, width), Cache(count, type=kind), {}
            for at in range(0, count, 2):  # half of them are known before
                plain[keys[at * width:(at + 1) * width]] = at + 7
                assert cache.add(memoryview(keys)[at * width:(at + 1) * width], at + 7)
            values, statuses = numbers("Q", count), numbers("I", count)
            assert cache.fetch_batch(keys, values, statuses) == len(plain)
            assert list(values) == [at + 7 if at % 2 == 0 else 0 for at in range(count)]
            assert list(statuses) == [at % 2 * 2 for at in range(count)]
            assert cache.add_batch(bytearray(keys), array.array("Q", range(count)), statuses) == count - len(plain)
            assert list(statuses) == [1 - at % 2 for at in range(count)]
            hits = cache.stats().hits
            assert cache.exists_batch(keys) == count and cache.stats().hits == hits + count
            assert cache.fetch_batch(keys) == count and cache.stats().hits == hits + count
            plain.update((keys[at * width:(at + 1) * width], at) for at in range(1, count, 2))
            assert {(*entry,) for entry in cache.entries()} == {(*item, kind) for item in plain.items()}
            assert len(cache) == len(list(cache)) == len(plain) and set(cache) == set(plain)


def wrong_arguments_are_refused(folder):
    cache, closed, spaced = Cache(), Cache(), memoryview(bytes(128))[::2]
    square = memoryview(bytes(64)).cast("B", (4, 16))
    closed.close()
    closed.close()
    pathlib.Path(folder, "torn").write_bytes(b"no cache file")
    rows = [
        (ValueError, lambda: cache.add(NARROW, 1), "16 bytes"), (ValueError, lambda: DIGEST[:31] in cache, "31 bytes"),
        (ValueError, lambda: cache.get(DIGEST, type=1), "32 bytes"), (ValueError, lambda: cache.add(NARROW, 1, 259), "type 259"),
        (TypeError, lambda: cache.get("a" * 32)), (TypeError, lambda: cache.get(32)), (TypeError, lambda: cache.add_batch(DIGEST, None)),
        (OverflowError, lambda: cache.add(DIGEST, -1)), (OverflowError, lambda: cache.add(DIGEST, 1 << 64)),
        (ValueError, lambda: cache.fetch_batch(bytes(33)), "rows of 32"), (ValueError, lambda: cache.fetch_batch(square), "(4, 16)"),
        (ValueError, lambda: cache.fetch_batch(numbers("Q", 4)), "'Q'"), (BufferError, lambda: cache.fetch_batch(spaced)),
        (ValueError, lambda: cache.add_batch(DIGEST, numbers("Q", 2)), "1 unsigned 64-bit"),
        (ValueError, lambda: cache.fetch_batch(DIGEST, numbers("q", 1)), "'q'"),
        (ValueError, lambda: cache.fetch_batch(DIGEST, bytearray(8))),
        (ValueError, lambda: cache.fetch_batch(DIGEST, None, numbers("L", 1)), "32-bit"),
        (ValueError, lambda: cache.fetch_batch(DIGEST * 2, None, numbers("Q", 1)), "2 unsigned 32-bit"),
        (BufferError, lambda: cache.fetch_batch(DIGEST, memoryview(bytes(8)).cast("Q"))),
        (ValueError, lambda: closed.add(DIGEST, 1), "closed"), (ValueError, lambda: len(closed), "closed"),
        (ValueError, lambda: next(closed.entries()), "closed"), (ValueError, lambda: cache.load(b"a\0b"), "NUL"),
        (KeyError, lambda: cache[DIGEST], "(2)"), (kspool.NotFound, lambda: cache.delete(DIGEST), "(2)"),
        (kspool.Error, lambda: cache.load(folder + "/none"), "No such file", "(1002)"),
        (kspool.Corrupt, lambda: cache.load(folder + "/torn"), "(82)"),
    ]
    for row in rows:
        refused(*row)
    assert len(cache) == 0 and cache.get(DIGEST, 5) == 5


def files_survive(folder):
    path, cache = folder + "/cache", Cache()
    cache.add_batch(digests(0, 10), array.array("Q", range(10)))
    with kspool.Hold(path) as hold:
        child = os.fork()
        if child == 0:
            hold.close()
            os._exit(0)
        os.waitpid(child, 0)
        refused(kspool.Busy, lambda: cache.replace(path), "(11)")  # the child gave back nothing
        assert cache.replace(path, hold) == 10
    refused(ValueError, lambda: cache.replace(path, hold), "closed")
    assert cache.replace(path) == 10 and Cache().load(path) == 10


def messages_go_where_they_are_sent():
    program = ("import kspool\ndef hold():\n    try: kspool.Hold('/none/x')\n    except Exception as error: return type(error).__name__\n"
               "heard = []\ndef log(*message): heard.append(message); raise UserWarning\n"
               "kinds = [kspool.set_log(to) or hold() for to in (None, False, log, None)]; assert kinds.pop(2) == 'UserWarning', kinds\n"
               "(level, status, text), = heard; assert (level, status) == (30, 1002) and '/none/x' in text and {*kinds} == {'Error'}")
    done = subprocess.run([sys.executable, "-c", program], stderr=subprocess.PIPE, text=True)
    assert done.returncode == 0 and done.stderr.count("/none/x") == 2, done


def walks_end_when_entries_that_follow_go():
    for change in (lambda cache: cache.limit(0), lambda cache: cache.delete(digests(0, 1)), lambda cache: cache.reset()):
        for count, seen in ((600, 2), (512, 2), (1024, 511), (600, 600), (512, 512)):
            cache = Cache()
            cache.add_batch(digests(0, count), numbers("Q", count))
            walk = cache.entries()
            assert [next(walk) for _ in range(seen)]
            refused(KeyError, lambda: cache.delete(DIGEST))
            assert cache.add(DIGEST, 1) and (seen == count or next(walk))
            change(cache)
            refused(StopIteration if seen == count else RuntimeError, lambda: next(walk))


def handlers_use_the_cache_that_they_interrupt():
    cache = Cache()
    assert cache.add(DIGEST, 1) and cache.add(NARROW, 2, kspool.MD5)
    signal.signal(signal.SIGALRM, lambda *_: cache.get(NARROW, type=kspool.MD5))
    signal.setitimer(signal.ITIMER_REAL, 0.0002, 0.0002)
    assert all(cache.get(DIGEST) == 1 for _ in range(300_000))
    signal.setitimer(signal.ITIMER_REAL, 0)


def is_locked(used):
    return not (used._lock.acquire(blocking=False) and used._lock.release() is None)


def other_threads_run_meanwhile():
    """A batch runs without the GIL, its buffers cannot be resized, and its cache stays when it is closed."""
    cache, keys, ticks = Cache(MANY), bytearray(os.urandom(32 * MANY)), 0
    batch = THREADS.submit(cache.add_batch, keys, numbers("L", MANY))
    while not batch.done():
        time.sleep(0.001)
        if is_locked(cache):
            ticks += 1
            cache.close()
            try:
                keys.append(1)
                assert not is_locked(cache), "resized during a batch"
            except BufferError:
                pass
    assert ticks > 5 and batch.result() == MANY, (ticks, batch)
    refused(ValueError, lambda: len(cache), "closed")
    keys, values, cache = bytearray(32_000), numbers("Q", 1000), Cache(MANY)
    batch = THREADS.submit(lambda: [cache.add_batch(keys, values) for _ in range(300)])
    while not batch.done():
        keys[:] = os.urandom(32_000)
    assert batch.result() and all(digest in cache for digest in cache)
    cache, halves = Cache(MANY), [os.urandom(16 * MANY) for _ in range(2)]
    both = [THREADS.submit(cache.add_batch, half, numbers("Q", MANY // 2)) for half in halves]
    assert [half.result() for half in both] == [MANY // 2] * 2 and len(cache) == MANY
    assert [cache.fetch_batch(half) for half in halves] == [MANY // 2] * 2


def forks_give_up_what_other_threads_use():
    idle, used, keys = Cache(), Cache(MANY), os.urandom(32 * MANY)
    idle.add(DIGEST, 7)
    batch = THREADS.submit(used.add_batch, keys, numbers("Q", MANY))
    while not is_locked(used):
        time.sleep(0.001)
    child = os.fork()
    if child == 0:
        signal.alarm(10)
        for call in (lambda: used.get(DIGEST), lambda: len(used), lambda: used.add_batch(DIGEST, numbers("Q", 1))):
            refused(RuntimeError, call, "another thread")
        used.close()
        os._exit(idle[DIGEST])
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7 and batch.result() == len(used) == MANY


def resident():
    return int(pathlib.Path("/proc/self/statm").read_text().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def nothing_leaks(session):
    session.add_pos(1, [PO(client="c", image="i", folder="/f", name="wide", comment="c" * 100_000)])
    any(session.mkdir(f"/c/{number}" + "n" * 200) for number in range(100))
    work = ((lambda: Cache(100), 100_000), (lambda: next(session.find_lines(1)), 1000), (lambda: session.listdir("/c"), 2000),
            (lambda: Session(login="a"), 1000))
    for call, times in work:
        call()
        before = resident()
        for _ in range(times):
            call()
        assert resident() - before < 4 << 20, (times, resident() - before)


def pool_is_used(session):
    heard, pos = [], [PO(client="c", image="i", folder="/f", name=f"n{number}", size=number) for number in range(5)]
    rows = [
        (lambda: session.mkdir("/a"), None), (lambda: session.mkdir("/a/b"), None), (lambda: session.copy("/a", "/c", True), None),
        (lambda: session.move("/c/b", "/d"), None), (lambda: session.delete("/a", recursive=True), None),
        (lambda: [(node.type, node.path) for node in session.listdir("/")], [("d", "c"), ("d", "d")]),
        (lambda: session.time() // 1000, int(time.time()) // 1000), (lambda: list(session.find(1)), []),
        (lambda: session.add_pos(1, pos), None), (lambda: session.add_new_pos(1, [pos[3]._replace(size=9)]), None),
        (lambda: session.expire_pos(1, session.find(1, size=2)), None), (lambda: session.add_pos(1, []), None), (lambda: session.add_pos(1, iter(())), None),
        (lambda: [po.size for po in session.find(1, folder="/f", name="n*", type="f", origin="", comment="*")], [0, 1, 3, 4]),
        (lambda: [line.split("|")[9] for line in session.find_lines(1, size=3)], ["n3"]),
        (lambda: session.set_last_image(1, "c", "p", "i", 7), None), (lambda: session.last_images(1)[0][:5], (7, "c", "p", 0, "i")),
        (lambda: refused(kspool.Remote, lambda: session.retention(1, "c", "p", "i"), "an empty answer", "(4)"), None),
        (lambda: session.set_retention(1, "c", "p", "i", 9, flags=3), None), (lambda: session.retention(1, "c", "p", "i")[:3], (9, 0, 3)),
        (lambda: session.image_policy(1, "c", "i"), "p"), (lambda: session.delete_image(1, "c", "p", "i"), None),
        (lambda: session.hvx_tag(1), ""), (lambda: kspool.set_log(lambda *message: heard.append(message)), None),
        (lambda: session.keep_alive() or heard.pop()[2][:11], "MBKeepAlive"), (lambda: kspool.set_log(None), None), (lambda: session.last_event().http_status, 200),
        (lambda: session.set_options(application="me"), None), (lambda: session.statistics().connections, 1),
    ]
    for number, (call, result) in enumerate(rows):
        assert (told := call()) == result, (number, told)


def failures_have_kinds(pool, session):
    def order(**fault):
        body, kind = json.dumps([fault]).encode(), {"Content-Type": "application/json"}
        urllib.request.urlopen(urllib.request.Request(pool.url + "/__admin/faults", body, kind)).close()

    def under_way(session):
        order(kind="delay", ms=20000, action="gettime")
        request = THREADS.submit(session.time)
        while not session._user:
            time.sleep(0.001)
        return request

    password = pathlib.Path(pool.config).with_name("reader.password").read_text().strip()
    reader, far = Session(pathlib.Path(pool.config), login="reader", password=password), pool.session(mbs_url="http://127.0.0.1:1/")
    wrong = [
        (kspool.Remote, lambda: session.mkdir("/c"), "already exists: /c", "(4)"),
        (kspool.Remote, lambda: session.delete_image(1, "c", "p", "no"), "no such image: no of", "(10023)"),
        (kspool.Remote, lambda: session.retention(1, "c", "p", "no"), "(10023)"),
        (kspool.Permission, lambda: reader.delete_image(1, "c", "p", "i"), "denied", "(10002)"), (kspool.Remote, lambda: session.mkdir("/\udcff"), "(4)"),
        (kspool.Permission, lambda: reader.mkdir("/r"), "reader may not mkdir", "(106)"), (kspool.Unreachable, far.time, "(2004)"),
        *((TypeError, PO(**{name: bad}).line, f"{name}={bad!r}: wants") for name, bad in (("name", b"n"), ("image", None), ("size", 1.5))),
        *((TypeError, lambda pos=pos: session.add_pos(1, pos), word) for pos, word in (("a", "list"), (PO(), "list"), ([None], "None"))),
        (ValueError, lambda: session.add_pos(1, [PO(name="a|b")]), "a|b"), (kspool.Corrupt, lambda: PO.parse("1|2"), "1|2"),
        (kspool.Corrupt, lambda: PO.parse(PO().line().replace("|0", "|x", 1)), "no PO"), (TypeError, lambda: Session(5), "int"),
        (ValueError, lambda: session.mkdir("/a\0b"), "NUL"), (TypeError, lambda: session.find(1, size="1"), "wants int"),
        (TypeError, lambda: session.find(1, sizes=1), "no such name"), (TypeError, lambda: Session(login=5), "wants str"),
        (ValueError, lambda: session.find(1, type=""), "one byte"), (ValueError, lambda: session.find(1, type="ff"), "one byte"),
        (ValueError, lambda: session.find(1, origin="x" * 128), "long"),
        *((ValueError, lambda bad=bad: session.find(1, name=bad), "a control") for bad in ("a|b", "a\nb", "\x7f")), (kspool.Error, lambda: Session(login="x" * 300), "(10)"),
    ]
    for row in wrong:
        refused(*row)
    slow = pool.session()
    slow.set_timeout(1)
    order(kind="delay", ms=20000, action="mkdir")
    refused(kspool.Timeout, lambda: slow.mkdir("/t"), "(2005)")
    signal.signal(signal.SIGALRM, lambda *_: session.abort())
    for abort in (session.abort, lambda: signal.setitimer(signal.ITIMER_REAL, 0.05)):
        request = under_way(session)
        refused(RuntimeError, session.time, "in use")
        while not request.done():
            abort()
            concurrent.futures.wait([request], 0.2)
        assert isinstance(request.exception(), kspool.Aborted), request
    for handler, ms in ((lambda *_: None, 500), (signal.default_int_handler, 20000)):  # only the latter raises
        signal.signal(signal.SIGINT, handler)
        order(kind="delay", ms=ms, action="gettime")
        begun, _ = time.monotonic(), THREADS.submit(lambda: time.sleep(0.2) or os.kill(os.getpid(), signal.SIGINT))
        session.time() if ms == 500 else refused(KeyboardInterrupt, session.time)
        assert time.monotonic() - begun < 5
    request = under_way(slow)
    slow.close()
    slow.abort()
    assert isinstance(request.exception(), kspool.Timeout), request
    refused(ValueError, slow.time, "closed")
    signal.signal(signal.SIGALRM, signal.default_int_handler)
    for step in range(1000):  # an interrupted call does not leave its session in use
        refused(KeyboardInterrupt, lambda: signal.setitimer(signal.ITIMER_REAL, 2e-4 + step * 1e-7) and all(iter(session.statistics, None)))
        session.statistics()
    closing, record_of = pool.session(), kspool._session.record_of
    refused(kspool.Remote, lambda: closing.mkdir("/c"))
    told, kspool._session.record_of = closing.last_event(), lambda *record: closing.close() or record_of(*record)
    assert closing.last_event() == told  # a session stays until its texts are read, also when it is closed meanwhile
    kspool._session.record_of = record_of


def processes_end_cleanly(pool, session):
    child = os.fork()
    if child == 0:
        refused(kspool.Error, session.time, "(2003)")
        session.close()
        os._exit(7)
    assert os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 7 and session.time()
    left_open = ("import kspool, sys\nc = kspool.Cache(); c.add(bytes(32), 1); w = c.entries(); next(w); h = kspool.Hold(sys.argv[1])\n"
                 "s = kspool.Session(sys.argv[2], login='agent', password=sys.argv[3]); f = s.find_lines(1); next(f); s.time()\n")
    done = subprocess.run([sys.executable, "-c", left_open, pool.config + ".cache", pool.config, pool.password], capture_output=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, b"", b""), done
    killed = "import kspool, os, sys\nwith kspool.sandbox() as pool: print(pool.config, flush=True); os.kill(os.getpid(), 9)"
    config = subprocess.run([sys.executable, "-c", killed], stdout=subprocess.PIPE, text=True).stdout.strip()
    for _ in range(400):
        time.sleep(0.05 * os.path.exists(config))
    assert not os.path.exists(config), "the sandbox outlives a killed process"


batches_do_what_single_calls_do()
with tempfile.TemporaryDirectory() as top:
    wrong_arguments_are_refused(top)
    files_survive(top)
messages_go_where_they_are_sent()
walks_end_when_entries_that_follow_go()
forks_give_up_what_other_threads_use()
handlers_use_the_cache_that_they_interrupt()
other_threads_run_meanwhile()
refused(RuntimeError, lambda: kspool.sandbox("--nonsense").__enter__(), "did not start")
with kspool.sandbox() as server:
    os.environ["KSPOOL_AGENT_CONFIG"] = server.config
    with server.session() as user:
        pool_is_used(user)
        failures_have_kinds(server, user)
        nothing_leaks(user)
        processes_end_cleanly(server, user)
assert not os.path.exists(server.config)
