"""The fingerprint cache.

Threads: calls run without the GIL, and a cache serves one thread at a time. Calls from other threads wait for the lock
of the cache; other caches and all other Python code continue.

1. `_lock` is held during each call that uses the cache. It is reentrant, because a signal handler may call the cache
   again on the same thread; so no call stores results where a nested call writes.
2. The buffers of a batch are exported during the call, so that nobody can resize or free them.
3. `_moves` is another object after each call after which a walk could tell of entries that are gone.
4. In a child of fork() nobody uses a cache that another thread was using: that call may be half done for good."""
import os
import threading
import weakref
from typing import Any, Iterator, NamedTuple, overload

from ._handle import Handle, Path, check, encoded, fail, record_of
from ._kspool import ffi, lib

MD5, SHA1_16, SHA256 = map(int, (lib.CR_FP_MD5, lib.CR_FP_SHA1_16, lib.CR_FP_SHA256))
WIDTHS = {kind: 32 if kind == SHA256 else 16 for kind in range(256)}

ARRAYS, PLACE = {4: ffi.typeof("uint32_t[]"), 8: ffi.typeof("uint64_t[]")}, ffi.typeof("uint64_t *")
Buffer = Any  # an object with the buffer protocol, which has a type from Python 3.12 on only, or None for none
Kind = int | None  # of fingerprints; None: that of the cache
Entry = NamedTuple("Entry", [("digest", bytes), ("value", int), ("type", int)])
CacheStats = NamedTuple("CacheStats", [("cache_size", int), ("cached_items", int), ("hits", int), ("misses", int),
                                       ("free_list_count", int), ("page_count", int), ("nodes_available", int),
                                       ("lock_pages", int), ("area_size", int), ("bits", int), ("node_size", int)])
CACHES: "weakref.WeakSet[Cache]" = weakref.WeakSet()


def _width(kind: int) -> int:
    if kind not in WIDTHS:
        raise ValueError(f"fingerprint type {kind} is not within 0 to 255")
    return WIDTHS[kind]


def _numbers(buffer: Buffer, size: int, count: int, writable: bool) -> Any:
    """A C array over a buffer of `count` unsigned numbers of `size` bytes."""
    if buffer is None:
        return ffi.NULL
    view = memoryview(buffer)
    if view.itemsize != size or view.format.lstrip("@=<") not in ("I", "L", "Q") or view.nbytes != count * size:
        raise ValueError(f"{count} unsigned {size * 8}-bit numbers are needed, not {view.nbytes} bytes '{view.format}'")
    return ffi.from_buffer(ARRAYS[size], view, require_writable=writable)


class Hold(Handle):
    """A cache file that is held: until close(), no other process and no other hold replaces the file."""

    def __init__(self, path: Path) -> None:
        place = ffi.new("KSCacheHold **")
        check(lib.KSCacheHoldFile(encoded(os.fsencode(path)), place))
        owner, getpid, release = os.getpid(), os.getpid, lib.KSCacheReleaseFile
        # A child of fork() has a copy, which must not release the hold of the parent.
        super().__init__(place[0], lambda hold: release(hold) if getpid() == owner else None)


