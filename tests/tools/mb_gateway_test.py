#!/usr/bin/env python3
"""kspool-mb behind a gateway that makes 503 of a lost answer: it never says that nothing was sent when the change is
in the database. Usage: mb_gateway_test.py TOOL SANDBOX"""
import os
import sqlite3
import subprocess
import sys
import tempfile
import time

from pool_server import PoolServer

TOOL, SANDBOX = (os.path.abspath(path) for path in sys.argv[1:3])
GATEWAY = os.path.dirname(os.path.abspath(__file__)) + "/../support/gateway.sh"
UNKNOWN = ("; if it was a change, it may have been made\n", "may have been made; is it a pool server?\n")
LOSE, DELAY, RESET = {"kind": "lose"}, {"kind": "delay", "ms": 1700}, {"kind": "reset"}
AWAY, EVENT = {"kind": "status", "code": 503, "times": 1000000}, {"kind": "event", "code": 77, "status": 503}

# Faults; who goes once the tool was told of a 503; seconds of retries; exit code; whether the change is made. The
# gateway gives a delayed request up, which is carried out later.
ROWS = [
    ([LOSE], [], 0, 13, True), ([LOSE, AWAY], ["gateway"], 1, 13, True), ([LOSE, AWAY], ["server"], 1, 13, True),
    ([LOSE, AWAY], ["gateway", "server"], 1, 13, True), ([LOSE, EVENT], [], 5, 0, True),
    ([DELAY], [], 0, 13, True), ([DELAY, AWAY], ["gateway"], 1, 13, True), ([DELAY, EVENT], [], 5, 0, True),
    # Not carried out, which an event alone can tell.
    ([RESET], [], 0, 13, False), ([RESET, AWAY], ["gateway"], 1, 13, False), ([RESET, EVENT], [], 0, 13, False),
    ([EVENT], [], 0, 1, False),
]


def wait(serving):
    for _ in range(1000):
        if os.path.exists(top + "/pid") != serving:
            time.sleep(0.01)


def play(path, faults, leave, retry):
    """The exit code of a mkdir and what it says, and whether it was carried out."""
    server.start("--port", "0")
    server.admin("faults", faults)
    gateway = subprocess.Popen([GATEWAY, top, port, server.url.split(":")[-1], "sleep", "100"])
    wait(True)
    tool = subprocess.Popen([TOOL, "-v", "--retry", str(retry), "mkdir", path], stderr=subprocess.PIPE, text=True)
    said = []
    for line in tool.stderr:
        said.append(line)
        if "(HTTP status 503)" in line:
            for name in leave:
                {"gateway": gateway, "server": server}[name].kill()
    time.sleep(1.8 if DELAY in faults else 0)
    gateway.kill()
    server.kill()
    wait(False)
    with sqlite3.connect(top + "/pool/pool.db") as database:
        made = database.execute("SELECT 1 FROM entries WHERE path = ?", (path,)).fetchone() is not None
    return tool.wait(), said, made


with tempfile.TemporaryDirectory() as top:
    server = PoolServer(SANDBOX, top + "/pool")
    port = server.url.split(":")[-1]
    for number, (faults, leave, retry, code, made) in enumerate(ROWS):
        result, said, found = play(f"/row{number}", faults, leave, retry)
        words = "(HTTP status 503, server" in said[-1] and said[-1].endswith(UNKNOWN)
        assert (result, words, found) == (code, code == 13, made), (number, result, found, "".join(said))
