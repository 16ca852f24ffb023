#!/usr/bin/env python3
"""Tells which files of a folder are known, records them on a pool that lasts as long as this program, and asks the
pool for those of a pattern.

    ./known.py FOLDER PATTERN
"""
import array
import hashlib
import pathlib
import sys

import kspool


def main(folder: str, pattern: str) -> None:
    paths = sorted(path for path in pathlib.Path(folder).iterdir() if path.is_file())
    digests = b"".join(hashlib.sha256(path.read_bytes()).digest() for path in paths)

    cache = kspool.Cache(100_000)
    # One call for all of them. The digests lie side by side, and each has a value: here its number.
    new = cache.add_batch(digests, array.array("Q", range(len(paths))))
    print(f"{len(paths)} files, {len(paths) - new} of them again")

    with kspool.sandbox() as pool, pool.session() as session:
        session.add_pos(1, (kspool.PO(client="me", image="first", folder=folder, name=path.name, type="f",
                                      digest=digests[32 * at:32 * at + 32].hex(), size=path.stat().st_size)
                            for at, path in enumerate(paths)))
        count = 0
        for po in session.find(1, name=pattern):
            where = cache[bytes.fromhex(po.digest)]
            print(f"{po.name}: {po.size} bytes, first seen as {paths[where].name}")
            count += 1
        print(f"{count} found")


try:
    main(*sys.argv[1:])
except (kspool.Error, OSError) as error:
    sys.exit(f"known: {error}")
