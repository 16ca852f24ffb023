#!/usr/bin/env python3
"""kspool-cache on files that are written here, byte by byte. Usage: cache_inspect_test.py TOOL DOC"""
import json
import os
import random
import re
import struct
import sys
import tempfile
import zlib

import programs

TOOL, DOC = sys.argv[1], sys.argv[2]
SIGNATURE = b"\x8bKSP\r\n\x1a\n"
PAGE, MIB = 1024 * 72, 1 << 20
random.seed(1)


def run(*arguments, **options):
    return programs.run(TOOL, *arguments, **options)


def ask(*arguments, **options):
    text = run(*arguments, "--json", **options).stdout
    assert text.startswith(('{\n  "', "[\n  {\n")), text
    return json.loads(text)


def record(digest, kind=3, value=0):
    return digest.ljust(32, b"\0") + struct.pack("<BQ", kind, value)


def image(payload, kind=64, value=None):
    value = zlib.adler32(payload) if value is None else value
    return SIGNATURE + struct.pack("<IIQ", kind, 0, value) + payload


def write(name, content):
    with open(name, "wb") as file:
        file.write(content)
    return name


def read(name):
    with open(name, "rb") as file:
        return file.read()


def place(rank, word):
    """A digest whose order and tree are chosen."""
    return struct.pack(">Q", rank) + bytes(4) + struct.pack("<I", word)


def check_document():
    text = open(DOC, encoding="utf-8").read()
    dump, claimed = re.findall(r"^```(?:hex|json)\n(.*?)^```", text, re.M | re.S)
    content = bytes.fromhex("".join(line.split("  ")[1] for line in dump.splitlines()))
    assert run("dump", "--json", write("document", content)).stdout == claimed
    run("verify", "document")
    assert content == image(content[24:]) and f"`0x{zlib.adler32(content[24:]):08x}`" in text


def check_damage():
    good = b"".join(record(random.randbytes(32), value=i) for i in range(3))
    odd = good + b"".join(record(random.randbytes(16), kind=200) for _ in range(12))
    # name: content, exit codes of verify, of stat, dump and shape, of diff and shrink, what is said
    cases = {
        "empty": (b"", 1, 1, 2, ["no whole magic header"]),
        "short": (image(good)[:23], 1, 1, 2, ["no whole magic header"]),
        "other": (b"x" + image(good)[1:], 1, 1, 2, ["no whole magic header"]),
        "type": (image(good, kind=65), 1, 1, 2, ["header of type 65"]),
        "wide": (image(good, value=zlib.adler32(good) | 1 << 32), 1, 1, 2, ["more than 32 bits: 0x1"]),
        "sum": (image(good, value=0x1234), 1, 1, 2,
                [f"header says 0x00001234, the contents have 0x{zlib.adler32(good):08x}"]),
        "partial": (image(good + b"12345"), 1, 0, 0, [f"end: offset {24 + 3 * 41}, 5 of 41 bytes"]),
        "types": (image(odd), 1, 0, 0, [f"offset {24 + n * 41} has unknown type 200" for n in range(3, 13)] +
                  [f"2 more of unknown types, from offset {24 + 13 * 41} on"]),
        "gone": (None, 2, 2, 2, ["No such file"]),
        "/": (None, 2, 2, 2, ["Is a directory"]),
        "fifo": (None, 2, 2, 2, ["Illegal seek"]),
    }
    write("good", image(good))
    os.mkfifo("fifo")
    for name, (content, verify, show, answer, said) in cases.items():
        if content is not None:
            write(name, content)
        calls = [(("verify", name), verify), (("diff", name, name), answer),
                 (("shrink", name, "--limit", "9", "-o", "out"), answer)]
        calls += [((command, name), show) for command in ("stat", "dump", "shape")]
        for arguments, code in calls:
            done = run(*arguments, code=code)
            lines = [line for line in done.stderr.splitlines() if line.startswith(f"kspool-cache: {name}: ")]
            assert len(lines) == len(said) * (1 + (arguments[0] == "diff")), (arguments, done.stderr)
            assert all(text in line for text, line in zip(said, lines)), (arguments, done.stderr)
            assert code == 0 or arguments[0] == "verify" or done.stdout == "", arguments
    assert [(row["type"], row["records"]) for row in ask("stat", "types")["types"]] == [(3, 3), (200, 12)]
    shown = run("stat", "types").stdout
    assert re.findall(r"^  type (\d+) +(\d+) ", shown, re.M) == [("3", "3"), ("200", "12")], shown
    assert "Cache memory   72.25 KiB: 1 pages of 1,024 slots" in shown, shown
    run("verify", "good", "sum", "gone", "good", code=2)
    found = ask("verify", "good", "sum", "odd\n\\", "b\udcff\\\x01", code=2)
    assert [one["state"] for one in found] == ["good", "damaged", "unreadable", "unreadable"], found
    assert [(one["file"], one.get("escaped")) for one in found] == [
        ("good", None), ("sum", None), ("odd\n\\", None), ("b\\xff\\x5c\x01", ["file"])], found
    # A file would become a closed standard input, and the library loads none from there.
    run("dump", "good", preexec_fn=lambda: os.close(0))
    assert run("verify", "good", "sum", code=1).stdout == "good: good, 3 records\nsum: damaged\n"


