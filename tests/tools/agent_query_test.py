#!/usr/bin/env python3
"""kspool-agent find, images, expire and verify against a pool server.

Usage: agent_query_test.py AGENT MB SANDBOX
"""
import json
import os
import signal
import subprocess
import sys
import tempfile
import time

import programs
from pool_server import PoolServer

AGENT, MB, SANDBOX = sys.argv[1:]
ME = "--client", "me"
POWERLESS = ["setpriv", "--bounding-set=-all", "--inh-caps=-all"] if os.geteuid() == 0 else []


def check(*rows):
    """A row: arguments as one text, exit code, a part of the output. {t} is the tree."""
    for arguments, code, *parts in rows:
        command = [AGENT, *(word.format(t=tree) for word in arguments.split())]
        if "--client" not in command:
            command += ME
        done = programs.run(*command, code=code)
        for part in parts:
            assert part.format(t=tree) in done.stdout + done.stderr, (arguments, part, done)


def report(*arguments, code=0):
    return json.loads(programs.run(AGENT, *arguments, *ME, "--json", code=code).stdout)


def paths(*arguments):
    return [os.path.relpath(found["path"], tree) for found in report("find", *arguments)]


def add(image, *places):
    """POs of folders, or of symbolic links where a target is given, by their paths below the tree."""
    text = ""
    for path, *target in places:
        folder, name = os.path.split(os.path.normpath(os.path.join(tree, path)))
        comment = f"inode=1 mtimens=0 ctimens=0 target={target[0]}" if target else ""
        text += f"1|1||0|0|me|default|{image}|{folder}|{name}||{'l' if target else 'd'}" + "|" * 4
        text += "0|0|0|9|0|0|0|0|0|0|" + comment + "\n"
    programs.run(MB, "po", "add", "1", input=text)


def image(name, when):
    programs.run(MB, "image", "set", "1", *ME, "--policy", "default", "--image", name, "--time", str(when))


def write(name, text):
    with open(f"{tree}/{name}", "w", encoding="utf-8") as file:
        file.write(text)


def record(name):
    programs.run(AGENT, "record", tree, *ME, "--image", name)
    add(name, (".",), ("sub",), ("link", "a"))


