#!/usr/bin/env python3
"""kspool-mb behind a gateway that calls its own failures 503. Usage: mb_gateway_test.py TOOL SANDBOX"""
import os
import sqlite3
import subprocess
import sys
import tempfile
import time

from pool_server import PoolServer

TOOL, SANDBOX = (os.path.abspath(path) for path in sys.argv[1:3])
GATEWAY = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support", "gateway.py")
AWAY = {"kind": "status", "code": 503, "times": 1000000}
LOSE, LATE = {"kind": "lose"}, {"kind": "delay", "ms": 1200}
UNKNOWN = "if it was a change, it may have been made"


class Gateway:
    def __init__(self, *arguments):
        self.process = subprocess.Popen([GATEWAY, *arguments], stdout=subprocess.PIPE, text=True)
        word = self.process.stdout.readline()
        if not word.startswith("READY "):
            print(word)
            sys.exit(self.process.wait())
        self.port = word.split()[1]

    def end(self):
        self.process.terminate()
        self.process.wait(20)


# What goes wrong; what ends once the tool was told of a 503; seconds of retries; exit code; texts of the
# tool's last line; whether the change is made.
ROWS = [
    ([LOSE, AWAY], "gateway", 1, 13, [UNKNOWN, "HTTP status 503, server"], True),
    ([LOSE, AWAY], "server", 1, 13, [UNKNOWN, "HTTP status 503"], True),
    ([LOSE], None, 0, 13, [UNKNOWN, "HTTP status 503"], True),
    ([LOSE], None, 5, 0, [], True),
    # The gateway gives up a request that waits, and which the server then carries out.
    ([LATE], None, 0, 13, [UNKNOWN, "HTTP status 503"], True),
    ([LATE, AWAY], "gateway", 1, 13, [UNKNOWN, "HTTP status 503"], True),
    ([LATE, {"kind": "event"}], None, 5, 0, [], True),
    # Not carried out, which only the server itself can tell.
    ([{"kind": "reset"}], None, 0, 13, [UNKNOWN, "HTTP status 503"], False),
    ([{"kind": "event", "code": 77, "status": 503}], None, 0, 1, ["event 77"], False),
]


def made(database, path, expected):
    """Whether the server's database has it. A late request is given the time to be carried out."""
    for _ in range(200):
        found = database.execute("SELECT 1 FROM entries WHERE path = ?", (path,)).fetchone() is not None
        if found or not expected:
            return found
        time.sleep(0.05)
    return False


def check(top, server, number, faults, ends, retry, code, says, change):
    gateway = Gateway(top + "/gateway", "0", server.url.split(":")[-1])
    server.admin("faults", faults)
    command = [TOOL, "-v", "--server", f"http://127.0.0.1:{gateway.port}", "mkdir", f"/row{number}"]
    line = ""
    with subprocess.Popen(command + (["--retry", str(retry)] if retry else []), stderr=subprocess.PIPE,
                          text=True) as tool:
        for line in tool.stderr:
            if "(HTTP status 503)" in line and ends:
                gateway.end() if ends == "gateway" else server.kill()
                ends = None
        assert tool.wait(60) == code, line
    assert not ends and all(text in line for text in says) and (UNKNOWN in says or UNKNOWN not in line), line
    if server.process.poll() is not None:
        server.start()
    with sqlite3.connect(f"file:{top}/sandbox/pool.db?mode=ro", uri=True) as database:
        assert made(database, f"/row{number}", change) == change, f"row {number}: {line}"
    gateway.end()
    server.admin("reset", None)


with tempfile.TemporaryDirectory() as top:
    server = PoolServer(SANDBOX, top + "/sandbox")
    server.start()
    for number, row in enumerate(ROWS):
        check(top, server, number, *row)
    server.stop()
print("kspool-mb: as expected behind a gateway")
