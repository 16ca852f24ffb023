#!/usr/bin/env python3
"""kspool-mb po, image and hvx against a pool server. Usage: mb_po_test.py MB SANDBOX"""
import json
import os
import sys
import tempfile

import programs
from pool_server import PoolServer, answering

MB, SANDBOX = sys.argv[1:]


def po(name, size, client="c"):
    return f"1|1||0|0|{client}|p|i|/f|{name}|d|f||||{size}|0|0|0|0|0|0|0|0|0|\n"


def run(*arguments, code=0, out=None, text="", **variables):
    done = programs.run(MB, *arguments, code=code, input=text, env={**os.environ, **variables})
    assert out is None or done.stdout == out, (arguments, done.stdout)
    return done


with tempfile.TemporaryDirectory() as top:
    server = PoolServer(SANDBOX, top + "/pool")
    server.start()
    at = ("--server", server.url)

    # POs: from standard input and a file, kept, expired, looked for by each kind of criterion.
    run(*at, "po", "find", "1", code=10, out="")
    run(*at, "po", "add", "1", text=po("a", 5) + po("b", 2))
    run(*at, "po", "add", "1", text=po("a", 1))
    with open(top + "/list", "w") as file:
        file.write(po("a", 9) + po("c", 3, "d"))
    run(*at, "po", "add", "--keep", "1", top + "/list")
    run(*at, "po", "import", "1", text=po("e", 4))
    run(*at, "po", "expire", "1", text=po("e", 0))
    for criteria, lines in (((), po("a", 1) + po("b", 2) + po("c", 3, "d")),
                            (("--name", "?", "--client", "c"), po("a", 1) + po("b", 2)),
                            (("--size", "3"), po("c", 3, "d")),
                            (("--kind", "1", "--type", "f", "--name", "b"), po("b", 2))):
        run(*at, "po", "find", "1", *criteria, out=lines)
    run(*at, "po", "find", "1", "--origin", "x", "--count", code=10, out="0\n")
    run(*at, "po", "find", "1", "--count", out="3\n")
    run(*at, "po", "find", "1", "--count", "--json", out='{\n  "count": 3\n}\n')
    found = json.loads(run(*at, "--json", "po", "find", "1", "--name", "b").stdout)
    assert [(f["name"], f["size"], f["dsid"]) for f in found] == [("b", 2, 1)], found
    assert len(found[0]) == 26 and found[0]["comment"] == "", found
    run(*at, "--json", "po", "find", "1", "--name", "x", code=10, out="[]\n")

    # Each criterion is for the field of its name.
    every = "1|2|o|4|5|c2|p2|i2|/f2|n|dg|t|fm|lb|ap|16|17|18|19|20|21|22|23|24|25|co\n"
    run(*at, "po", "add", "1", text=every)
    found = json.loads(run(*at, "--json", "po", "find", "1", "--name", "n").stdout)[0]
    assert "|".join(map(str, found.values())) + "\n" == every, found
    for name, value in found.items():
        done = run(*at, "po", "find", "1", "--" + name, str(value))
        assert done.stdout.endswith(every) and done.stdout.count("\n") == (4 if name == "dsid" else 1), done
    for bad in (("po", "find"), ("po",), ("po", "find", "1", "--size", "1x"),
                ("po", "find", "1", "--type", "ff"), ("po", "find", "1", "--name", "a|b"),
                ("po", "add", "1"), ("po", "add", "1", top + "/none"), ("po", "add", "1", top),
                ("image", "retention", "1", "--image", "i", "--worm", "1")):
        assert run(*at, *bad, code=2).stderr.count("\n") == 1
    refused = run(*at, "po", "add", "1", code=1, text="no PO\n").stderr
    assert "line 1: not of 26 fields" in refused and "event 10022" in refused, refused
    run(*at, "po", "add", "0", code=10, text=po("a", 1))

    # Refused, each with its reason and exit code.
    run(*at, "po", "find", "0", code=10)
    for wrong in (("po", "find", "1"), ("--json", "po", "find", "1"), ("image", "last", "1")):
        assert "wrong password" in run(*at, *wrong, code=12, KSPOOL_PASSWORD="wrong").stderr

    # A server that announces more POs than it sends.
    with answering(lambda _: "names\ntypes\n4294967295\na|1\nb|2\n") as url:
        lied = run("--server", url, "po", "find", "1", code=1, out="a|1\nb|2\n").stderr
        assert "fewer POs than it announced" in lied, lied
        lied = run("--server", url, "--json", "po", "find", "1", code=1)
        assert "fewer POs than it announced" in lied.stderr and len(json.loads(lied.stdout)) == 2, lied

    # Images and tags.
    image = ("--client", "c", "--policy", "p", "--image", "i")
    run(*at, "image", "last", "1", code=10, out="")
    run(*at, "image", "set", "1", *image, "--time", "100", "--parent", "5", "--flags", "-1")
    for none in (("image", "last", "1", "--since", "101"), ("image", "retention", "1", *image), ("hvx", "1")):
        run(*at, "--json", *none, code=10, out="[]\n")
    assert json.loads(run(*at, "--json", "image", "last", "1").stdout) == [
        {"time": 100, "client": "c", "policy": "p", "parent": 5, "image": "i", "dofp": "", "dcid": 0, "flags": -1}]
    assert json.loads(run(*at, "--json", "image", "policy", "1", *image).stdout) == [{"policy": "p"}]
    run(*at, "image", "last", "1", out="100|c|p|5|i||0|-1\n")
    run(*at, "image", "last", "1", "--since", "101", code=10)
    run(*at, "image", "last", "1", "--parent", "6", code=10)
    run(*at, "image", "policy", "1", *image, out="p\n")
    run(*at, "image", "retention", "1", *image, code=10, out="")
    for least in "0", "60":
        run(*at, "image", "retention", "1", *image, "--set", least, "--worm", "3")
    shown, = json.loads(run(*at, "--json", "image", "retention", "1", *image).stdout)
    assert (shown["retention"], shown["worm"]) == (60, 3), shown
    run(*at, "image", "delete", "1", *image)
    gone = run(*at, "image", "delete", "1", *image, code=10).stderr
    assert "no such image" in gone and "event 10023" in gone, gone
    run(*at, "hvx", "1", code=10, out="")
    server.admin("dataselections", [{"number": 1, "tag": "t g"}])
    run(*at, "hvx", "1", out="t g\n")
    run(*at, "hvx", "2", code=10)
    server.stop()
    run(*at, "po", "find", "1", code=13)
print("kspool-mb po, image, hvx: as expected")
