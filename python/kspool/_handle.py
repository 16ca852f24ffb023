"""Errors, and what caches, holds and sessions have in common."""
import os
from typing import Any, Callable, Literal, NoReturn, Self

from ._kspool import ffi, lib

Path = str | bytes | os.PathLike[str]


class Error(Exception):
    """A failure that the library reported: its number `status`, a `text` for people, the system's `errno` or None."""

    def __init__(self, status: int, text: str = "") -> None:
        self.status, self.text = status, text or decoded(lib.CRStatusToStringA(status))
        self.errno = status - 1000 if 1000 <= status < 2000 else None
        super().__init__(status, self.text)

    def __str__(self) -> str:
        return f"{self.text} ({self.status})"


class NotFound(Error, KeyError): """A fingerprint is not in the cache."""
class Busy(Error): """A cache file is held by another process, or by another hold."""
class Corrupt(Error, ValueError): """A file is no cache file or damaged, or the server's data are malformed."""
class NoMemory(Error, MemoryError): """Memory is short."""
class Permission(Error): """The server refused the request for lack of a permission."""
class Remote(Error): """The server reported an error, which Session.last_event() describes, or had nothing."""
class Unreachable(Error): """There was no connection to the server, and nothing was sent."""
class Timeout(Error): """There was no connection, or no complete answer, in time."""
class Aborted(Error): """Session.abort() ended the request: it was carried out once or not at all."""


# The statuses that raise more than Error.
KINDS: dict[int, type[Error]] = {
    lib.CR_STATUS_NOT_FOUND: NotFound, lib.CR_STATUS_BUSY: Busy, lib.CR_STATUS_CORRUPT: Corrupt,
    lib.CR_STATUS_BAD_HANDLE: Corrupt, lib.CR_STATUS_NO_MEMORY: NoMemory, lib.CR_STATUS_SYSTEM_BASE + 12: NoMemory,
    lib.CR_STATUS_PERMISSION_DENIED: Permission, lib.CR_STATUS_REMOTE_ERROR: Remote, lib.CR_STATUS_BAD_RESPONSE: Remote,
    lib.WS_STATUS_NO_SERVER: Unreachable, lib.WS_STATUS_PLAINTEXT: Unreachable, lib.WS_STATUS_NO_CONNECT: Unreachable,
    lib.WS_STATUS_TLS: Unreachable, lib.WS_STATUS_TIMED_OUT: Timeout, lib.WS_STATUS_CONNECT_TIMED_OUT: Timeout,
    lib.WS_STATUS_ABORTED: Aborted}


Log = Callable[[int, int, str], object]
_log: Log | None = None


def set_log(log: Log | Literal[False] | None) -> None:
    """Sends messages of the library to `log(level, status, text)`, with levels as in `logging`; to nowhere (False);
    or to standard error, the default (None). The log is called at the end of the call that caused the messages, and
    its exceptions are raised there."""
    global _log
    check(lib.sendMessages(lib.TO_PYTHON if log else lib.TO_STDERR if log is None else lib.TO_NOBODY))
    _log = log or None


def hand_over() -> None:
    """Passes queued messages to the log."""
    entries, message = [], lib.takeMessages() if _log else ffi.NULL
    while message != ffi.NULL:
        entries.append((message.level, message.status, decoded(message.text)))
        message, _ = message.next, lib.free(message)
    while _log and entries:
        _log(*entries.pop())


def fail(status: int, text: str = "") -> NoReturn:
    hand_over()
    raise KINDS.get(status, Error)(status, text)


def check(status: int, *results: int) -> int:
    """Raises the exception of a status that is neither 0 nor one of the results."""
    if _log:
        hand_over()
    return status if not status or status in results else fail(status)


def encoded(value: Any) -> Any:
    """A text for C; other values as they are. Surrogate escapes stand for bytes that are not UTF-8."""
    data = value.encode("utf-8", "surrogateescape") if isinstance(value, str) else value
    if isinstance(data, bytes) and b"\0" in data:
        raise ValueError("a text with a NUL in it")
    return data


def decoded(text: Any) -> str:
    return str(ffi.string(text).decode("utf-8", "surrogateescape"))


def record_of(record: Any, *skipped: str) -> list[Any]:
    """The fields of a C record, in its order: numbers, texts or None, tuples of numbers."""
    def value_of(value: Any) -> Any:
        if not isinstance(value, ffi.CData):
            return value
        text = ffi.typeof(value).item.cname == "char"
        return None if value == ffi.NULL else decoded(value) if text else tuple(value)

    return [value_of(getattr(record, name)) for name, _ in ffi.typeof(record).item.fields if name not in skipped]


class Handle:
    """Owns a C object. The object is released with the last reference to it. A call in another thread has a reference,
    so close() during such a call is safe: the object is released when the call returns."""

    _lost = ""  # why the object may not be used although nobody closed it

    def __init__(self, pointer: Any, release: Any) -> None:
        if pointer == ffi.NULL:
            fail(lib.lastStatus())
        self._object: Any = ffi.gc(pointer, release)

    def _open(self) -> Any:
        if self._object is None:
            raise RuntimeError(self._lost) if self._lost else ValueError(f"the {type(self).__name__.lower()} is closed")
        return self._object

    def close(self) -> None:
        """Releases the object; a second call has no effect. All other calls raise ValueError afterwards."""
        self._object = None

    def __enter__(self) -> Self:
        self._open()
        return self

    def __exit__(self, *_: object) -> None:
        self.close()
