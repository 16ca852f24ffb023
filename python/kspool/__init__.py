"""The client of a backup storage pool: Cache stores which blocks of data are known, Session sends requests to the
pool's server, sandbox() is a server for tests. Failures of the library raise Error or a subclass of it."""
from ._cache import MD5, SHA1_16, SHA256, Cache, CacheStats, Entry, Hold
from ._handle import (Aborted, Busy, Corrupt, Error, NoMemory, NotFound, Permission, Remote, Timeout, Unreachable,
                      decoded as _decoded, set_log)
from ._kspool import lib as _lib
from ._sandbox import Sandbox, sandbox
from ._session import PO, Event, Image, Node, Retention, Session, Statistics, set_query_retries

__all__ = ["Aborted", "Busy", "Cache", "CacheStats", "Corrupt", "Entry", "Error", "Event", "Hold", "Image", "MD5",
           "NoMemory", "Node", "NotFound", "PO", "Permission", "Remote", "Retention", "SHA1_16", "SHA256", "Sandbox",
           "Session", "Statistics", "Timeout", "Unreachable", "sandbox", "set_log", "set_query_retries"]
__version__ = _decoded(_lib.kspoolVersion())
