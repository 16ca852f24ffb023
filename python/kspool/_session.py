"""Sessions with the pool's server.

Threads: one call at a time uses a session; another one meanwhile raises RuntimeError, except abort(). Calls run without
the GIL. After a fork the session is the parent's: calls of the child fail, and its copy goes without a byte sent."""
import os
import re
import signal
from typing import Any, Callable, Iterable, Iterator, NamedTuple, cast

from ._handle import Handle, Path, Permission, Remote, check, decoded, encoded, fail, record_of
from ._kspool import ffi, lib


class PO(NamedTuple):
    """A record of the Metabase: the fields of docs/wire-protocol.md, in their order. A dsid of 0 is that of the
    data selection to which the PO is sent."""

    dsid: int = 0
    kind: int = 1
    origin: str = ""
    owner: int = 0
    group: int = 0
    client: str = ""
    policy: str = ""
    image: str = ""
    folder: str = ""
    name: str = ""
    digest: str = ""
    type: str = "f"
    format: str = ""
    label: str = ""
    application: str = ""
    size: int = 0
    mtime: int = 0
    ctime: int = 0
    backuptime: int = 0
    expires: int = 0
    segments: int = 0
    newsegments: int = 0
    dcid: int = 0
    mode: int = 0
    flags: int = 0
    comment: str = ""

    @classmethod
    def parse(cls, line: str) -> "PO":
        """The PO of a line that the server sent."""
        return cast(PO, _fields(cls, line, "|"))

    def line(self) -> str:
        """The line of the PO, as sent to the server."""
        line = "|".join(map(str, map(_known, self._fields, self, self.__annotations__.values())))
        if line.count("|") != len(self) - 1 or re.search("[\0-\x1f\x7f]", line):
            raise ValueError(f"a PO with | or a control character in a text: {line!r}")
        return line


Node = NamedTuple("Node", [("type", str), ("size", int), ("mtime", int), ("path", str)])
Image = NamedTuple("Image", [("datetime", int), ("client", str), ("policy", str), ("parentid", int),
                             ("imagename", str), ("dofp", str), ("dcid", int), ("flags", int)])
Retention = NamedTuple("Retention", [("retention", int), ("wormflags", int), ("flags", int), ("time", int),
                                     ("text", str)])
Event = NamedTuple("Event", [("code", int), ("http_status", int), ("attempts", int), ("request_id", str | None),
                             ("severity", str | None), ("server_address", str | None),
                             ("source_application", str | None), ("description", str | None)])
Statistics = NamedTuple("Statistics", [("requests", int), ("attempts", int), ("connections", int), ("bytes_sent", int),
                                       ("bytes_received", int), ("microseconds", int), ("latencies", tuple[int, ...])])

# The options of a session, and what their values are.
OPTIONS: dict[str, type] = {"login": str, "password": str, "application": str, "route_table_dir": str, "spa_url": str,
                            "mbs_url": str, "option_133": int, "ws_7": int, "ws_8": int}
Value = str | int


def _fields(kind: Any, line: str, separator: str, most: int = -1) -> Any:
    """The record of a line that was received."""
    try:
        fields = zip(kind.__annotations__.values(), line.split(separator, most), strict=True)
        return kind(*(convert(text) for convert, text in fields))
    except ValueError:
        fail(lib.CR_STATUS_CORRUPT, f"no {kind.__name__}: {line!r}")


def _known(name: str, value: Any, kind: type | None) -> Any:
    """A value of the right type: cffi would accept any C pointer as a text."""
    if kind is int and hasattr(value, "__index__"):
        return int(value)
    if kind is not str or not isinstance(value, str):
        raise TypeError(f"{name}={value!r}: " + (f"wants {kind.__name__}" if kind else "there is no such name"))
    return value


def _options(options: dict[str, Value]) -> tuple[Any, list[Any]]:
    """Option records, and the texts that they point to."""
    values = [encoded(_known(name, given, OPTIONS.get(name))) for name, given in options.items()]
    values = [ffi.new("char[]", value) if isinstance(value, bytes) else value for value in values]
    records = [{"code": getattr(lib, "KS_OPT_" + name.removeprefix("option_").upper()),
                "value": {"text" if OPTIONS[name] is str else "number": value}} for name, value in zip(options, values)]
    return ffi.new("KSOption[]", records), values


def _filter(criteria: dict[str, Value]) -> tuple[Any, list[Any]]:
    """A filter, and the texts that it points to. Criterion k is for field k of a PO."""
    record, texts = ffi.new("MBPOFilter *", {"size": ffi.sizeof("MBPOFilter")}), []
    check(lib.MBPOFilterInit(record))
    for name, given in criteria.items():
        value = encoded(_known(name, given, PO.__annotations__.get(name)))
        if isinstance(given, str) and re.search("[\0-\x1f\x7f|]", given):
            raise ValueError(f"{name}={given!r}: has | or a control character")
        criterion = f"criterion{PO._fields.index(name) + 1}"
        kind = dict(ffi.typeof("MBPOFilter").fields)[criterion].type
        if kind.kind == "array" and len(value) >= kind.length or kind.cname == "signed char" and len(value) != 1:
            raise ValueError(f"{name}={given!r}: " + ("too long" if kind.kind == "array" else "wants one byte"))
        if kind.kind == "pointer":
            texts.append(value := ffi.new("char[]", value))
        setattr(record, criterion, ord(value) if kind.cname == "signed char" else value)
    return record, texts


