"""What a disk may hold after a loss of power, by the log of record_writes.c.

A sync of a file makes its bytes and its size durable, a sync of a folder its names. Of what was done since, any part may
be there: of the writes any sectors, of the sizes the ones up to any moment, of the changes of a folder's names those up to
any moment or, harsher, any of them. What was not written reads as zeros. A rename is there as a whole or not at all.
"""
import collections
import os

SECTOR = 512
Event = collections.namedtuple("Event", "kind number path data")


def read_log(path):
    with open(path, "rb") as log:
        while line := log.readline():
            kind, number, name, length = line.split()
            yield Event(kind.decode(), int(number), log.read(int(name)).decode(), log.read(int(length)))


class File:
    def __init__(self, data=b""):
        self.durable, self.now, self.pending = data, bytearray(data), []

    def write(self, at, data):
        self.pending.append((at, bytes(data)))
        put(self.now, at, data)

    def resize(self, size):
        self.pending.append((size, None))
        cut(self.now, size)

    def sync(self):
        self.durable, self.pending = bytes(self.now), []

    def is_pending(self):
        return bool(self.pending)

    def state(self, how, chance):
        """The bytes: "none" of what is pending, "all", the "sizes" without the bytes, or "torn"."""
        if how != "torn":
            return {"none": self.durable, "all": bytes(self.now),
                    "sizes": self.durable[:len(self.now)].ljust(len(self.now), b"\0")}[how]
        share, data, sizes = chance.choice((0.1, 0.5, 0.9)), bytearray(self.durable), [len(self.durable)]
        for at, written in self.pending:
            sizes.append(at if written is None else max(sizes[-1], at + len(written)))
            if written is None:
                data[at:] = bytes(max(0, len(data) - at)) if chance.random() < share else data[at:]
                continue
            end = at + len(written)
            for start in range(at - at % SECTOR, end, SECTOR):
                if chance.random() < share:
                    first = max(start, at)
                    put(data, first, written[first - at:start + SECTOR - at])
        cut(data, chance.choice((sizes[-1], chance.choice(sizes))))
        return bytes(data)


def put(data, at, written):
    if len(data) < at:
        data.extend(bytes(at - len(data)))
    data[at:at + len(written)] = written


def cut(data, size):
    del data[size:]
    data.extend(bytes(size - len(data)))


class Folder:
    def __init__(self):
        self.durable, self.now, self.pending = {}, {}, []

    def change(self, names):
        """Names and what they name, None: nothing. All of them at once."""
        self.pending.append(names)
        self.now = named(self.now, [names])

    def sync(self):
        self.durable, self.pending = self.now, []

    def is_pending(self):
        return bool(self.pending) or any(what.is_pending() for what in self.now.values())

    def state(self, how, chance):
        """What the names name: with "none" of what is pending, "all", what was first, or "any"."""
        done = {"none": 0, "first": chance.randrange(len(self.pending) + 1)}.get(how, len(self.pending))
        return named(self.durable, [names for names in self.pending[:done] if how != "any" or chance.random() < 0.5])


def named(names, changes):
    for change in changes:
        names = {**names, **change}
    return {name: what for name, what in names.items() if what is not None}


class Disk:
    """What is below a folder, which is durable when it is read, and the events since."""

    def __init__(self, top):
        self.top, self.root = top, self.read(top)

    def read(self, path):
        if not os.path.isdir(path):
            with open(path, "rb") as file:
                return File(file.read())
        folder = Folder()
        folder.now = {name: self.read(f"{path}/{name}") for name in os.listdir(path)}
        folder.sync()
        return folder

    def find(self, path):
        what = self.root
        for name in os.path.relpath(path, self.top).split("/"):
            what = what if name == "." else what.now.get(name) if isinstance(what, Folder) else None
        return what

    def apply(self, event, ignored=None):
        """`ignored`: the type whose syncs are not done."""
        kind, number, path, data = event
        if kind in ("send", "mark"):
            return
        path = os.path.normpath(path)
        what, parent, name = self.find(path), self.find(os.path.dirname(path)), os.path.basename(path)
        if kind == "rename":
            other = os.path.normpath(data.decode())
            assert what is not None and os.path.dirname(other) == os.path.dirname(path), event[:3]
            parent.change({name: None, os.path.basename(other): what})
        elif kind == "mkdir":
            parent.change({name: Folder()})
        elif kind == "remove":
            parent.change({name: None})
        elif kind == "open":
            if what is None:
                parent.change({name: File()})
            elif number & os.O_TRUNC:
                what.resize(0)
        elif what is None:
            assert path.endswith(" (deleted)"), event[:3]
        elif kind == "write":
            what.write(number, data)
        elif kind == "size":
            what.resize(number)
        elif kind == "sync":
            if not isinstance(what, ignored or ()):
                what.sync()
        else:
            assert kind == "map" and path.endswith("-shm"), event[:3]

    def state(self, chance, names, data, only=""):
        """Path -> bytes, None for a folder. Below other folders than `only`, all is there."""
        found = {}

        def visit(path, folder, names, data):
            for name, what in folder.state(names, chance).items():
                chosen = (names, data) if (path + name).startswith(only) or only.startswith(path + name) else ("all", "all")
                if isinstance(what, Folder):
                    found[path + name] = None
                    visit(path + name + "/", what, *chosen)
                else:
                    found[path + name] = what.state(chosen[1], chance)
        visit("", self.root, names, data)
        return found


EXTREMES = [("none", "none"), ("all", "all"), ("all", "none"), ("all", "sizes"), ("none", "all")]


def states(disk, events, chance, tries, is_told, ignored, share, only):
    """Each different state of the disk after a share of the events, with the number of events that told something."""
    told, seen = 0, set()
    for event in events:
        told += is_told(event)
        disk.apply(event, ignored)
        if chance.random() > share:
            continue
        choices = EXTREMES + [(chance.choice(("first", "any", "all")), "torn") for _ in range(tries)]
        for names, data in choices if disk.root.is_pending() else EXTREMES[:1]:
            state = disk.state(chance, names, data, only)
            key = hash((told, frozenset(state.items())))
            if key not in seen:
                seen.add(key)
                yield told, state


def lay(state, folder):
    for path, data in sorted(state.items()):
        if data is None:
            os.mkdir(f"{folder}/{path}")
            continue
        with open(f"{folder}/{path}", "wb") as file:
            file.write(data)