class Cache(Handle):
    """Which blocks of data are known, and with which value of 64 bits.

    Digests are bytes-like. `type` is the fingerprint type: 3 for 32 bytes, any other for 16; a call may override it.
    A batch takes contiguous digests: bytes, a memoryview, or rows of an array of uint8; its values are uint64, its
    statuses uint32. exists(), exists_batch() and `in` raise reference counts, by which limit() chooses what to keep.
    """

    def __init__(self, expected: int = 1_000_000, *, type: int = SHA256, lock_pages: bool = False) -> None:
        """An empty cache for about `expected` entries. It accepts more, but gets slower."""
        _width(type)
        self.type, self._lock, self._moves = type, threading.RLock(), object()
        super().__init__(lib.KSCacheCreate(lib.KSCacheAreaFor(expected), lib.KSCacheBitsFor(expected), lock_pages,
                                           ffi.NULL, ffi.NULL), lib.KSCacheDestroy)
        CACHES.add(self)

    def _call(self, function: Any, digest: Buffer, type: Kind, *more: Any, result: int) -> bool:
        """Makes a single call. False if the status was `result`."""
        kind = self.type if type is None else type
        key = digest if isinstance(digest, bytes) else memoryview(digest).tobytes()
        if WIDTHS.get(kind) != len(key):
            raise ValueError(f"a digest of {len(key)} bytes: those of type {kind} have {_width(kind)}")
        with self._lock:
            return not check(function(self._object or self._open(), key, kind, *more), result)

    def _run(self, function: Any, *arguments: Any, moves: bool = False) -> None:
        with self._lock:
            self._moves = object() if moves else self._moves
            check(function(self._open(), *arguments))

    def add(self, digest: Buffer, value: int, type: Kind = None) -> bool:
        """Adds a digest. False if it is known already: it keeps its value, and its reference count is raised."""
        return self._call(lib.KSCacheAdd, digest, type, value, ffi.NULL, result=lib.CR_STATUS_EXISTS)

    def _find(self, function: Any, digest: Buffer, type: Kind, default: int | None = None) -> int | None:
        value = ffi.new(PLACE)
        return value[0] if self._call(function, digest, type, value, result=lib.CR_STATUS_NOT_FOUND) else default

    @overload
    def get(self, digest: Buffer, default: None = None, type: Kind = None) -> int | None: ...
    @overload
    def get(self, digest: Buffer, default: int, type: Kind = None) -> int: ...
    def get(self, digest: Buffer, default: int | None = None, type: Kind = None) -> int | None:
        """The value of a digest, or `default`. Nothing is counted."""
        return self._find(lib.KSCacheFetch, digest, type, default)

    def exists(self, digest: Buffer, type: Kind = None) -> int | None:
        """The value of a digest, or None, by a presence test, which raises the reference count."""
        return self._find(lib.KSCacheExists, digest, type)

    def __contains__(self, digest: Buffer) -> bool:
        return self.exists(digest) is not None

    def __getitem__(self, digest: Buffer) -> int:
        value = self.get(digest)
        return fail(lib.CR_STATUS_NOT_FOUND) if value is None else value

    def delete(self, digest: Buffer, type: Kind = None) -> None:
        """Removes a digest. NotFound, which is a KeyError, if it is not known."""
        with self._lock:
            self._call(lib.KSCacheDelete, digest, type, result=lib.CR_STATUS_OK)
            self._moves = object()

    __delitem__ = delete

    def _batch(self, batch: int, digests: Buffer, type: Kind, values: Buffer, statuses: Buffer) -> int:
        """Makes a batch in one C call. Returns the number of statuses 0."""
        kind = self.type if type is None else type
        width, view = _width(kind), memoryview(digests)
        if view.itemsize != 1 or view.nbytes % width or (view.shape or ())[1:] not in ((), (width,)):
            raise ValueError(f"digests of type {kind} are rows of {width} bytes, not {view.shape} of '{view.format}'")
        keys, count = ffi.from_buffer("uint8_t[]", view), view.nbytes // width
        numbers = _numbers(values, 8, count, batch != lib.BATCH_ADD), _numbers(statuses, 4, count, True)
        with self._lock:
            done: int = lib.runBatch(self._open(), batch, keys, count, kind, *numbers)
        return done if done >= 0 else fail(-done)

    def add_batch(self, digests: Buffer, values: Buffer, statuses: Buffer = None, *, type: Kind = None) -> int:
        """add() for each digest. Returns the number of new ones: their status is 0, that of known ones 1."""
        return self._batch(lib.BATCH_ADD, digests, type, memoryview(values), statuses)

    def exists_batch(self, digests: Buffer, values: Buffer = None, statuses: Buffer = None, *,
                     type: Kind = None) -> int:
        """exists() for each digest. Returns the number of known ones, with status 0. Others have 2 and no value."""
        return self._batch(lib.BATCH_EXISTS, digests, type, values, statuses)

    def fetch_batch(self, digests: Buffer, values: Buffer = None, statuses: Buffer = None, *, type: Kind = None) -> int:
        """get() for each digest; otherwise as exists_batch()."""
        return self._batch(lib.BATCH_FETCH, digests, type, values, statuses)

    def entries(self) -> Iterator[Entry]:
        """All entries, in the order of memory. Entries added during the walk may be visited or not. After delete(),
        limit() or reset() the next step raises RuntimeError, unless the walk was over."""
        cursor, block, moves = ffi.new("KSCacheCursor *"), ffi.new("EntryBlock *", {"more": 1}), self._moves
        while block.more:
            self._run(lib.nextEntries, cursor, block)
            digests, count, more = bytes(ffi.buffer(block.digests)), block.count, block.more
            values, types = ffi.unpack(block.values, count), ffi.unpack(block.types, count)
            for at, value, kind in zip(range(0, len(digests), 32), values, types):
                yield Entry(digests[at:at + (32 if kind == SHA256 else 16)], value, kind)
                if self._moves is not moves and (more or at + 32 < count * 32):
                    raise RuntimeError("entries of the cache went or moved during the walk")

    def __iter__(self) -> Iterator[bytes]:
        return (entry.digest for entry in self.entries())

    def __len__(self) -> int:
        return self.stats().cached_items

    def stats(self) -> CacheStats:
        """Counters and settings, as KSCacheStatsRecord has them; sizes are in bytes."""
        record = ffi.new("KSCacheStatsRecord *")
        self._run(lib.KSCacheStats, record)
        return CacheStats(*record_of(record))

    def limit(self, mib: int) -> None:
        """Limits the pages to `mib` MiB: drops entries with the lowest reference counts, and compacts. 0: no limit."""
        self._run(lib.KSCacheCheck, mib, moves=True)

    def reset(self) -> None:
        """Removes all entries."""
        self._run(lib.KSCacheReset, moves=True)

    def _file(self, function: Any, path: Path, *more: Any) -> int:
        count = ffi.new("uint64_t *")
        self._run(function, encoded(os.fsencode(path)), *more, count)
        return int(count[0])

    def load(self, path: Path) -> int:
        """Adds the entries of a file, and returns their number. A damaged file adds none."""
        return self._file(lib.KSCacheLoad, path)

    def save(self, path: Path) -> int:
        """Writes a file, and returns the number of entries. Unlike replace(), does not report write errors."""
        return self._file(lib.KSCacheSave, path)

    def replace(self, path: Path, hold: Hold | None = None) -> int:
        """Replaces a file so that a valid one exists at any time, and returns the number of entries."""
        return self._file(lib.KSCacheReplaceFile, path, hold._open() if hold else ffi.NULL)


def _after_fork() -> None:
    """In a child, whose only thread is the one that forked: gives up the caches that others were using."""
    for cache in CACHES:
        if cache._lock.acquire(blocking=False):
            cache._lock.release()
        else:
            cache._lock, cache._lost = threading.RLock(), "another thread used the cache when the process forked"
            cache._object = cache._object and ffi.gc(cache._object, None)  # what is half changed is not released


os.register_at_fork(after_in_child=_after_fork)