def _po_list(name: str, doc: str) -> Callable[["Session", int, Iterable[PO | str]], None]:
    """A method that sends POs."""
    def send(self: "Session", dataselection: int, pos: Iterable[PO | str]) -> None:
        if isinstance(pos, (str, PO)):
            raise TypeError("a list of POs is wanted, not one")
        if text := "\n".join(po.line() if isinstance(po, PO) else po for po in pos):
            self._call(getattr(lib, name), dataselection, text)
    send.__doc__ = doc
    return send


def _lines(cursor: Any, line: Any) -> Iterator[str]:
    yield decoded(line[0])
    while not check(lib.MBPOStringFindNext(cursor, line), lib.CR_STATUS_NOT_FOUND):
        yield decoded(line[0])


def _check(session: Any, status: int, *results: int) -> None:
    """check(), with the server's own description if there is one."""
    if check(status, status) not in (lib.CR_STATUS_OK, *results):
        event = ffi.new("MBEvent *", {"size": ffi.sizeof("MBEvent")})
        lib.MBLastEvent(session, event)
        text = decoded(event.description) if event.description else "an empty answer" if event.httpStatus == 200 else ""
        if status == event.eventCode:  # some operations return it as it is; mb.h tells what it means
            raise (Permission if "permission" in text.lower() else Remote)(status, text)
        fail(status, text if status in (lib.CR_STATUS_REMOTE_ERROR, lib.CR_STATUS_PERMISSION_DENIED) else "")


