#!/usr/bin/env python3
"""kspool-agent record against a pool server.

Usage: agent_record_test.py AGENT SANDBOX LATER
"""
import atexit
import json
import os
import random
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import programs
from pool_server import PoolServer

AGENT, SANDBOX, LATER = sys.argv[1:]
K = 1024
HARD = "a|b%41" + "".join(map(chr, range(1, 32))) + "\x7f"  # a name of what no PO may hold as it is


def run(*arguments, code=0, timeout=60, powerless=False, **variables):
    program = [*(programs.POWERLESS if powerless else ()), AGENT]
    return programs.run(*program, *arguments, code=code, timeout=timeout, env={**os.environ, **variables})


def record(image, *options, code=0, segment="4KiB", kept=None, **variables):
    return json.loads(run("record", tree, "--client", "me", "--image", image, "--cache", kept or cache,
                          "--segment", segment, "--json", *options, code=code, **variables).stdout)


def hidden_from(image, *names):
    """Records the tree when nobody but root could read these names in it."""
    paths = [f"{tree}/{name}" for name in names]
    programs.run("chmod", "0", *paths)
    done = record(image, code=3, kept=top + "/partly.cache", powerless=True)
    programs.run("chmod", "755", *paths)
    return done["skipped"], done["kept"], done["stale"], done["found"]


def found(image):
    return programs.found(AGENT, image)


