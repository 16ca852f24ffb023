#!/usr/bin/env python3
"""Does what the documents say: installs a build, and for each document compiles its blocks of C and C++ and
runs its blocks of shell and Python in order, in a folder of their own. A block with a main() is saved as
program.c or program.cpp; one without is compiled as a piece of a function. Other kinds of blocks have
tests of their own.
Usage: code_blocks_test.py BUILD DOCUMENT...
"""
import os
import re
import subprocess
import sys
import tempfile

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
BLOCK = re.compile(r"^```(\w*)\n(.*?)^```$", re.S | re.M)
SHELL = os.environ.get("KSPOOL_TEST_SHELL", "bash").split()
OTHERS = {"ini", "hex", "json", "http"}
C_PIECE = """#include <stdio.h>
#include "kscache.h"
#include "mb.h"
#include "ks.h"
void piece(KSCache* cache, MBSession* session, unsigned char* digest, unsigned char* other);
void piece(KSCache* cache, MBSession* session, unsigned char* digest, unsigned char* other) {
    (void)cache, (void)session, (void)digest, (void)other;
%s}
"""
CPP_PIECE = """#include <cstdio>
#include "kspool.hpp"
void piece(kspool::Cache& cache, kspool::Session& session) {
    (void)cache, (void)session;
%s}
"""
LANGUAGES = {"c": ("cc -std=c99", C_PIECE), "cpp": ("c++ -std=c++20", CPP_PIECE)}


def script(document):
    """One shell script of all blocks, so that what one sets the next one has."""
    lines = ["set -euo pipefail", "trap 'kill $(jobs -p) 2>/dev/null || :' EXIT"]
    for number, (kind, code) in enumerate(BLOCK.findall(open(document, encoding="utf-8").read())):
        assert kind in {"sh", "python", *LANGUAGES} | OTHERS, f"{document}: a block of kind '{kind}'"
        if kind == "sh":
            lines.append(code)
        elif kind == "python":
            lines.append(f"cat >program.py <<'END_OF_CODE'\n{code}END_OF_CODE\npython3 -B program.py")
        elif kind in LANGUAGES:
            compiler, piece = LANGUAGES[kind]
            name = f"program.{kind}" if "int main" in code else f"piece{number}.{kind}"
            text = code if "int main" in code else piece % code
            lines.append(f"cat >{name} <<'END_OF_CODE'\n{text}END_OF_CODE")
            lines.append(f"{compiler} -Wall -Wextra -Werror -c {name} $(pkg-config --cflags kspool) -o piece.o")
    return "\n".join(lines)


build, *documents = sys.argv[1:]
with tempfile.TemporaryDirectory() as place:
    subprocess.run(["cmake", "--install", build, "--prefix", place + "/usr"], check=True,
                   stdout=subprocess.DEVNULL)
    lib = subprocess.run(["find", place, "-name", "libkspool.so.1"], check=True, stdout=subprocess.PIPE,
                         text=True).stdout.strip().rsplit("/", 1)[0]
    environment = {"PATH": place + "/usr/bin:/usr/bin:/bin", "HOME": place, "LANG": "C.UTF-8",
                   "LD_LIBRARY_PATH": lib, "PYTHONPATH": place + "/usr/lib/python3/dist-packages", "PKG_CONFIG_PATH": lib + "/pkgconfig",
                   "EXAMPLES": os.path.join(ROOT, "examples")}
    for path in documents:
        folder = tempfile.mkdtemp(dir=place)
        done = subprocess.run([*SHELL, "-c", script(path)], cwd=folder, env=environment, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        assert done.returncode == 0, f"{path}: {done.returncode}\n{done.stdout}"
        print(f"{path}: in order")