with tempfile.TemporaryDirectory() as top:
    os.chmod(top, 0o755)
    tree = top + "/tree"
    server = PoolServer(SANDBOX, top + "/pool")
    server.start()
    os.makedirs(tree + "/sub")
    for name, text in (("a", "1"), ("e*", "22"), ("ef", "22"), ("sub/a", ""), ("subs", "4")):
        write(name, text)
    os.symlink("a", tree + "/link")
    record("one")

    # Names, paths and kinds; what two patterns match is listed once.
    for patterns, expected in (((), [".", "a", "e*", "ef", "link", "sub", "subs", "sub/a"]),
                               (("a",), ["a", "sub/a"]), ((f"{tree}/sub",), ["sub", "sub/a"]),
                               ((f"{tree}/sub/", "a", f"{tree}/./sub/a"), ["sub", "sub/a", "a"]),
                               ((f"{tree}/e*",), ["e*", "ef"]), (("--type", "l"), ["link"]),
                               ((tree, "--type", "d"), [".", "sub"])):
        assert paths(*patterns) == expected, (patterns, paths(*patterns))
    assert len(report("find", "/")) == 8
    link = report("find", "link")[0]
    assert (link["type"], link["target"], link["client"], link["digest"]) == ("l", "a", "me", None), link
    null = programs.run(AGENT, "find", "-0", "ef", "a", *ME).stdout
    assert null == "".join(f"{tree}/{n}\0" for n in ("ef", "a", "sub/a")), null
    # Any character, also one that a PO holds as a code of several.
    add("odd", ("a%0Ab",), ("a[b",), ("ab",))
    assert paths("a?b", "--image", "odd") == ["a\nb", "a[b"]
    check(("expire --image odd", 0))
    check(("find none", 10), ("find --ds 0", 10, "no such data selection"), ("find -0 --json", 2), ("find --type x", 2),
          ("find link", 0, "{t}/link -> a\n"))

    # A pattern is for finding only: it would expire other images as well.
    check(*((f"{command} {bad}", 2) for command in ("expire", "verify")
            for bad in ("--image *", "--client m? --image one", "--image a|b", "")),
          ("verify --image " + "x" * 256, 2, "1 to 255 characters"), ("expire --image one --older-than 1d", 2),
          ("expire --image one --even-newest", 2),
          ("expire --older-than 5", 2), ("expire --older-than 0d", 2), ("expire --older-than -1d", 2))

    # Verify: every difference by its name, a code for scripts.
    check(("verify --image one", 0, "8 same, 0 changed, 0 gone, 0 new, 0 not compared, 6 B read"),
          ("verify --image one --jobs 1 {t}/sub", 0, "2 same"), ("verify --image none", 10, "not known"),
          ("verify --image one {t}/nothing", 3, "not recorded, and not here"))
    os.chmod(tree + "/a", 0)
    partly = programs.run(*POWERLESS, AGENT, "verify", "--image", "one", *ME, code=3)
    assert "tree/a: Permission denied" in partly.stderr and "7 same" in partly.stdout, partly
    os.chmod(tree + "/a", 0o644)
    write("a", "2")
    write("ef", "333")
    write("sub/more", "")
    os.mkfifo(tree + "/sub/pipe")
    os.remove(tree + "/e*")
    os.remove(tree + "/link")
    os.symlink("b", tree + "/link")
    os.remove(tree + "/subs")
    os.mkdir(tree + "/subs")
    near = os.path.relpath(tree + "/sub")
    check(("verify --image one", 4, "changed  {t}/a: other contents\ngone     {t}/e*\nchanged  {t}/ef: 3 bytes, not 2\n"
           "changed  {t}/link: points to b, not to a\nnew      {t}/sub/more\n"
           "changed  {t}/subs: file, now a folder\n3 same, 4 changed, 1 gone, 1 new, 0 not"),
          ("verify --image one {t}/sub/more", 4, "new "), ("verify --image one {t}/sub", 4, "2 same, 0 changed, 0 gone, 1 n"),
          ("verify --image one --exclude more {t}/sub", 0), (f"verify --image one --exclude {near}/m* {near}", 0), ("verify --image one --exclude sub {t}/sub/a", 0, "1 same"))
    whole = report("verify", "--image", "one", code=4)
    assert (whole["same"], whole["changed"], whole["bytesRead"], len(whole["differences"])) == (3, 4, 1, 6), whole

    assert report("expire", "--image", "one", "-n")["images"][0]["complete"]

    # A signal ends it while the server is silent.
    server.admin("faults", [{"kind": "delay", "ms": 9000, "action": "find"}])
    running = subprocess.Popen([AGENT, "verify", "--image", "one", *ME])
    time.sleep(0.5)
    running.send_signal(signal.SIGINT)
    assert running.wait(5) == -signal.SIGINT

    # A server that sends fewer POs than it announced: nothing is compared, nothing expired.
    for command in ("find", "find --json", "verify --image one", "images", "expire --image one"):
        server.admin("faults", [{"kind": "lie", "code": 200, "type": "text/plain", "action": "find",
                                 "body": "names\ntypes\n2\n1|1||0|0|me|default|one|/f|n\n"}])
        check((command, 1, "fewer POs than it announced"))

    # Images: by time, with those that are incomplete; patterns of clients.
    image("empty", 1000)
    add("half", ("x",))
    programs.run(MB, "image", "retention", "1", *ME, "--policy", "default", "--image", "empty", "--set", "60")
    listed = [(i["image"], i["complete"], i["files"], i["bytes"], i["entries"]) for i in report("images")]
    assert listed == [("half", False, 0, 0, 1), ("empty", True, 0, 0, 0), ("one", True, 5, 6, 8)], listed
    assert report("images")[1]["retention"]["seconds"] == 60
    check(("images --client m*", 0, "incomplete  me     default half\n"), ("images --client m[e]*", 10),
          ("images --client other", 10), ("images --policy d?fault", 0), ("images --ds 7", 10))

    # By age: the newest stays; names are no patterns; dry runs and refusals leave everything.
    image("o?e", 2000)
    add("o?e", ("y",))
    add("empty", *((f"{'z' * 240}{i}",) for i in range(4000)))  # more than one list
    check(("expire --older-than 30d --dry-run", 0, "would go: images 3, files 0"),
          ("expire --older-than 1000w --dry-run", 0, "half, incomplete"))
    server.admin("faults", [{"kind": "event", "code": 77, "action": "deleteimage"}])
    old = report("expire", "--older-than", "30d", code=1)
    assert [(i["image"], i["fate"]) for i in old["images"]] == [
        ("half", "failed"), ("empty", "expired"), ("o?e", "expired")], old
    assert old["expired"] == 4001 and len(report("find", "--image", "one")) == 8
    check(("find --image empty", 10), ("expire --older-than 1h", 0, "expired: images 1, files 0"), ("expire --older-than 1h", 10))
    time.sleep(1.1)
    check(("expire --older-than 1s", 10, "one, the newest image", "--even-newest"),
          ("expire --older-than 1s --even-newest -n", 0, "would go: images 1, files 5"))

    # Ended between record and POs: an incomplete image, and no other run takes it for one.
    server.admin("faults", [{"kind": "event", "code": 77, "action": "expire"}])
    check(("expire --image one", 1), ("images", 0, "incomplete"), ("verify --image one", 10, "8 entries are on the server"),
          ("expire --image one", 0, "expired: images 1, files 5"), ("expire --image one", 10), ("images", 10))

    for command in ("find", "images", "expire --image one", "verify --image one"):
        programs.run(AGENT, *command.split(), code=12, env={**os.environ, "KSPOOL_PASSWORD": "wrong"})
    server.stop()
print("kspool-agent find, images, expire, verify: as expected")