with tempfile.TemporaryDirectory() as top:
    pool, tree, cache = top + "/pool", top + "/tree", top + "/blocks.cache"
    server = PoolServer(SANDBOX, pool)
    blocks = [random.Random(i).randbytes(4 * K) for i in range(8)]
    for i, name in enumerate([HARD, "sub/c", "sub/d", "e*", "f", "g"]):
        os.makedirs(os.path.dirname(f"{tree}/{name}"), exist_ok=True)
        with open(f"{tree}/{name}", "wb") as file:
            file.write(blocks[i] + blocks[7])
    server.start()

    # All is new, then all is known; a changed file is new again. Folders and links are recorded, too.
    os.symlink("e* run=1 image=2", tree + "/link")
    first = record("one", "--list", "4")
    assert (first["files"], first["folders"], first["links"], first["recorded"]) == (6, 2, 1, 9), first
    assert (first["segments"], first["newSegments"], first["cached"], first["found"]) == (12, 7, 7, 9), first
    again = record("two")
    assert (again["newSegments"], again["unread"], again["found"]) == (0, 0, 9), again
    with open(tree + "/f", "ab") as file:
        file.write(b"more")
    assert record("three")["newSegments"] == 1
    paths = [entry["path"] for entry in found("three")]
    assert paths == [f"{tree}/{n}" for n in (HARD, "e*", "f", "g", "sub/c", "sub/d")], paths
    sizes = [e["size"] for e in found("*") if e["path"].endswith("/f")]
    assert sizes == [8 * K, 8 * K + 4, 8 * K], sizes

    # Recorded again after a file was removed, and with paths that overlap: what is there, each once.
    os.rename(tree + "/g", top + "/g")
    again = record("three", tree + "/sub", tree + "/sub/../f")
    assert (again["stale"], again["recorded"], again["found"]) == (1, 8, 8), again
    os.rename(top + "/g", tree + "/g")
    assert len(found("three")) == 5

    # What cannot be read keeps its PO of before, and the image counts; of one without a record, if all of it was new.
    record("partly", kept=top + "/partly.cache")
    for stale in (0, 1):
        assert hidden_from("partly", "f", "sub") == (2, 3, stale, 9 - stale)
        assert record("next", "--dry-run", kept=top + "/partly.cache")["newSegments"] == 4
        os.rename(*[tree + "/g", top + "/g"][::1 - 2 * stale])
    server.admin("faults", [{"kind": "event", "code": 77, "action": "setlastimage"}])
    record("ended", code=1, kept=top + "/other.cache")
    assert hidden_from("ended", HARD, "f") == (2, 1, 1, 8)

    # Segments are known while an image that holds them is on the server.
    record("kept")
    assert record("next", "--dry-run")["newSegments"] == 0
    run("expire", "--client", "me", "--image", "kept")
    left = record("next", "--dry-run")
    assert (left["newSegments"], left["recorded"]) == (8, 0) and not found("next"), left
    folders = {os.path.relpath(f["path"], tree): (f["files"], f["newBytes"] // K) for f in left["byFolder"]}
    assert folders == {".": (4, 20), "sub": (2, 8)}, folders

    assert [os.stat(cache + end).st_mode & 0o777 for end in ("", ".facts", ".lock")] == [0o600] * 3

    # A cache is bound to what it was made for.
    record("kept")
    for options, said in (("--segment 4KiB --ds 2", "data selection 1, not 2"), ("--segment 8KiB", "of 8.00 KiB"),
                          ("--segment 4KiB --digest md5", "not md5 segments")):
        refused = run("record", tree, "--image", "x", "--cache", cache, *options.split(), code=2).stderr
        assert "is bound to " in refused and said in refused and "--rebind" in refused, refused
    assert record("next", "--dry-run", "--rebind", "--ds", "2")["newSegments"] == 8
    assert record("next", "--dry-run")["newSegments"] == 0
    for lost, said in ((cache, "it is missing"), (cache + ".facts", "no facts tell")):
        os.rename(lost, top + "/lost")
        assert said in run("record", tree, "--image", "x", "--dry-run", "--cache", cache, "--segment", "4KiB").stderr
        os.rename(top + "/lost", lost)

    # Files that have not changed are not read again, unless they are too new to tell.
    later = {"LD_PRELOAD": LATER, "KSPOOL_TEST_LATER": "10", "ASAN_OPTIONS": "verify_asan_link_order=0"}
    assert record("read", "--force", **later)["unread"] == 0
    os.chmod(tree + "/e*", 0o640)  # changes a time that nobody can set
    again = record("unread", **later)
    assert (again["files"], again["unread"], again["newSegments"]) == (6, 5, 0), again
    assert record("forced", "--force", **later)["unread"] == 0
    run("expire", "--client", "me", "--image", "forced")
    assert record("forced", **later)["unread"] == 6
    for image in ("read", "unread"):
        run("expire", "--client", "me", "--image", image)
    assert record("forced", **later)["unread"] == 0

    # Without a cache each file is read, and each segment new, however often.
    for image in ("fresh", "newer"):
        fresh = json.loads(run("record", tree + "/sub", "--client", "me", "--image", image, "--json", **later).stdout)
        assert fresh["unread"] == 0 and fresh["newSegments"] > 0, fresh

    # The server loses its answers: what was sent counts once. It refuses: nothing is remembered.
    with open(tree + "/g", "wb") as file:
        file.write(blocks[6])
    assert record("three")["newSegments"] == 1
    for fault, code in (({"kind": "lose", "action": "addlist", "times": 2}, 13),
                        ({"kind": "event", "code": 77, "action": "addlist"}, 1),
                        ({"kind": "event", "code": 77, "action": "setlastimage"}, 1)):
        server.admin("faults", [fault])
        known = os.stat(cache).st_mtime_ns
        record("four", "--list", "2", code=code)
        server.admin("faults", method="DELETE")
        assert os.stat(cache).st_mtime_ns == known, fault
    assert record("four")["found"] == 9
    with open(tree + "/g", "ab") as file:
        file.write(blocks[5])
    server.stop()
    run("record", tree, "--image", "five", "--cache", cache, "--segment", "4KiB", code=13)
    server.start()  # which has kept what it confirmed
    assert len(found("four")) == 6

    # Killed, or told to stop: the image is not complete, and the next run completes it. A silent server does not
    # keep a signal waiting. Whoever comes second is told who holds the file, or waits.
    def started(image, *options):
        running = subprocess.Popen([AGENT, "record", tree, "--client", "me", "--image", image, "--cache", cache,
                                    "--segment", "4KiB", "--list", "1", *options], stdout=subprocess.PIPE)
        atexit.register(running.kill)  # however the test ends
        return running

    for sent, status in ((signal.SIGKILL, -9), (signal.SIGINT, 3)):
        server.admin("faults", [{"kind": "delay", "ms": 100, "times": 3, "action": "addlist"},
                                {"kind": "delay", "ms": 9000, "action": "addlist"}])
        running = started("five")
        while not programs.found(AGENT, "five", "d"):
            time.sleep(0.05)
        second = run("record", tree, "--image", "none", "--cache", cache, code=5).stderr
        assert f"held by process {running.pid}\n" in second, second
        waiting = started("five", "--wait")
        begun = time.monotonic()
        running.send_signal(sent)
        assert running.wait() == status and time.monotonic() - begun < 1, (running.returncode, time.monotonic() - begun)
        server.admin("faults", method="DELETE")
        assert waiting.wait() == 0
        assert len(found("five")) == 6
        run("expire", "--client", "me", "--image", "five")

    # What the end of a run has done, and what not, or nobody can tell. A server that stalls has done what was asked.
    def state(image):
        return [i for i in json.loads(run("images", "--client", "me", "--json").stdout) if i["image"] == image]

    def fault(kind, action="setlastimage", **members):
        return {"kind": kind, "action": action, **members}

    for faults, awaited, code, said in (
            ([fault("stall", "setimgretention", ms=9000)], "retention", 3, "if the retention is set; kspool-mb"),
            ([fault("stall", ms=9000)], "complete", 3, "Not known      interrupted; kspool-agent images tells"),
            ([fault("event", "setimgretention", code=77)], None, 1, "Not set        the retention"),
            ([fault("lose", "setimgretention", times=2)], None, 13, "if the retention is set; kspool-mb"),
            ([fault("lose", times=2)], None, 0, "On the server  9 entries of this image\n"),
            ([fault("lose", times=2), fault("delay", "getlastimage", ms=1, times=2),
              fault("lose", "getlastimage", times=2)], None, 13, "Not known      it ended early"),
            ([fault("event", code=77)], None, 1, "Not complete   it ended early")):
        server.admin("faults", faults)
        known = os.stat(cache).st_mtime_ns
        running = started("end", "--retention", "99999")
        while awaited and not any(one[awaited] for one in state("end")):
            time.sleep(0.05)
        if awaited:
            running.send_signal(signal.SIGTERM)
        output = running.communicate()[0].decode()
        assert running.returncode == code and said in output and "Not saved" not in output, (faults, running.returncode, output)
        assert (os.stat(cache).st_mtime_ns != known) == ("On the server" in output), (faults, output)
        server.admin("faults", method="DELETE")
        run("expire", "--client", "me", "--image", "end")

    # Another recording takes the name of the image that holds what is known, while a run relies on it.
    record("held")
    server.admin("faults", [{"kind": "delay", "ms": 1, "action": "addlist"},
                            {"kind": "delay", "ms": 2000, "action": "addlist"}])
    running = started("relies", "--force")
    while not programs.found(AGENT, "relies", "d"):
        time.sleep(0.05)
    run("record", tree + "/sub", "--client", "me", "--image", "held")
    assert running.wait() == 1 and record("relies")["newSegments"] > 0

    # The server is killed in the middle: what it confirmed is there when it comes back.
    server.admin("faults", [{"kind": "delay", "ms": 100, "times": 9, "action": "addlist"}])
    running = started("killed", "--json")
    while not found("killed"):
        time.sleep(0.05)
    server.kill()
    confirmed = json.loads(running.communicate()[0])["recorded"]
    assert running.returncode == 13 and 0 < confirmed < 9, (running.returncode, confirmed)
    server.start()
    assert record("killed")["found"] == 9

    # A cache of nothing has no file.
    os.mkdir(top + "/empty")
    run("record", top + "/empty", "--image", "none", "--cache", top + "/none.cache")
    assert sorted(name for name in os.listdir(top) if name.startswith("none.cache")) == ["none.cache.facts", "none.cache.lock"]

    # Another's file is not replaced, nor read for good, and that is said before anything is sent.
    os.mkfifo(top + "/pipe")
    shutil.copy(AGENT, top + "/other")
    for other in (top + "/pipe", top + "/other", top):
        kind = os.stat(other).st_mode
        refused = run("record", tree, "--client", "me", "--image", "never", "--cache", other, code=1, timeout=9).stderr
        assert refused.startswith(f"kspool-agent: {other}: ") and os.stat(other).st_mode == kind, refused
    assert not found("never")

    # Without standard input the cache is used as ever; links in its place, and beside it, are not followed.
    os.symlink(cache, top + "/link.cache")
    for planted in ("", ".facts"):
        os.symlink(top + "/other", f"{cache}{planted}.new")
    programs.run("sh", "-c", '"$@" <&- >&-', "sh", AGENT, "record", tree, "--client", "me", "--image", "kept", "--cache",
                 top + "/link.cache", "--segment", "4KiB", code=1)
    assert open(top + "/other", "rb").read() == open(AGENT, "rb").read() and os.path.islink(top + "/link.cache")
    assert record("next", "--dry-run")["newSegments"] == 0 and not os.path.exists(top + "/link.cache.facts")

    # Facts and cache of a link that leads to nothing are where it will lead.
    os.symlink(top + "/here.cache", top + "/dangling.cache")

    # Without a client, the files are those of this host.
    run("record", tree, "--image", "here", "--cache", top + "/dangling.cache", "--ds", "3000000000")
    run("verify", "--image", "here", "--ds", "3000000000")
    assert os.path.exists(top + "/here.cache.facts")
    run("find", "--client", socket.gethostname(), "--image", "here", "--ds", "3000000000")

    # A damaged cache is not used, and is replaced.
    with open(cache, "r+b") as file:
        file.seek(100)
        file.write(b"\xff\xff")
    assert record("six")["newSegments"] == 9
    assert record("seven")["newSegments"] == 0

    # More segments than the limit has room for: a part of them is known the next time. What is gone
    # makes room for what came, at the end of a run that was full.
    def fill(seed):
        with open(tree + "/large", "wb") as file:
            file.write(random.Random(seed).randbytes(20_000 * 512))

    def limited(image, force=True):
        done = record(image, "--limit", "1", *["--force"] * force, segment="512", kept=top + "/small.cache", **later)
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
    large = record("big6", "--limit", "2", "--force", segment="512", kept=top + "/small.cache")
    lower = limited("big7")
    assert large["cached"] > 20_000 and lower["newSegments"] == 0, (large, lower)
    # What a run did not read it does not drop.
    unread = limited("unread", force=False)
    assert unread["unread"] == 7 and unread["cached"] == lower["cached"], (lower, unread)
    # What took the place of data that are gone is known the next time, beside files that were not read.
    fill(3)
    changed = limited("changed", force=False)
    os.utime(tree + "/large")
    after = limited("after", force=False)
    assert changed["unread"] == after["unread"] == 6 and changed["newSegments"] > 19_000, (changed, after)
    fill(3)
    assert limited("later", force=False)["newSegments"] < 7_500

    # A disk that is full while the cache is saved: the old one is kept.
    before = open(top + "/small.cache", "rb").read()
    full = programs.run(AGENT, "record", tree, "--client", "me", "--image", "big8", "--cache", top + "/small.cache",
                        "--segment", "512", "--limit", "1", "--force", "--json", "--retention", "9", code=1, restore_signals=False,
                        preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (9000, 9000)))
    assert "could not be replaced: File too large" in full.stderr, full
    ended = json.loads(full.stdout)
    assert (ended["complete"], ended["retentionSet"], ended["cacheSaved"]) == (True, True, False), ended
    assert open(top + "/small.cache", "rb").read() == before
    assert not os.path.exists(top + "/small.cache.new")
    os.remove(tree + "/large")

    run("record", tree, "--image", "s*", code=2)
    run("record", tree, "--image", "late", "--retention", "18446744073709551616", code=2)
    assert not run("record", "--files-from", "/dev/null", "--client", "me", "--image", "six", code=2).stdout
    assert len(found("six")) == 6
    run("record", tree, "--image", "x", code=12, KSPOOL_PASSWORD="wrong")
    assert server.password not in run("record", tree, "--image", "x", "-v").stderr
    server.stop()
print("kspool-agent record: as expected")
