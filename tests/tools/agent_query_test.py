#!/usr/bin/env python3
"""kspool-agent find, images, expire and verify against a pool server.

Usage: agent_query_test.py AGENT MB SANDBOX
"""
import sys
import tempfile

import programs
from pool_server import PoolServer

AGENT, _, SANDBOX = sys.argv[1:]

with tempfile.TemporaryDirectory() as top:
    server = PoolServer(SANDBOX, top + "/pool")
    server.start()
    programs.replay("agent_query", top, AGENT, server)
    # A pattern is for finding only: it would expire other images as well.
    programs.check_usage(AGENT, *(call.split() for call in (
        "find -0 --json", "find --type x", "expire --image one --older-than 1d", "expire --image one --even-newest",
        "expire --older-than 5", "expire --older-than 0d", "expire --older-than -1d",
        *(f"{command} {bad}" for command in ("expire", "verify")
          for bad in ("--image *", "--client m? --image one", "--image a|b", "")))))
    server.stop()
print("kspool-agent find, images, expire, verify: as expected")