def check_every_byte():
    content = image(record(random.randbytes(32)) + record(random.randbytes(16), kind=1, value=7))
    names = [write(f"cut{n}", content[:n]) for n in range(len(content))]
    for bit in range(8 * len(content)):
        flipped = bytearray(content)
        flipped[bit // 8] ^= 1 << bit % 8
        names.append(write(f"flip{bit}", flipped))
    states = {one["file"]: one["state"] for one in ask("verify", *names, code=1)}
    assert states == dict.fromkeys(names, "damaged"), [n for n in names if states[n] != "damaged"]


def check_entries():
    a, b, c, d = (random.randbytes(32) for _ in range(4))
    first = write("A", image(record(a, value=1) + record(b[:16] + b"left", 1, 2) + record(a, value=9) +
                             record(c, value=3) + record(a[:16], 2, 2**64 - 1)))
    second = write("B", image(record(d, value=5) + record(c, value=4) + record(b[:16] + b"over", 1, 2) +
                              record(a, value=1) + record(c[:16], 1, 3)))
    entries = [json.loads(line) for line in run("dump", "--json", first).stdout.splitlines()]
    assert entries == [{"fingerprint": digest.hex(), "type": kind, "value": value} for digest, kind, value in (
        (a, 3, 1), (b[:16], 1, 2), (c, 3, 3), (a[:16], 2, 2**64 - 1))], entries
    live = [line.split()[1:] for line in run("dump", first).stdout.splitlines()[1:] if line[0] != "0"]
    assert live == [[str(one["value"]), one["fingerprint"]] for one in entries], live
    assert len(run("dump", "--sorted", first).stdout.splitlines()) == 5
    assert run("dump", "--raw", first).stdout.startswith("KSCache summary")
    assert run("diff", first, second, code=1).stdout == (
        f"~ 3 {c.hex()} 3 -> 4\n- 2 {a[:16].hex()} {2**64 - 1}\n+ 3 {d.hex()} 5\n+ 1 {c[:16].hex()} 3\n"
        "2 added, 1 gone, 1 changed, 2 the same\n")
    found = ask("diff", first, second, code=1)
    assert found["counts"] == {"added": 2, "gone": 1, "changed": 1, "same": 2}
    assert found["changed"] == [{"fingerprint": c.hex(), "type": 3, "old": 3, "new": 4}]
    assert ask("diff", first, first)["counts"]["same"] == 4


def check_shape():
    ranks = ((1, 0), (2, 1), (2, 0), (1, 1), (3, 0), (3, 1), (4, 0))  # a list, and a balanced tree
    found = ask("shape", write("two", image(b"".join(record(place(*one), 1) for one in ranks))), "--bits", "1")
    assert [row["entries"] for row in found["depths"]] == [2, 3, 1, 1], found
    assert [(row["from"], row["roots"]) for row in found["loads"]] == [(3, 1), (4, 1)], found
    # One entry more than three pages hold.
    listed = write("list", image(b"".join(record(place(i, 0), 1) for i in range(3070))))
    spread = write("spread", image(b"".join(record(random.randbytes(32)) for _ in range(3070))))
    for file, bits, too_few, unspread, words in (
            (spread, "13", False, False, "  #\n"), (spread, "4", True, False, "Too few bits"),
            (listed, "13", False, True, "by chance it would be 1.37"), (listed, "1", True, False, "Too few bits")):
        found = ask("shape", file, "--bits", bits)
        assert (found["tooFewBits"], found["unspreadDigests"]) == (too_few, unspread), (file, bits, found)
        text = run("shape", file, "--bits", bits).stdout
        assert text.startswith(file + ": 3,070 entries") and words in text and "no memory" not in text, text
    found = ask("shape", listed)
    assert (found["bits"], found["greatestDepth"], found["averageDepth"]) == (13, 3070, 1535.5), found
    assert found["depths"][-1] == {"from": 2561, "to": 5120, "entries": 510}, found
    plan = ask("stat", spread)
    assert (plan["memory"]["pageBytes"], plan["settings"]) == (found["pageBytes"], {"areaSize": 1024, "bits": 13})
    assert plan["memory"]["rootBytes"] == 8 << 13, plan


def check_shrink():
    payload = b"".join(record(random.randbytes(32), value=i) for i in range(30000))
    write("many", image(payload))
    kept = {limit: limit * MIB // PAGE * 1023 for limit in (1, 2)}
    before = sorted(os.listdir())
    os.umask(0o022)
    for limit, file in ((9, "many"), (2, "many"), (1, "less"), (1, "many")):
        found = ask("shrink", file, "--limit", str(limit), "-o", "less")
        count = min(kept.get(limit, 30000), 30000)
        assert found["kept"] == count and found["pageBytes"] <= limit * MIB, found
        assert read("less") == image(payload[-41 * count:]), (limit, file)
        run("verify", "less")
    assert os.stat("less").st_mode & 0o777 == 0o600
    os.chmod("less", 0o640)
    run("shrink", "less", "--limit", "1", "-o", "less")
    assert os.stat("less").st_mode & 0o777 == 0o640
    refused = run("shrink", "many", "--limit", "1", "--area", "20000", "-o", "none", code=2).stderr
    assert "smallest limit is 2" in refused and refused.count("\n") == 1, refused
    run("shrink", "many", "--limit", "1", "-o", "/", code=2)
    run("shrink", "many", "--limit", "1", "-o", "none/none", code=2)
    assert sorted(os.listdir()) == sorted(before + ["less", "less.lock"]), os.listdir()
    done = run("shrink", write("none", image(b"")), "--limit", "1", "-o", "less")
    assert "no entries" in done.stdout and not os.path.exists("less"), done.stdout


def check_usage():
    programs.check_usage(TOOL, (), ("stat",), ("stat", "A", "B"), ("diff", "A"), ("dump", "A", "--sorted", "--raw"),
                         ("dump", "A", "--json", "--raw"), ("shape", "A", "--bits", "30"), ("shape", "A", "B"),
                         ("shrink", "A", "-o", "B"),
                         ("shrink", "A", "--limit", "0", "-o", "B"), ("shrink", "A", "--limit", "1"), ("nonsense", "A"))
    programs.check_full_disk(2, TOOL, "dump", "A")


TOOL, DOC = os.path.abspath(TOOL), os.path.abspath(DOC)
with tempfile.TemporaryDirectory() as top:
    os.chdir(top)
    for check in (check_document, check_damage, check_every_byte, check_entries, check_shape, check_shrink, check_usage):
        check()
    os.chdir("/")
print("kspool-cache: as expected")
