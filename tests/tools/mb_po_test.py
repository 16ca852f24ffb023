#!/usr/bin/env python3
"""kspool-mb po, image and hvx against a pool server. Usage: mb_po_test.py MB SANDBOX"""
import json
import sys
import tempfile

import programs
from pool_server import PoolServer, answering

MB, SANDBOX = sys.argv[1:]

with tempfile.TemporaryDirectory() as top:
    server = PoolServer(SANDBOX, top + "/pool")
    server.start()
    programs.replay("mb_po", top, MB, server)
    programs.check_usage(MB, ("po", "find"), ("po",), ("po", "find", "1", "--size", "1x"), ("po", "find", "1", "--type", "ff"),
                         ("po", "find", "1", "--name", "a|b"), ("po", "add", "1", top + "/none"), ("po", "add", "1", top),
                         ("image", "retention", "1", "--image", "i", "--worm", "1"))

    # A server that announces more POs than it sends.
    with answering(lambda _: "names\ntypes\n4294967295\na|1\nb|2\n") as url:
        plain, listed = (programs.run(MB, *options, "--server", url, "po", "find", "1", code=1) for options in ((), ("--json",)))
    assert plain.stdout == "a|1\nb|2\n" and len(json.loads(listed.stdout)) == 2, (plain, listed)
    assert all("fewer POs than it announced" in lied.stderr for lied in (plain, listed)), (plain, listed)
    server.stop()
    programs.run(MB, "po", "find", "1", code=13)
print("kspool-mb po, image, hvx: as expected")