class Session(Handle):
    """A session with one server. Options are the texts login, password, application, route_table_dir, spa_url and
    mbs_url, and the numbers option_133, ws_7 and ws_8: with login and password it can send requests."""

    def __init__(self, config: Path | None = None, **options: Value) -> None:
        """Reads the agent configuration `config`, or the default one. Nothing is sent."""
        self._user: dict[int, object] = {}  # key 0: the call that uses the session
        records, texts = _options(options)
        path = ffi.NULL if config is None else encoded(os.fsencode(config))
        super().__init__(lib.MBCreateWithAgentCfg(0, records, len(records), path), lib.MBShutdown)

    def _use(self, work: Callable[[Any], Any]) -> Any:
        """Calls `work` with the C session, which no other call can use meanwhile, and close() cannot release."""
        me = object()
        try:
            if self._user.setdefault(0, me) is not me:
                raise RuntimeError("the session is in use: it serves one call at a time")
            session = self._open()
            if signal.getsignal(signal.SIGINT) is signal.default_int_handler:  # which raises in any case
                lib.watch(session)
            return work(session)
        finally:  # signal handlers, which may raise, run after calls only: the use ends before the first one
            if self._user == {0: me}:
                del self._user[0]
            lib.watch(ffi.NULL)

    def _call(self, function: Any, *arguments: Any) -> None:
        self._use(lambda session: _check(session, function(session, *map(encoded, arguments))))

    def _text(self, function: Any, *arguments: Any, after: tuple[Any, ...] = ()) -> str:
        """The text that an operation returns."""
        place = ffi.new("char **")
        self._call(function, *arguments, place, *after)
        return decoded(ffi.gc(place[0], lib.free)) if place[0] != ffi.NULL else ""

    def abort(self) -> None:
        """Ends the current request, which then raises Aborted. No effect without a request, or after close(). For other
        threads; a signal handler can end only requests of other threads, since Python runs handlers between calls."""
        if (session := self._object) is not None:
            check(lib.MBAbort(session))

    def set_options(self, **options: Value) -> None:
        """Changes options, all of them or none."""
        records, texts = _options(options)
        self._call(lib.MBOptionsSet, records, len(records))

    def keep_alive(self, interval: int = 0) -> None:
        """Sends a keep-alive if the session was idle for `interval` seconds."""
        self._call(lib.MBKeepAlive, interval)

    def set_timeout(self, seconds: int) -> None:
        """Sets the response time-out of later requests."""
        self._call(lib.MBSetResponseTimeOut, seconds)

    def enable_resiliency(self, seconds: int) -> int:
        """Sets how long requests are retried. A time-out that was set before stays, and is returned."""
        return int(self._use(lambda session: lib.MBEnableResiliency(session, seconds)))

    def _told(self, function: Any, ctype: str, *skipped: str) -> Any:
        record = ffi.new(ctype + " *", {"size": ffi.sizeof(ctype)})
        return self._use(lambda session: check(function(session, record)) or record_of(record, "size", *skipped))

    def last_event(self) -> Event:
        """Describes the last request, and the event that the server reported in it."""
        return Event(*self._told(lib.MBLastEvent, "MBEvent", "reserved"))

    def statistics(self) -> Statistics:
        """The session's statistics so far."""
        return Statistics(*self._told(lib.MBGetStatistics, "MBStatistics"))

    def time(self) -> int:
        """The server's time, in seconds since 1970."""
        seconds = ffi.new("uint32_t *")
        self._call(lib.MBGetTime, seconds)
        return int(seconds[0])

    def mkdir(self, path: str) -> None:
        """Creates a directory."""
        self._call(lib.MBDirCreate, path)

    def copy(self, source: str, destination: str, recursive: bool = False) -> None:
        """Copies a file, or a directory with its contents."""
        self._call(lib.MBFileCopy, source, destination, recursive)

    def move(self, source: str, destination: str, recursive: bool = False) -> None:
        """Renames a file or a directory."""
        self._call(lib.MBFileMove, source, destination, recursive)

    def delete(self, path: str, recursive: bool = False) -> None:
        """Deletes a file or an empty directory, or a directory with its contents."""
        self._call(lib.MBFileDelete, path, recursive)

    def listdir(self, path: str, recursive: bool = False) -> list[Node]:
        """The entries of a directory, or of the tree below it."""
        text = self._text(lib.MBDirList, path, after=(ffi.NULL, recursive))
        return [_fields(Node, line, " ", 3) for line in text.split("\n") if line]

    import_pos = _po_list("MBPOImport", "Imports POs into a data selection.")
    add_pos = _po_list("MBPOAddList", "Adds POs to a data selection; one that exists is replaced.")
    add_new_pos = _po_list("MBPOZELTAddList", "Adds POs to a data selection; one that exists stays as it is.")
    expire_pos = _po_list("MBPOExpire", "Deletes POs from a data selection.")

    def find_lines(self, dataselection: int, **criteria: Value) -> Iterator[str]:
        """The POs that match, as lines. Criteria have the names of the fields of PO. Texts match as in a shell, numbers
        exactly. These match anything: 0 for dsid and kind, -1 for other numbers, "" for origin, "*" for other texts."""
        record, texts = _filter(criteria)
        line = ffi.new("char **")

        def first(session: Any) -> Any:
            cursor = lib.MBPOStringFindFirst(session, dataselection, record, line, ffi.NULL)
            _check(session, lib.CR_STATUS_OK if cursor else lib.lastStatus(), lib.CR_STATUS_NOT_FOUND)
            return cursor

        cursor = self._use(first)
        return _lines(ffi.gc(cursor, lib.MBPOFindClose), line) if cursor else iter(())

    def find(self, dataselection: int, **criteria: Value) -> Iterator[PO]:
        """The POs that match. The complete answer is in memory, so the session may be used meanwhile."""
        return map(PO.parse, self.find_lines(dataselection, **criteria))

    def set_last_image(self, dsid: int, client: str, policy: str, imagename: str, datetime: int, *, parentid: int = 0,
                       flags: int = 0) -> None:
        """Records the last image."""
        self._call(lib.MBSetLastImageV2, dsid, client, policy, parentid, datetime, imagename, flags)

    def last_images(self, dsid: int, client: str = "", policy: str = "", *, parentid: int = -1,
                    datetime: int = 0) -> list[Image]:
        """The images of a client and a policy, newest first; empty texts, -1 and 0 match any. Remote if none does."""
        text = self._text(lib.MBGetLastImages, dsid, client, policy, parentid, datetime)
        return [_fields(Image, line, "|") for line in text.split("\n") if line]

    def delete_image(self, dsid: int, client: str, policy: str, imagename: str, flags: int = 0) -> None:
        """Deletes an image's record."""
        self._call(lib.MBDeleteImage, dsid, client, policy, imagename, flags)

    def set_retention(self, dsid: int, client: str, policy: str, imagename: str, retention: int, *, flags: int = 0,
                      wormflags: int = 0) -> None:
        """Sets an image's retention."""
        self._call(lib.MBSetImageRetention, dsid, client, policy, imagename, flags, wormflags, retention)

    def retention(self, dsid: int, client: str, policy: str, imagename: str) -> Retention:
        """An image's retention. Remote if none was set."""
        record = ffi.new("MBImageRetentionInfo *")
        self._call(lib.MBGetImageRetention, dsid, client, policy, imagename, record)
        return Retention(*record_of(record))

    def image_policy(self, dsid: int, client: str, imagename: str) -> str:
        """The policy of an image."""
        return self._text(lib.MBFindImagePolicy, dsid, client, imagename)

    def hvx_tag(self, dataselection: int) -> str:
        """The HVX tag of a data selection, empty without one."""
        return self._text(lib.MBGetHVXTag, dataselection, ffi.new("int32_t *"))


def set_query_retries(count: int, step: int = 120) -> None:
    """Sets how often sessions of this process retry a failed query (3 times unless set), and how many seconds each
    retry adds to the response time-out. Call it before threads are started."""
    lib.MBSetRetryCount(count)
    lib.MBSetTimeOut(step)
