#!/usr/bin/env python3
"""kspool-sandbox as a program. Usage: sandbox_program_test.py PROGRAM"""
import base64
import atexit
import os
import re
import signal
import subprocess
import sys
import tempfile
import urllib.request

PROGRAM = sys.argv[1]


def run(*arguments, code=0):
    done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60)
    assert done.returncode == code, (arguments, done.returncode, done.stderr)
    assert code == 0 or done.stderr.count("\n") == 1, done.stderr
    return done


def serve(number, *arguments):
    """Starts, asks for the time, and ends with a signal."""
    process = subprocess.Popen([PROGRAM, "serve", "made", *arguments], stdout=subprocess.PIPE, text=True)
    atexit.register(process.kill)  # however the test ends
    url, pid = re.fullmatch(r"READY url=(\S+) pid=(\d+)\n", process.stdout.readline()).groups()
    assert int(pid) == process.pid
    with open("made/agent.password", encoding="ascii") as file:
        login = base64.b64encode(b"agent:" + file.read().strip().encode()).decode()
    request = urllib.request.Request(url + "/ws/metabase", b"action=gettime",
                                     {"Authorization": "Basic " + login, "Request-Id": "0" * 32})
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    assert re.fullmatch(rb"\d{10,}\n", opener.open(request, timeout=20).read())
    process.send_signal(number)
    assert process.wait(20) == 0
    return url


with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    run(code=2)
    run("serve", code=2)
    run("init", "made", code=2)
    run("serve", "made", code=1)
    run("init", "made", "--url", "http://127.0.0.1", "--tls", code=1)
    assert not os.path.exists("made")
    said = run("init", "made", "--url", "http://127.0.0.1:9/p").stdout
    assert "serve" in said and "made" in said
    assert f"route-tables = {os.path.realpath('made')}/routes\n" in open("made/agent.cfg", encoding="utf-8").read()
    url = serve(signal.SIGTERM, "--port", "0", "--port-file", "port")
    assert url == "http://127.0.0.1:" + open("port", encoding="ascii").read().strip() + "/p"
    serve(signal.SIGINT, "--port", "0", "--db", "other.db", "--tree", "made")
    assert os.path.exists("other.db")
    run("serve", "made", "--port", "0", "--tree", "nowhere", code=1)
    run("serve", "made", "--port", "0", "--tls-dir", "nowhere", code=1)
