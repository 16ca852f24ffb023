#!/usr/bin/env python3
"""kspool-mb against a sandbox server. Usage: mb_files_test.py TOOL SANDBOX"""
import json
import os
import re
import signal
import socket
import ssl
import subprocess
import sys
import tempfile
import time

from pool_server import OPENER, PoolServer, answering
from programs import replay

TOOL, SANDBOX = (os.path.abspath(path) for path in sys.argv[1:3])
CANARY = "canary-7d1f"
CLEAN = {name: value for name, value in os.environ.items() if not name.startswith(("KSPOOL_", "XDG_"))}
CLEAN.update(TZ="UTC", LC_ALL="C.UTF-8")
secrets = [CANARY]


def run(*arguments, code=0, lines=None, says=(), unsaid=(), env=(), **options):
    """Runs the tool. Without -v it is silent when all is well, and otherwise as long as `lines` says."""
    done = subprocess.run([TOOL, *arguments], capture_output=True, text=True, timeout=60,
                          env={**CLEAN, **dict(env)}, **options)
    told = (arguments, done.returncode, done.stdout, done.stderr)
    assert done.returncode == code, told
    assert not any(secret in done.stdout + done.stderr for secret in secrets), arguments
    if "-v" not in arguments:
        assert done.stderr.count("\n") == ((code != 0) if lines is None else lines), told
    assert all(line.startswith("kspool-mb: ") for line in done.stderr.splitlines()), told
    assert all(text in done.stderr for text in says) and not any(text in done.stderr for text in unsaid), told
    return done.stdout


