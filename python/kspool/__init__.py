"""The client of a backup storage pool: Cache tells which blocks of data are known, Session speaks to the pool's
server, sandbox() is a server for tests. Failures of the library raise Error or a subclass of it."""
from ._cache import MD5, SHA1_16, SHA256, Cache, CacheStats, Entry, Hold
from ._handle import (Aborted, Busy, Corrupt, Error, NoMemory, NotFound, Permission, Remote, Timeout, Unreachable,
                      set_log)
from ._kspool import ffi as _ffi
from ._kspool import lib as _lib
from ._sandbox import Sandbox, sandbox
from ._session import PO, Event, Image, Node, Retention, Session, Statistics

__all__ = ["Aborted", "Busy", "Cache", "CacheStats", "Corrupt", "Entry", "Error", "Event", "Hold", "Image", "MD5",
           "NoMemory", "Node", "NotFound", "PO", "Permission", "Remote", "Retention", "SHA1_16", "SHA256", "Sandbox",
           "Session", "Statistics", "Timeout", "Unreachable", "sandbox", "set_log", "set_query_retries"]
__version__ = str(_ffi.string(_lib.kspoolVersion()).decode())


def set_query_retries(count: int, step: int = 120) -> None:
    """How often sessions of this process repeat a query that failed (3 times unless set), and how many seconds each
    retry adds to the response time-out. To be called before threads run."""
    _lib.MBSetRetryCount(count)
    _lib.MBSetTimeOut(step)
