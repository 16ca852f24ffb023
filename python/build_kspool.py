"""Makes the extension of the package, with the public headers as declarations, so that none is written twice. setup.py
uses the installed library, which pkg-config finds; for CMake `build_kspool.py FOLDER:... OUTPUT` writes the C code."""
import os
import re
import subprocess
import sys

import cffi

HERE = os.path.dirname(os.path.abspath(__file__))
WHOLE = ("kspool_version.h", "cr_status.h", "ks_option.h", "kscache.h", "mb.h")
PLATFORM = ("platform/status.h", "platform/ws.h")


def read(folders, name):
    path = next(filter(os.path.isfile, (os.path.join(folder, name) for folder in (*folders, HERE))))
    with open(path, encoding="utf-8") as file:
        return file.read()


def declarations(folders):
    text = "".join(read(folders, name) for name in WHOLE) + read((), "blocks.c").partition("/* ---- Definitions")[0]
    unwanted = r"^#ifdef __cplusplus\n.*?^#endif\n|^#[^\n]*\n|\bKSPOOL_API |\bKSPOOL_NOEXCEPT\b"
    text = re.sub(unwanted, "", text, flags=re.S | re.M)
    platform = "".join(read(folders, name) for name in PLATFORM)
    return text + "".join(re.findall(r"^enum\b[^;]*;", platform, flags=re.M))


def pkg_config(*words):
    try:
        return subprocess.check_output(["pkg-config", *words, "kspool"], text=True).split()
    except (OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"kspool: no installed library, whose kspool.pc lies in a folder of PKG_CONFIG_PATH: {error}")


def builder(folders=None):
    ffi, options = cffi.FFI(), {}
    if folders is None:
        folders = [flag.removeprefix("-I") for flag in pkg_config("--cflags-only-I")]
        libraries = pkg_config("--libs")
        places = [os.path.normpath(flag.removeprefix("-L")) for flag in libraries if flag.startswith("-L")]
        # The loader searches the system's folders anyway.
        rpath = ["-Wl,-rpath," + place for place in places if not place.startswith(("/lib", "/usr/lib"))]
        options = {"include_dirs": folders, "extra_link_args": libraries + rpath, "extra_compile_args": ["-O2"]}
    ffi.cdef(declarations(folders))
    includes = "".join(f'#include "{name}"\n' for name in (*WHOLE, *PLATFORM))
    ffi.set_source("kspool._kspool", "#include <stdlib.h>\n" + includes + read((), "blocks.c"), **options)
    return ffi


if __name__ == "__main__":
    builder(sys.argv[1].split(":")).emit_c_code(sys.argv[2])