def check_server(server, agent):
    url = server.url
    found = json.loads(run(*agent, "time", "--json"))
    assert abs(found["time"] - time.time()) < 5 and abs(found["difference"]) < 3, found
    zoned = run(*agent, "time", env={"TZ": "XYZ-05:30"})
    assert re.match(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\+05:30, ", zoned), zoned
    lines = run(*agent, "ping", "-c", "4").splitlines()
    assert len(lines) == 5 and lines[4].startswith("4 of 4 answered, min/median/max "), lines
    for line, n in zip(lines, range(1, 5)):
        assert re.fullmatch(rf"{re.escape(url)}: answer {n}: \d+\.\d{{3}} ms", line), line
    assert run(*agent, "ping", "-q").count("\n") == 1
    found = json.loads(run(*agent, "ping", "-c", "2", "--json"))
    for command, service in (("ls /", "metabase"), ("ping -c1", "keepalive")):
        told = subprocess.run([TOOL, "-v", *agent, *command.split()], capture_output=True, text=True, env=CLEAN, check=True)
        line, = re.findall(r"^kspool-mb: request: POST (\S+), HTTP status 200, id (\w+), [\d.]+ .?s$", told.stderr, re.M)
        logged = json.load(OPENER.open(url + "/__admin/requests"))["last"]
        assert line[0] == "/ws/" + service and line[1] in [one["id"] for one in logged], (line, logged)
    low, high = sorted(found["milliseconds"])
    assert 0 < low == found["min"] and high == found["max"] and abs(found["median"] - (low + high) / 2) < 1e-6


def check_secrets(config, password):
    word = open(password, encoding="utf-8").readline().rstrip("\n")
    variables = {"KSPOOL_LOGIN": "agent", "KSPOOL_PASSWORD": word, "KSPOOL_AGENT_CONFIG": config}
    for command in (("ls", "/"), ("ping",), ("ls", "-R", "/none"), ("mkdir", "/"), ("time",)):
        for secret in (word, CANARY):
            done = subprocess.run([TOOL, "-v", *command], env={**CLEAN, **variables, "KSPOOL_PASSWORD": secret},
                                  capture_output=True, text=True)
            assert secret not in done.stdout + done.stderr, command
    run("-v", "ls", "/none", code=10, says=["kspool-mb: error 10011: "], env=variables)
    # Nor does it stay where other programs can read it.
    busy = subprocess.Popen([TOOL, "ping", "-c", "1000000", "--json"], env={**CLEAN, **variables})
    try:
        deadline = time.monotonic() + 20
        environ = b""
        while b"KSPOOL_LOGIN" not in environ or word.encode() in environ:
            assert busy.poll() is None and time.monotonic() < deadline, "the password stays in the environment"
            with open(f"/proc/{busy.pid}/environ", "rb") as file:
                environ = file.read()
    finally:
        busy.kill()
        busy.wait()


def check_network(top, sandbox, agent):
    url = sandbox.url
    # Interrupted, it sums up, and ends by the signal; a silent server does not hold it up.
    for faults, number, summary in (([], signal.SIGINT, r"([1-9]\d*) of \1 answered, .*\n"),
                                    ([{"kind": "delay", "ms": 20000}], signal.SIGTERM, "0 of 0 answered\n")):
        sandbox.admin("faults", faults)
        ping = subprocess.Popen([TOOL, *agent, "ping", "-q", "-c", "1000000"], env=CLEAN, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)
        time.sleep(0.5)
        ping.send_signal(number)
        output, error = ping.communicate(timeout=10)
        assert (ping.returncode, error) == (-number, "") and re.fullmatch(summary, output), (ping.returncode, output, error)
    server = PoolServer(SANDBOX, top + "/late")
    closed = server.url
    run(*agent, "mkdir", "/a", "/b", "--server", closed, code=13, lines=2, says=[f"server {closed})", "--retry"])
    run(*agent, "ls", "/", "--server", closed, "--retry", "1", code=13, says=["be reached: "], unsaid=["--retry"])
    assert run(*agent, "ping", "-c", "2", "--server", closed, code=13, lines=2) == "0 of 2 answered\n"
    run(*agent, "ls", "/", "--server", url.replace("http:", "https:"), code=13, says=["could be made: ", "SSL key location"])
    late = subprocess.Popen([TOOL, "--config", server.config, "--login", "agent", "--password-file", top + "/late/agent.password",
                             "ping", "-c", "1", "-q", "--retry", "30"],
                            env=CLEAN, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    time.sleep(0.3)
    assert late.poll() is None, late.communicate()
    server.start()
    output, error = late.communicate(timeout=60)
    server.stop()
    assert late.returncode == 0 and output.startswith("1 of 1 answered"), (output, error)


LISTING = "f 1 2 b\udcff\\\nf 1 2 fine\n\nx 1 2 a\nf -1 2 a\nf 1 2\nf 1 2 \nf 18446744073709551616 0 a\n" \
          "f 18446744073709551615 -1 ok \x1b[2J\\\nf 1  2 a\nf 1 2 cut"


def check_odd_answers(agent):
    """A server whose answers are of the protocol, and odd."""
    ahead = [None]

    def clock():
        return "soon" if ahead[0] is None else str(int(time.time()) + ahead[0])

    with answering(lambda body: LISTING if b"action=dir" in body else clock()) as url:
        odd = (*agent, "--server", url)
        said = run(*odd, "ls", "/x", code=1, lines=8, says=[f"/x: line {n} of" for n in (3, 4, 5, 6, 7, 8, 10, 11)])
        assert said == ("f         1 B  1970-01-01 00:00:02  b\\xff\\x5c\n"
                        "f         1 B  1970-01-01 00:00:02  fine\n"
                        "f   16.00 EiB  1969-12-31 23:59:59  ok \\x1b[2J\\x5c\n"), said
        found = json.loads(run(*odd, "ls", "/x", "--json", code=1, lines=8))
        assert found[0] == {"type": "f", "size": 1, "mtime": 2, "path": "b\\xff\\x5c", "escaped": ["path"]}, found
        assert found[2] == {"type": "f", "size": 2**64 - 1, "mtime": -1, "path": "ok \x1b[2J\\"}, found
        run(*odd, "time", code=1)
        run(*odd, "--json", "image", "last", "1", code=1, says=["1 lines of the answer are no images"])
        for ahead[0], words in ((7200, "7,200 s ahead of"), (-7200, "7,200 s behind"), (0, "as")):
            # A second may begin between the two clocks, but not each time.
            said = [run(*odd, "time") for _ in range(3)]
            assert any(one.endswith(f", {words} the local clock\n") for one in said), said


OLD = ("openssl_conf = all\n[all]\nssl_conf = versions\n[versions]\nsystem_default = old\n[old]\n"
       "MinProtocol = TLSv1\nCipherString = DEFAULT:@SECLEVEL=0\n")


def check_peers(top, agent):
    """No answer over the limit is waited for, and no old TLS spoken, even where the system would."""
    with socket.create_server(("127.0.0.1", 0)) as listener:
        for length, says in ((2**32, "complete"), (2**32 + 1, "too large")):
            client = subprocess.Popen([TOOL, *agent, "--server", f"http://127.0.0.1:{listener.getsockname()[1]}", "time"],
                                      env=CLEAN, stderr=subprocess.PIPE, text=True)
            peer = listener.accept()[0]
            peer.recv(65536)
            peer.sendall(f"HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: {length}\r\n\r\n".encode())
            peer.close()
            said = client.communicate(timeout=60)[1]
            assert says in said, said
    with open(top + "/old.cnf", "w", encoding="ascii") as file:
        file.write(OLD)
    server = PoolServer(SANDBOX, top + "/tls", "--tls", url="https://127.0.0.1:{}")
    for most in ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_2:
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(*(f"{top}/tls/tls/server/{name}.pem" for name in ("cert", "key")))
        context.set_ciphers("DEFAULT:@SECLEVEL=0")
        context.minimum_version, context.maximum_version = ssl.TLSVersion.TLSv1, most
        with socket.create_server(("127.0.0.1", int(server.url.split(":")[2]))) as listener, \
                subprocess.Popen([TOOL, "--config", server.config, "time"], env={**CLEAN, "OPENSSL_CONF": top + "/old.cnf"},
                                 stderr=subprocess.DEVNULL):
            try:
                with context.wrap_socket(listener.accept()[0], server_side=True) as peer:
                    version = peer.version()
            except OSError:
                version = None
        assert version == ("TLSv1.2" if most == ssl.TLSVersion.TLSv1_2 else None), version


def check_usage(config):
    places = ["--config FILE", "$KSPOOL_AGENT_CONFIG", "$XDG_CONFIG_HOME/kspool/agent.cfg", "/etc/kspool/agent.cfg"]
    if not os.path.exists("/etc/kspool/agent.cfg"):
        run("ls", "/", code=2, says=places)
    for bad in ((), ("ls",), ("ls", "/", "/"), ("ls", ""), ("rm", "-R", ""), ("mkdir",), ("cp", "/"), ("mv", "/a", "/b", "/c"),
                ("mv", "-R", "/a", "/b"), ("ping", "-c", "0"), ("ping", "/"), ("time", "-q", "-v"), ("nonsense",),
                ("ls", "/", "--server", ""), ("ls", "/", "--login", "x" * 256), ("ls", "/", "--retry", "-1"), ("ls", "/", "--retry", "3601"),
                ("ls", "/", "--password", CANARY), ("ls", "/", "--login", "a:b"), ("ls", "/", "--server", "foo://x"),
                ("ls", "/", "--server", "http://"), ("ls", "/", "--server", "http://192.0.2.1")):
        run("--config", config, *bad, code=2)


with tempfile.TemporaryDirectory() as top:
    server = PoolServer(SANDBOX, top + "/pool")
    server.start()
    config, url = server.config, server.url
    agent, reader = (("--config", config, "--login", login, "--password-file", f"{top}/pool/{login}.password")
                     for login in ("agent", "reader"))
    # The configuration that init makes lacks nothing.
    told = subprocess.run([TOOL, "-v", *agent, "time"], capture_output=True, text=True, timeout=60, env=CLEAN, check=True)
    assert "trace: _configLoad" in told.stderr and "Missing configuration" not in told.stderr, told.stderr
    secrets += [open(who[-1], encoding="utf-8").readline().strip() for who in (agent, reader)]
    assert all(secrets)
    replay("mb_refused", top, TOOL, server)
    replay("mb_files", top, TOOL, server, READER=secrets[-1])
    check_server(server, agent)
    check_secrets(config, agent[-1])
    check_odd_answers(agent)
    check_usage(config)
    check_network(top, server, agent)
    check_peers(top, agent)
    server.stop()
print("kspool-mb: as expected")
