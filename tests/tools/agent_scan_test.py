#!/usr/bin/env python3
"""kspool-agent scan on trees whose contents are known. Usage: agent_scan_test.py AGENT"""
import fcntl
import hashlib
import html.parser
import json
import os
import pathlib
import pty
import random
import re
import resource
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import zlib

from programs import check_full_disk, check_usage, replay, run

AGENT = os.path.abspath(sys.argv[1])
K = 1024
M = K * K
os.environ["KSPOOL_AGENT_CONFIG"] = "/nonexistent"  # the digest of a configuration is a row of its own
BLOCKS = [random.Random(i).randbytes(4 * K) for i in range(6)]
FILES = {
    "a": BLOCKS[0] + BLOCKS[1] + BLOCKS[0],  # repeats itself once
    "sub/b": BLOCKS[1] + BLOCKS[2][:100],    # one block of a, and a short last segment
    "sub/c": b"",
    "sub/d": BLOCKS[2][:100],                # the same short segment
    "odd\nname": BLOCKS[3],
}


def scan(*arguments, code=0, **options):
    return json.loads(run(AGENT, "scan", "--json", *arguments, code=code, **options).stdout)


def write(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as file:
        file.write(data)
    return path


def sparse(path, size):
    """A file of holes, which no limit of the file size has to keep off the disk."""
    limits = resource.getrlimit(resource.RLIMIT_FSIZE)
    resource.setrlimit(resource.RLIMIT_FSIZE, (limits[1], limits[1]))
    os.truncate(write(path, b""), size)
    resource.setrlimit(resource.RLIMIT_FSIZE, limits)
    return path


def untimed(report):
    """What no clock and no number of threads has a say in."""
    for name in ("seconds", "fingerprintsPerSecond", "cacheSeconds", "cacheShare"):
        for part in report.get("compare", [report]):
            part.pop(name)
    return report


def check_told(home, top):
    for name, data in FILES.items():
        write(f"{top}/{name}", data)
    os.symlink("a", top + "/link")
    os.mkfifo(top + "/pipe")
    replay("agent_scan", home, AGENT)
    check_usage(AGENT, *(("scan", *bad) for bad in (
        (top + "/none",), (top + "/link",), (top + "/pipe",), ("--bits", "30", top), ("--segment", "1", top),
        ("--digest", "crc32", top), ("--nonsense", top), (), ("--files-from", top + "/none"),
        ("--files-from", top), ("--compare", "4KiB,1", top), ("--compare", "4KiB", "--segment", "4KiB", top),
        ("--jobs", "0", top), ("--report", top + "-lists/r", "--no-count", top))))


def check_threads(top):
    """Large files are read in pieces by all threads; neither their number nor the pieces show."""
    large = random.Random(9).randbytes(19 * M) + BLOCKS[0] * 5000 + b"end"
    write(top + "/1", large)
    write(top + "/2", large[:17 * M + 1])
    for i in range(300):
        write(f"{top}/few/{i}", BLOCKS[i % 6][i:])
    sizes = "4KiB,100000,1MiB,64MiB"
    reports = [untimed(scan("--compare", sizes, "--jobs", jobs, top)) for jobs in ("1", "2", "7")]
    assert reports[0] == reports[1] == reports[2]
    together = reports[0]["compare"]
    assert [part["segmentSize"] for part in together] == [4 * K, 100000, M, 64 * M], together
    for part in together:
        alone = untimed(scan("--segment", str(part["segmentSize"]), top))
        assert all(alone[name] == value for name, value in part.items()), (part, alone)

    # The digests themselves, as a cache file holds them.
    kinds = {"sha256": (3, hashlib.sha256), "md5": (1, hashlib.md5), "sha1": (2, lambda data: hashlib.sha1(data))}
    config = write(top + "-lists/agent.cfg", b"[Fingerprints]\nType=2\n")
    for name, (kind, digest) in kinds.items():
        cache = f"{top}-lists/{name}.cache"
        chosen = ["--digest", name] if kind != 2 else []
        found = scan("--segment", "4KiB", "--cache", cache, *chosen, top + "/1",
                     env=dict(os.environ, KSPOOL_AGENT_CONFIG=config))
        assert found["digest"] == name, found
        segments = {large[at:at + 4 * K] for at in range(0, len(large), 4 * K)}
        with open(cache, "rb") as file:
            records = file.read()[24:]
        held = {records[at:at + 33] for at in range(0, len(records), 41)}
        size = 32 if kind == 3 else 16
        wanted = {digest(data).digest()[:size] + bytes([kind]) for data in segments}
        assert {one[:size] + one[32:] for one in held} == wanted, name


def check_cache(top):
    entry = random.Random(3).randbytes(32) + struct.pack("<BQ", 3, 1)
    good = b"\x8bKSP\r\n\x1a\n" + struct.pack("<IIQ", 64, 0, zlib.adler32(entry)) + entry
    refused = {
        "not a cache file": (b"something else", "that is not a cache file"),
        "damaged": (good[:-1] + b"\x7f", "checksum"),
        "what is recorded": (good, "not that of a scan"),
    }
    for name, (content, says) in refused.items():
        path = write(f"{top}-lists/{name}", content)
        stderr = run(AGENT, "scan", "--cache", path, top, code=1).stderr
        assert stderr.count("\n") == 1 and says in stderr.lower(), (name, stderr)
        with open(path, "rb") as file:
            assert file.read() == content, name

    # A limit: what does not fit is told.
    write(top + "-many/file", random.Random(4).randbytes(16 * M))
    for arguments, files in ((["--limit", "1"], 1), (["--limit", "1", "--no-count"], 1)):
        found = scan("--segment", "512", *arguments, top + "-many", code=3)
        held = found["cache"]
        assert found["files"] == files and M * 0.8 < held["pageBytes"] <= M, found
        assert found["uncached"]["segments"] + held["entries"] == 32 * K, found
    many = top + "-lists/many.cache"
    scan("--segment", "512", "--cache", many, top + "-many")
    assert "limit" in run(AGENT, "scan", "--cache", many, "--limit", "1", top, code=1).stderr


def check_signals(top):
    """A large file is left within a fraction of a second, and the file is held until then."""
    endless = sparse(top + "-endless/file", 1 << 40)
    for number, options in ((signal.SIGINT, []), (signal.SIGTERM, ["--jobs", "1"]), (signal.SIGHUP, ["--no-count"])):
        cache = f"{top}-lists/{number}.cache"
        running = subprocess.Popen([AGENT, "scan", "--json", "--cache", cache, *options, top + "/a", endless],
                                   stdout=subprocess.PIPE, text=True)
        try:
            while not os.path.exists(cache + ".lock") or open(cache + ".lock").read() != f"{running.pid}\n":
                time.sleep(0.02)
            second = run(AGENT, "scan", "--cache", cache, top, code=5).stderr
            assert second == f"kspool-agent: {cache}: held by process {running.pid}\n", second
            time.sleep(0.3)
            running.send_signal(number)
            begin = time.monotonic()
            report = json.loads(running.communicate(timeout=20)[0])
            assert time.monotonic() - begin < 5, "the stop took long"
        finally:
            running.kill()
        assert running.returncode == 3 and report["interrupted"] and report["files"] == 1, report


def check_file_systems(top):
    """A mount below the folder, for which a user needs a name space of its own."""
    mount = f'mount -t tmpfs none {top}-mount/sub && echo x >{top}-mount/sub/file && exec "$@"'
    write(top + "-mount/file", b"x")
    os.mkdir(top + "-mount/sub")
    for options, files in (([], 2), (["--one-file-system"], 1), (["--one-file-system", top + "-mount/sub"], 2)):
        done = subprocess.run(["unshare", "-rm", "sh", "-c", mount, "-", AGENT, "scan", "--json", top + "-mount", *options],
                              capture_output=True, text=True, check=False)
        if "unshare failed" in done.stderr or "permission denied" in done.stderr:
            return
        assert json.loads(done.stdout)["files"] == files, (options, done)


class Texts(html.parser.HTMLParser):
    def __init__(self, page):
        super().__init__()
        self.tags, self.texts = set(), []
        self.feed(page)

    def handle_starttag(self, tag, attributes):
        self.tags.add(tag)
        assert not any(name in ("src", "onclick") for name, _ in attributes), attributes

    def handle_data(self, data):
        self.texts.append(data)


def check_report(top):
    hostile = "<b>&{{tiles}}\n.txt"
    for name in (hostile, "zz/copy.txt", "zz/more.c"):
        write(f"{top}-page/{name}", BLOCKS[5])
    path = top + "-lists/page.html"
    run(AGENT, "scan", "--report", path, "--compare", "1KiB,4KiB", top + "-page")
    with open(path, encoding="utf-8") as file:
        page = file.read()
    found = Texts(page)
    assert not found.tags & {"b", "script", "img", "iframe"} and "http" not in page.replace("http-equiv", ""), found.tags
    # Headings, then rows: the folders, the types, and the file whose 1 KiB segments are all there again, twice.
    for text in ("Dedup ratio by segment size", "3.00 : 1", top + "-page/zz", ".txt", "8.00 KiB",
                 top + "-page/<b>&{{tiles}}\\x0a.txt"):
        assert text in found.texts, (text, found.texts)
    assert set(re.findall("<thead><tr>(<th.*?>)", page)) == {"<th>"}, page
    for known, share in (("0.0 %", "100.0 %"), ("100.0 %", "0.0 %")):  # the first and the second scan
        run(AGENT, "scan", "--report", path, "--cache", path + ".cache", top + "-page/zz/more.c")
        with open(path, encoding="utf-8") as file:
            texts = Texts(file.read()).texts
        assert known in texts and share not in texts, texts
    assert "No such file" in run(AGENT, "scan", "--report", "/none/page", top, code=1).stderr
    assert "Scanned" in run(AGENT, "scan", "--report", "/dev/full", top, code=1).stdout
    page = pathlib.Path(path).read_bytes()
    run(AGENT, "scan", "--report", path, "--cache", AGENT, top, code=1)  # refused
    assert pathlib.Path(path).read_bytes() == page


def check_progress(top):
    """What a terminal gets: lines that fit it, or nothing when it cannot erase lines."""
    file = sparse(top + "-progress/file", 600 * M)
    for term, width, shown in (("xterm", 100, "left"), ("xterm", 34, "%"), ("dumb", 80, None), (None, 80, None)):
        master, slave = pty.openpty()
        fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, width, 0, 0))
        environment = {name: value for name, value in os.environ.items() if name != "TERM"}
        if term:
            environment["TERM"] = term
        with subprocess.Popen([AGENT, "scan", "--jobs", "1", file], stdout=subprocess.DEVNULL, stderr=slave, env=environment):
            os.close(slave)
            text = b""
            try:
                while more := os.read(master, 4096):
                    text += more
            except OSError:
                pass  # how a terminal tells that its other side is closed
        os.close(master)
        lines = text.decode().split("\r\x1b[K")
        assert max(map(len, lines)) < width, lines
        assert any(shown in line for line in lines) if shown else not text, (term, width, lines)
        assert all(int(line.split("%")[0].split()[-1]) <= 100 for line in lines if "%" in line), lines


with tempfile.TemporaryDirectory() as home:
    tree = home + "/tree"
    os.mkdir(tree)
    check_told(home, tree)
    check_file_systems(tree)
    check_cache(tree)
    check_signals(tree)
    check_report(tree)
    check_progress(tree)
    check_threads(home + "/large")

check_full_disk(1, AGENT, "scan", __file__)
print("kspool-agent scan: as expected")
