#!/usr/bin/env python3
"""kspool-sandbox as a program: folders that init makes, and servers of them. Usage: sandbox_program_test.py PROGRAM"""
import base64
import contextlib
import json
import os
import pty
import re
import shutil
import signal
import socket
import sqlite3
import ssl
import subprocess
import sys
import tempfile
import urllib.error
import urllib.parse
import urllib.request

sys.path.append(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "tools"))
from pool_server import OPENER, PoolServer  # noqa: E402
from programs import replay  # noqa: E402

PROGRAM = os.path.abspath(sys.argv[1])


def run(*arguments, code=1, says="", **options):
    done = subprocess.run([PROGRAM, *arguments], capture_output=True, text=True, timeout=60, **options)
    assert done.returncode == code and says in done.stderr, (arguments, done.returncode, done.stderr)
    assert done.stderr.count("\n") == (code != 0), done.stderr
    return done.stdout


def write(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def ask(server, number=[0], **form):
    number[0] += 1
    login = base64.b64encode(f"agent:{server.password}".encode()).decode()
    request = urllib.request.Request(server.url + "/ws/metabase", urllib.parse.urlencode(form).encode(),
                                     {"Authorization": "Basic " + login, "Request-Id": f"{number[0]:032}"})
    return OPENER.open(request, timeout=20).read().decode()


def secure(port, host, authority, keys, most=ssl.TLSVersion.MAXIMUM_SUPPORTED):
    """Whether a server is believed, and believes its client."""
    context = ssl.create_default_context(cafile=authority + "/ca.pem")
    context.set_ciphers("DEFAULT:@SECLEVEL=0")  # as the old versions of TLS need it
    context.minimum_version, context.maximum_version = ssl.TLSVersion.MINIMUM_SUPPORTED, most
    if keys:
        context.load_cert_chain(keys + "/cert.pem", keys + "/key.pem")
    try:
        with context.wrap_socket(socket.create_connection(("127.0.0.1", port)), server_hostname=host) as tls:
            tls.settimeout(20)
            tls.sendall(b"GET /__admin/health HTTP/1.1\r\nHost: localhost:1\r\n\r\n")
            return b" 200 OK" in tls.recv(4096)
    except OSError:
        return False


def check_told():
    os.mkdir("temporary")
    for arguments, says in (((), "A subcommand"), (("serve",), ""), (("init", "made"), ""), (("run",), "COMMAND"),
                            (("faults", "--url", "http://127.0.0.1:1"), "NAME")):
        run(*arguments, code=2, says=says)
    replay("../sandbox/sandbox_program", os.getcwd(), PROGRAM, TMPDIR=os.path.abspath("temporary"))


def check_folder():
    os.mkdir("made")
    said = run("init", "made", "--url", "http://127.0.0.1:9/p", code=0)
    assert "serve" in said and "made" in said and "TLS" not in said
    shutil.rmtree("made")
    server = PoolServer(PROGRAM, "made", url="http://127.0.0.1:{}/p/")
    with open(server.config, encoding="utf-8") as file:
        config = file.read()
    assert f"\nurl = {server.url[:-1]}\n" in config and "\nssl-key = " in config, config
    assert f"route-tables = {os.path.realpath('made')}/routes\n" in config, config
    for name in ("agent.cfg", "accounts.json", "agent.password", "reader.password"):
        assert os.stat(f"made/{name}").st_mode & 0o777 == 0o600, name
    assert os.stat("made").st_mode & 0o777 == 0o700
    with open("made/accounts.json", encoding="utf-8") as file:
        accounts = file.read()
    assert len(server.password) == 24 and server.password not in accounts
    assert len({account["salt"] for account in json.loads(accounts)["accounts"]}) == 2
    return server, accounts


def check_serving(server, accounts):
    shown = server.url
    server.start()
    assert server.url == shown[:-1] and os.path.exists("made/pool.db")
    assert re.fullmatch(r"\d{10,}\n", ask(server, action="gettime"))
    with socket.socket() as elsewhere:  # an address of the machine that is not the server's
        assert elsewhere.connect_ex(("127.0.0.2", int(server.url.split(":")[2].split("/")[0]))) != 0
    run("serve", "made", says="Address already in use")
    server.stop()
    # Hashes that differ in one byte, wherever it is.
    for number in (0, 1, 2, 31):
        changed = json.loads(accounts)
        for account in changed["accounts"]:
            digits = bytearray.fromhex(account["hash"])
            digits[number] ^= 1
            account["hash"] = digits.hex()
        write("made/accounts.json", json.dumps(changed))
        server.start()
        try:
            ask(server, action="gettime")
            raise AssertionError(number)
        except urllib.error.HTTPError as refused:
            assert refused.code == 401
        server.stop()
    write("made/accounts.json", accounts)
    os.makedirs("tree/d")
    write("tree/d/f", "12345")
    os.symlink("/", "tree/link")
    server.start("--port", "0", "--port-file", "port", "--db", "other.db", "--tree", "tree", stderr=subprocess.PIPE)
    assert "1 entry left out: neither" in server.process.stderr.readline()
    assert server.url == "http://127.0.0.1:" + open("port", encoding="ascii").read().strip() + "/p"
    assert re.fullmatch(r"d 0 \d+ d\nf 5 \d{10,} d/f\n", ask(server, action="dir", path="/", recursive=1))
    server.stop(signal.SIGINT)
    assert os.stat("other.db").st_mode & 0o777 == 0o600
    for bad in (("--tree", "nowhere"), ("--tls-dir", "nowhere"), ("--port-file", "nowhere/port")):
        run("serve", "made", "--port", "0", *bad, says="nowhere")
    for text, says in ((accounts.replace("write", "fly"), "'fly'"), ('{"accounts": []}', "no account"), ("x", "accounts.json: ")):
        write("made/accounts.json", text)
        run("serve", "made", "--port", "0", says=says)


def check_tls():
    run("init", "foreign", "--url", "https://pool.example:1", "--tls", code=0)
    server = PoolServer(PROGRAM, "secure", "--tls", url="https://pool.example:{}")
    server.start()
    assert server.url.startswith("https://127.0.0.1:")
    ours, theirs = "secure/tls/client", "foreign/tls/client"
    # A refused client leaves the server fit for others.
    for host, authority, keys, believed in (
            ("127.0.0.1", ours, ours, True), ("localhost", ours, ours, True), ("127.0.0.1", ours, None, False),
            ("127.0.0.1", ours, theirs, False), ("127.0.0.1", theirs, ours, False), ("else.example", ours, ours, False),
            ("pool.example", ours, ours, True)):
        assert secure(int(server.url.split(":")[2]), host, authority, keys) == believed, (host, authority, keys)
    for most in ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1, ssl.TLSVersion.TLSv1_2:
        assert secure(int(server.url.split(":")[2]), "localhost", ours, ours, most) == (most == ssl.TLSVersion.TLSv1_2), most
    for name in "tls/server/key.pem", "tls/client/key.pem", "agent.password", "pool.db":
        assert os.stat("secure/" + name).st_mode & 0o777 == 0o600, name
    server.stop()


def check_schema():
    shutil.copy("made/pool.db", "newer.db")
    with contextlib.closing(sqlite3.connect("newer.db")) as database:
        assert database.execute("PRAGMA user_version").fetchone() == (1,)
        database.execute("PRAGMA user_version = 2")
    with open("newer.db", "rb") as file:
        before = file.read()
    run("serve", "made", "--port", "0", "--db", "newer.db", says="of a newer kspool-sandbox")
    with open("newer.db", "rb") as file:
        assert file.read() == before


def check_run():
    """The command's exit code, its environment, and nothing that is left, however it ends."""
    env = {**os.environ, "TMPDIR": os.path.abspath("temporary")}
    run("run", "--", "true", code=0, env=env, preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
    # A file of the setup then has the descriptor 0.
    run("init", "closed", "--url", "http://127.0.0.1:9", code=0, preexec_fn=lambda: os.close(0))
    assert all(os.path.getsize("closed/" + name) for name in os.listdir("closed")), os.listdir("closed")
    inherited = run("run", "--tls", "--", "sh", "-c", "ls /proc/self/fd", code=0, env=env)
    assert inherited.split() == ["0", "1", "2", "3"], inherited  # the last one is that of ls
    told = '''echo "$KSPOOL_LOGIN $KSPOOL_PASSWORD $KSPOOL_SANDBOX_URL"; grep url "$KSPOOL_AGENT_CONFIG"
              pool=$(dirname "$KSPOOL_AGENT_CONFIG"); find $pool '(' -type f -o -path $pool ')' -perm /077'''
    for options, scheme in (((), "http"), (("--tls",), "https")):
        said = run("run", *options, "--", "sh", "-c", told, code=0, env=env)
        url = re.fullmatch(rf"agent \S{{24}} ({scheme}://127\.0\.0\.1:\d+)\nurl = (.*)\nurl = (.*)\n", said).groups()
        assert url[0] == url[1] == url[2], said
    for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
        with subprocess.Popen([PROGRAM, "run", "--", "sh", "-c", "echo $$; exec sleep 60"], stdout=subprocess.PIPE,
                              text=True, env=env) as ran:
            command = int(ran.stdout.readline())
            ran.send_signal(number)
            assert ran.wait(20) == 128 + number
        assert not os.path.exists(f"/proc/{command}") and not os.listdir("temporary")


WAITING = """import os, signal
os.setpgid(0, 0)
signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGINT])
print("ready", flush=True)
print("interrupted" if signal.sigtimedwait([signal.SIGINT], 1) else "left alone")"""


def check_terminal():
    """Ctrl-C is not handed on: the terminal sends it to the command, too, unless the command left the group."""
    process, terminal = pty.fork()
    if process == 0:
        os.execv(PROGRAM, [PROGRAM, "run", "--", "python3", "-c", WAITING])
    said = os.read(terminal, 1000)
    os.write(terminal, b"\x03")
    while not re.search(b"alone|interrupted", said):
        said += os.read(terminal, 1000)
    assert os.waitpid(process, 0)[1] == 0 and b"alone" in said, said
    os.close(terminal)


with tempfile.TemporaryDirectory() as place:
    os.chdir(place)
    check_told()
    check_serving(*check_folder())
    check_schema()
    check_run()
    check_terminal()
    check_tls()
    os.chdir("/")
