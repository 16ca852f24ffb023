#!/usr/bin/env python3
"""Random calls of every function of mb.h beside plain maps of what a pool holds and a plain record of the session,
while calls below the library fail at random. After each call:

1. When nothing failed, status, slot and outputs are those that the model tells.
2. When something failed, they are these too, or the status names the failure, the outputs are what mb.h says of
   failures, and session and configuration have not changed.
3. The pool holds what the model tells; after a failed change, what it held before or what it was to hold. After a
   status that promises that nothing was sent it holds what it held before.
4. At the end of each part nothing is left of what was allocated.

Usage: session_model_test.py TORTURE_PROGRAM [CALLS [tls]]   KSPOOL_TEST_SEED=n repeats the choices."""
import os
import random
import re
import subprocess
import sys
from types import SimpleNamespace

CALLS, PART, CLOCK, SHOWN = int(sys.argv[2]) if len(sys.argv) > 2 else 4000, 500, "1700000000", 1000
SEED = int(os.environ.get("KSPOOL_TEST_SEED") or random.randrange(2**32))
HEADER = os.path.dirname(os.path.abspath(__file__)) + "/../../include/mb.h"
HEAD = ("dsid|kind|origin|owner|group|client|policy|image|folder|name|digest|type|format|label|application|size|mtime|ctime|"
        "backuptime|expires|segments|newsegments|dcid|mode|flags|comment\nint|int|text|int|int|text|text|text|text|text|text|"
        "char|text|text|text|long|long|long|long|long|long|long|long|int|int|text\n")
HTTP = {0: 200, 10001: 401, 10011: 404, 10012: 409, 10013: 409, 10014: 409, 10015: 409, 10016: 409, 10021: 404, 10022: 400,
        10023: 404}
NO_ENTRY, EXISTS, NOT_EMPTY, NEEDS_RECURSIVE, INTO_ITSELF, NO_SELECTION, BAD_PO, NO_IMAGE = (
    10011, 10012, 10014, 10015, 10016, 10021, 10022, 10023)
UNSENT = {2001, 2002, 2003, 2004, 2007, 2010}
FAILURES = {10, 22, 1012, *range(2000, 2011)}
rng = random.Random(SEED)
any_of = lambda *these: rng.choice(these)
number = lambda limit: str(rng.randrange(limit))
selection = lambda: any_of("1", "2", "1", "2", "1", "2", "1", "2", "0")
path = lambda: "".join(any_of("/a", "/b") for _ in range(any_of(1, 1, 2, 2, 3)))
image_key = lambda: (selection(), any_of("c", "c", "k"), any_of("p", "q"), any_of("i", "i", "j"))


def quoted(text):
    if not text:
        return "NULL"
    shown = text.replace("\n", "\\n")
    return f'"{shown}"' if len(text) <= SHOWN else f'"{shown[:5]}..." of {len(text)}'


def po_line(key, size):
    return f"{key[0]}|1||0|0|{key[3]}|p|i|{key[1]}|{key[2]}|d|f||||{size}|0|0|0|0|0|0|0|0|0|"


class Pool:
    """What a server has. Every entry is a directory; each image has a time of its own."""

    def __init__(self):
        self.entries, self.pos, self.images = set(), {}, {}

    def has(self, at):
        return at == "/" or at in self.entries

    def below(self, at, deep=True):
        prefix = at.rstrip("/") + "/"
        names = sorted(entry[len(prefix):] for entry in self.entries if entry.startswith(prefix))
        return [name for name in names if deep or "/" not in name]

    def occupied(self, at):
        return EXISTS if self.has(at) else 0 if self.has(os.path.dirname(at)) else NO_ENTRY

    def copy(self, source, target):
        self.entries |= {target} | {f"{target}/{name}" for name in self.below(source)}

    def remove(self, at):
        self.entries -= {at} | {f"{at}/{name}" for name in self.below(at)}

    def listing(self, at, deep):
        text = "".join(f"d 0 {CLOCK} {name}\n" for name in self.below(at, deep))
        return f", listing {quoted(text)}, length {len(text) + 1 if text else 0}"

    def lines(self, of, client):
        return [po_line(key, size) for key, size in sorted(self.pos.items()) if key[0] == of and client in ("*", key[3])]

    def found(self, of, client):
        lines = self.lines(of, client)
        text = HEAD + f"{len(lines)}\n" + "".join(line + "\n" for line in lines) if lines else ""
        return f", text {quoted(text)}, length {len(text) + 1 if text else 0}, count {len(lines)}"

    def last(self, of, client, parent):
        rows = sorted(((row.time, key, row) for key, row in self.images.items()), reverse=True, key=lambda row: row[0])
        return "".join(f"{time}|{key[1]}|{key[2]}|{row.parent}|{key[3]}|{row.dofp}|{row.dcid}|{row.flags}\n"
                       for time, key, row in rows if key[0] == of and client in ("empty", key[1])
                       and parent in ("-1", row.parent))

    def retention(self, key):
        kept = self.images[key].retention if key in self.images else None
        return kept and f', retention {kept[0]} 3 {kept[1]} {CLOCK} "set by kspool-sandbox"'

    def views(self):
        """Calls that show all of it, and what they show."""
        yield "MBDirList / . . 1", self.listing("/", True)
        for of in "1", "2":
            yield f"MBPOFind {of} . . . .", self.found(of, "*")
            yield f"MBGetLastImages {of} empty empty -1 0 .", f", text {quoted(self.last(of, 'empty', '-1'))}"
        for key in self.images:
            yield f"MBGetImageRetention {' '.join(key)} .", self.retention(key) or ', retention -1 -2 -3 -4 "old"'


class Model:
    """A session in a scene of its own, and another one, the witness, in which nothing is made to fail."""

    def __init__(self, driver, url, config):
        self.driver, self.url, self.config, self.counts = driver, url, config, dict.fromkeys(ROWS, 0)
        self.longest = {}  # calls that can fail in one of a function
        self.pool, self.step, self.retries, self.clock = Pool(), 120, 0, 1000
        self.calls = self.failed = self.unknown = self.made = 0
        self.fresh()

    def fresh(self):
        self.session, self.cursor, self.client, self.usable, self.po = None, None, "*", True, "NULL of type 0"
        self.play(1, f"MBInitWithAgentCfg {self.url} 5 me secret {self.config}")

    def play(self, scene, line, nth=0, on=0):
        self.driver.stdin.write(f"{scene} {nth} {on} {line}\n")
        self.driver.stdin.flush()
        told = self.driver.stdout.readline()
        assert told, f"the program ended with {self.driver.wait()} in {line} with call {nth} failing, {on}; KSPOOL_TEST_SEED={SEED}"
        *numbers, out = told.rstrip("\n").split(" ", 5)
        status, seen, failed, changed, live = (int(number) for number in numbers)
        return SimpleNamespace(status=status, seen=seen, failed=failed, changed=changed, live=live,
                               out=out.removesuffix(", changed"))

    # What calls need and what comes of it.

    def call(self, words, out="", status=0, failed=("",), slot="none", result=None, change=None, become=None, **more):
        return SimpleNamespace(words=words, out=out, status=status, failed=failed, slot=slot, result=result, change=change,
                               become=become or (lambda: None), sends=False, **more)

    def use(self, call):
        if not self.session:
            call.status, call.out, call.sends, call.result = 44, "*", False, None
        return call

    def ask(self, call, event, is_status=False):
        if not self.session:
            return self.use(call)
        call.sends = self.session.connects
        if self.session.connects and not self.session.sent:
            event = 10001
        call.event = event if call.sends else 0
        if event or not call.sends:
            call.status = 2001 if not call.sends else event if is_status else 106 if event == 10001 else 4
            call.out = call.failed[-1 if not call.sends and call.words.startswith("MBGetLast") else 0]
        return call

    # Rows. Each makes a call of the function `name`.

    def create(self, name):
        secret, bare = any_of(*["secret"] * 7, "wrong"), name.startswith("MBCreate") and rng.random() < 0.1
        bare = bare and name != "MBCreateVa"
        options = "null 0" if bare else f"138={self.url},129=me,130={secret} 3"
        words = {"MBCreateVa": f"5 {self.url} me {secret}", "MBCreate": f"5 {options}"}.get(
            name, f"{self.url} 5 me {secret}" if name.startswith("MBInit") else f"5 {options}")
        right = not bare and secret == "secret"
        new = SimpleNamespace(connects=not bare, known=right, sent=right, timeout=30, reconnect=0, last="0 0 0 ", low=0, high=0)
        return self.call(f"{name} {words}" + (" " + self.config if name.endswith("Cfg") else ""), result="session 5, slot 0",
                         slot="all", become=lambda: setattr(self, "session", new))

    def shut_down(self, name):
        return self.call(name, result="done, slot 7", become=lambda: setattr(self, "session", None))

    def authenticate(self, name):
        secret, status = any_of(("secret", 0), ("secret", 0), ("wrong", 0), ("null", 9), ("x*256", 10))
        return self.use(self.call(f"{name} me {secret}", status=status, become=lambda: self.to(known=secret == "secret")))

    def to(self, **what):
        vars(self.session).update(what)

    def options(self, name):
        url = f"138={self.url}"
        options, status, secret = any_of(
            *[(f"{url},129=me,130={secret} 3", 0, secret) for secret in ("secret", "secret", "secret", "wrong")],
            (url + " 1", 0, "kept"), ("133=5 1", 0, None), ("132=app 1", 0, None), ("null 0", 0, None), ("null 1", 9, None),
            ("133=1,151=1 2", 9, None), (url + ",130=x*256 2", 10, None), ("132=a#32 32", 10, None))

        def become():
            if secret:
                known = self.session.known if secret == "kept" else secret == "secret"
                self.to(connects=True, known=known, sent=known)
        return self.use(self.call(f"{name} {options}", status=status, slot="all", become=become))

    def resilience(self, name):
        seconds = int(rng.random() < 0.1)
        return self.use(self.call(f"{name} {seconds}", status=self.session.reconnect if self.session else 0,
                                  become=lambda: self.to(reconnect=seconds)))

    def time_out(self, name):
        if name == "MBGetResponseTimeOut":
            return self.use(self.call(name + " .", self.session and f", seconds {self.session.timeout}"))
        seconds = rng.randrange(20, 40)
        return self.use(self.call(f"{name} {seconds}", become=lambda: self.to(timeout=seconds)))

    def tune(self, name):
        which, value = "retries" if name.endswith("Count") else "step", rng.randrange(-1, 3)
        if name.startswith("MBGet"):
            return self.call(name, result=f"{getattr(self, which)}, slot 7")
        return self.call(f"{name} {value}", result="done, slot 7", become=lambda: setattr(self, which, value))

    def tell(self, name):
        if name == "MBAbort":
            return self.use(self.call(name))
        if rng.random() < 0.1:
            return self.use(self.call(name + " small", "*", 9))
        return self.use(self.call(name + " .", f", 64: {self.session.last}*" if self.session and name == "MBLastEvent"
                                  else ", 312: *"))

    def keep_alive(self, name):
        if rng.random() < 0.2:
            return self.use(self.call(name + " 10000"))
        return self.ask(self.call(name + " 0", slot="failures"), 0, True)

    def make_directory(self, name):
        at = path()
        return self.ask(self.call(f"{name} {at}", change=lambda: self.pool.entries.add(at)), self.pool.occupied(at))

    def transfer(self, name):
        source, target, deep, below = path(), path(), any_of(0, 1), self.pool.below
        event = (NO_ENTRY if not self.pool.has(source) else INTO_ITSELF if target.startswith(source + "/")
                 else self.pool.occupied(target))
        if name == "MBFileCopy" and not event and not deep and below(source):
            event = NEEDS_RECURSIVE

        def change():
            self.pool.copy(source, target)
            if name == "MBFileMove":
                self.pool.remove(source)
        return self.ask(self.call(f"{name} {source} {target} {deep}", change=change), event)

    def remove(self, name):
        at, deep = path(), any_of(0, 1)
        event = NO_ENTRY if not self.pool.has(at) else NOT_EMPTY if not deep and self.pool.below(at) else 0
        return self.ask(self.call(f"{name} {at} {deep}", change=lambda: self.pool.remove(at)), event)

    def list(self, name):
        at, deep = any_of("/", path()), any_of(0, 1)
        return self.ask(self.call(f"{name} {at} . . {deep}", self.pool.listing(at, deep),
                                  failed=(", listing NULL, length 0",)), 0 if self.pool.has(at) else NO_ENTRY)

    def time(self, name):
        return self.ask(self.call(name + " .", f", time {CLOCK}", failed=(", time 0",)), 0)

    def po_list(self, name):
        of, bad = selection(), rng.random() < 0.06
        given = [((of, any_of("/f", "/g"), any_of("n", "o"), any_of("c", "k")), number(100)) for _ in range(any_of(1, 2))]
        if rng.random() < 0.06:
            return self.use(self.call(f"{name} 1 {any_of('null', 'empty')}", status=9))

        def change():
            for key, size in given:
                if name == "MBPOExpire":
                    self.pool.pos.pop(key, None)
                elif name != "MBPOZELTAddList" or key not in self.pool.pos:
                    self.pool.pos[key] = size
        text = "".join(po_line(*row) + "~" for row in given) + "a|b~" * bad
        return self.ask(self.call(f"{name} {of} {text}", change=change), NO_SELECTION if of == "0" else BAD_PO * bad)

    def filter(self, name):
        how, client = any_of("all", "all", "all", "null", "size=439"), any_of("*", "c", "k")

        def become():
            self.usable, self.client = how != "size=439", client if how == "all" else self.client
        return self.call(f"filter {how}" + f" 6={client}" * (how == "all"), become=become,
                         result=f"{0 if how == 'all' else 9}, slot 7")

    def find(self, name):
        of, whole, as_po = selection(), name == "MBPOFind", name == "MBPOFindFirst"
        lines, filtered = self.pool.lines(of, self.client), any_of(".", ".", ".", ".", ".", "null")
        none, count = ", text NULL, length 0, count 0", f", count {len(lines)}"
        before = f", po {self.po}" if as_po else ', line "untouched"'
        call = self.call(f"{name} {of} {filtered} . ." + " ." * whole, status=0 if lines else 2, slot="query")
        if whole:
            call.out, call.failed = self.pool.found(of, self.client), (none,)
        else:
            shown = quoted(lines[0]) if lines else ""
            call.out = before + count if not lines else f", po {shown} of type 0{count}" if as_po else f", line {shown}{count}"
            call.failed, call.result = (before + ", count 99", ", po NULL of type 0" + count), "a cursor, slot 7"
            call.become = lambda: setattr(self, "cursor", [lines, 1])
        if filtered == "null" or not self.usable:
            call.status, call.out = 9, call.failed[0]
            return self.use(call)
        call = self.ask(call, NO_SELECTION if of == "0" else 0)
        if self.session:
            tries = max(0, self.retries)
            call.times = {self.session.timeout + k * self.step for k in range(tries + 1)}
            if call.sends and call.event:  # which an answer to a retry may be, but no answer of a query
                call.status = 82 if tries else 4
            if not call.sends or call.event:
                self.to(timeout=self.session.timeout + (tries if not call.sends else min(tries, 1)) * self.step)
        return call

    def next(self, name):
        as_po = name == "MBPOFindNext"
        before = f", po {self.po}" if as_po else ', line "untouched"'
        if not self.cursor or self.cursor[1] == len(self.cursor[0]):
            return self.call(name + " . .", before, 2 if self.cursor else 9)
        shown = quoted(self.cursor[0][self.cursor[1]])
        self.cursor[1] += 1  # also past a line that cannot be converted
        return self.call(name + " . .", f", po {shown} of type 0" if as_po else f", line {shown}", slot="failures",
                         failed=(", po NULL of type 0",))

    def close(self, name):
        return self.call(name, result="done, slot 7", become=lambda: setattr(self, "cursor", None))

    def image(self, name):
        key, parent, flags, dcid = image_key(), number(3), number(9), number(9)
        self.clock += 1
        first, second, sets = name == "MBSetLastImage", name == "MBSetLastImageV2", name.startswith("MBSetLast")
        words = {"MBSetLastImage": f"{self.clock} {key[3]} 1 {dcid} {flags}",
                 "MBSetLastImageV2": f"{parent} {self.clock} {key[3]} {flags}",
                 "MBSetImageRetention": f"{key[3]} {flags} 3 {dcid}", "MBDeleteImage": f"{key[3]} 0"}[name]
        new = SimpleNamespace(time=self.clock, parent=parent if second else "0", dofp=key[3] if first else "",
                              dcid=dcid if first else "0", flags=flags, retention=None)

        def change():
            if sets:
                new.retention = self.pool.images[key].retention if key in self.pool.images else None
                self.pool.images[key] = new
            elif name == "MBDeleteImage":
                del self.pool.images[key]
            else:
                self.pool.images[key].retention = (dcid, flags)
        call = self.call(f"{name} {' '.join(key[:3])} {words}", slot="failures", change=change)
        if sets and key[0] == "0":
            call.status = 9
            return call
        lacks = not sets and key not in self.pool.images
        return self.ask(call, NO_SELECTION if key[0] == "0" else NO_IMAGE * lacks, True)

    def text_of(self, call, shown, of, lacks):
        call.status, call.out = (0, shown) if shown else (4, call.failed[0])
        return self.ask(call, NO_SELECTION if of == "0" else NO_IMAGE * lacks, True)

    def last_images(self, name):
        of, client, parent = selection(), any_of("empty", "c", "k"), any_of("-1", "1")
        text = self.pool.last(of, client, parent)
        return self.text_of(self.call(f"{name} {of} {client} empty {parent} 0 .", slot="failures",
                                      failed=(", text NULL", ', text "untouched"')), text and f", text {quoted(text)}", of, False)

    def retention(self, name):
        key = image_key()
        return self.text_of(self.call(f"{name} {' '.join(key)} .", failed=(', retention -1 -2 -3 -4 "old"',)),
                            self.pool.retention(key), key[0], key not in self.pool.images)

    def policy(self, name):
        of, client, _, image = image_key()
        found = [key[2] for key in sorted(self.pool.images) if (key[0], key[1], key[3]) == (of, client, image)]
        return self.text_of(self.call(f"{name} {of} {client} {image} .", failed=(', text "untouched"', ", text NULL")),
                            found and f", text {quoted(found[0])}", of, not found)

    def tag(self, name):
        of = selection()
        return self.ask(self.call(f"{name} {of} . .", ", digit 0, text NULL", failed=(", digit 99, text NULL",)),
                        NO_SELECTION if of == "0" else 0)

    # Judgement.

    def expected(self, name, call):
        stored = {"none": False, "failures": call.status not in (0, 44), "all": call.status != 44,
                  "query": call.status != 0 and (call.status != 2 or name != "MBPOFind")}[call.slot]
        slot = call.status if stored else 7
        if call.result and call.status == 0:
            return call.result + call.out
        made = name.startswith(("MBCreate", "MBInit")) or name.endswith("FindFirst")
        return f"none, slot {slot}{call.out}" if made else f"{call.status}, slot {slot}{call.out}"

    def holds(self):
        return all(self.play(1, line).out.endswith(shown) for line, shown in self.pool.views())

    def one(self):
        name = rng.choices(list(ROWS), [weight for weight, _ in ROWS.values()])[0]
        if len(self.pool.entries) > 14:
            name = "MBFileDelete"
        if not self.session and rng.random() < 0.3:
            name = "MBInitWithAgentCfg"
        before = self.session and vars(self.session).copy()
        call = ROWS[name][1](self, name)
        nth = rng.randrange(self.longest.get(name) or 60) + 1 if rng.random() < 0.3 else 0
        done = self.play(0, call.words, nth, int(rng.random() < 0.3 and not (self.session and self.session.reconnect)))
        self.calls += 1
        if not nth:  # mostly on a connection that there is, where few calls come before the request goes out
            self.longest[name] = done.seen
        expected = self.expected(name, call)
        agrees = done.out.startswith(expected[:-1]) if expected.endswith("*") else done.out == expected
        self.check((agrees or done.failed) and not (done.status and done.changed), name, call, done, expected)
        if name.startswith(("MBCreate", "MBInit")):
            self.session = None
            if done.failed and agrees:  # directives that could not be read are missing, of which a notice tells
                self.play(0, call.words)
        if name.endswith("FindFirst"):
            self.cursor = None
        if agrees and call.status == 0:
            self.counts[name] += 1
            call.become()
            if call.change:
                call.change()
        if not agrees:
            self.explain(name, call, done, before)
        self.po = (re.findall(r"po (\S+ of type \d+)", done.out) or [self.po])[-1]
        self.remember(name, call, done)
        if self.calls % 50 == 0:
            self.check(self.holds(), name, call, done, "the pool holds something else")

    def explain(self, name, call, done, before):
        """After a call in which something failed."""
        self.failed += 1
        self.check(done.status in FAILURES and any(done.out.endswith(out) for out in call.failed),
                   name, call, done, call.failed)
        if call.change and not call.status:
            self.unknown += 1
            if not (self.holds() and self.holds()):  # the server may take the witness's first request before this one
                call.change()
                self.made += 1
                self.check(done.status not in UNSENT and self.holds(), name, call, done, "neither made nor not made")

    def remember(self, name, call, done):
        """What the session tells of its requests, and the time-out that a failed query leaves."""
        if not self.session:
            return
        if done.failed and hasattr(call, "times"):
            told = int(self.play(0, "MBGetResponseTimeOut .").out.split()[-1])
            self.check(told in call.times, name, call, done, call.times)
            self.to(timeout=told)
        if name == "MBGetStatistics" and done.status == 0:
            told = int(done.out.split("312: ")[1].split()[0])
            self.check(self.session.low <= told <= self.session.high, name, call, done, vars(self.session))
            self.to(low=told, high=told)
        if done.failed:
            self.to(last="", high=self.session.high + 2 + max(0, self.retries))
        elif hasattr(call, "event"):
            again = call.sends and call.status == 82
            self.to(last=f"{call.event} {HTTP[call.event]} 1 " if call.sends else "0 0 0 ",
                    low=self.session.low + call.sends + again,
                    high=self.session.high + call.sends + again + (name == "MBPOFindFirst"))

    def check(self, holds, name, call, done, wanted):
        if not holds:
            sys.exit(f"session model: call {self.calls}, {name}: {call.words}\n  failing calls: {done.failed}, changed: "
                     f"{done.changed}\n  got      {done.status}: {done.out}\n  expected {wanted}\n  KSPOOL_TEST_SEED={SEED}")

    def clear(self):
        """Ends both scenes and empties the pool. What the library has not released."""
        for line in ([f"MBFileDelete {at} 1" for at in self.pool.below("/", False)]
                     + [f"MBPOExpire {key[0]} {po_line(key, size)}~" for key, size in self.pool.pos.items()]
                     + [f"MBDeleteImage {' '.join(key)} 0" for key in self.pool.images]):
            self.check(self.play(1, line.replace("MBFileDelete ", "MBFileDelete /")).status == 0, line, self.call(line),
                       self.play(1, "MBGetTime ."), "gone")
        self.play(0, "-")
        live = self.play(1, "-").live
        self.pool = Pool()
        self.fresh()
        return live


M = Model
ROWS = {
    "MBAbort": (1, M.tell), "MBAuthenticate": (2, M.authenticate), "MBCreate": (1, M.create), "MBCreateVa": (1, M.create),
    "MBCreateWithAgentCfg": (1, M.create), "MBDeleteImage": (4, M.image), "MBDirCreate": (16, M.make_directory),
    "MBDirList": (5, M.list), "MBEnableResiliency": (1, M.resilience), "MBFileCopy": (14, M.transfer),
    "MBFileDelete": (6, M.remove), "MBFileMove": (12, M.transfer), "MBFindImagePolicy": (4, M.policy), "MBGetHVXTag": (3, M.tag),
    "MBGetImageRetention": (9, M.retention), "MBGetLastImages": (5, M.last_images), "MBGetResponseTimeOut": (2, M.time_out),
    "MBGetRetryCount": (1, M.tune), "MBGetStatistics": (2, M.tell), "MBGetTime": (3, M.time), "MBGetTimeOut": (1, M.tune),
    "MBInit": (1, M.create), "MBInitWithAgentCfg": (2, M.create), "MBKeepAlive": (3, M.keep_alive), "MBLastEvent": (4, M.tell),
    "MBOptionsSet": (5, M.options), "MBPOAddList": (5, M.po_list), "MBPOExpire": (5, M.po_list), "MBPOFilterInit": (3, M.filter),
    "MBPOFind": (5, M.find), "MBPOFindClose": (1, M.close), "MBPOFindFirst": (4, M.find), "MBPOFindNext": (6, M.next),
    "MBPOImport": (5, M.po_list), "MBPOStringFindFirst": (4, M.find), "MBPOStringFindNext": (6, M.next),
    "MBPOZELTAddList": (5, M.po_list), "MBSetImageRetention": (8, M.image), "MBSetLastImage": (8, M.image),
    "MBSetLastImageV2": (8, M.image), "MBSetResponseTimeOut": (2, M.time_out), "MBSetRetryCount": (1, M.tune),
    "MBSetTimeOut": (1, M.tune), "MBShutdown": (1, M.shut_down),
}

declared = set(re.findall(r"^KSPOOL_API [^;(]*?\b(MB\w+)\(", open(HEADER, encoding="utf-8").read(), re.M))
assert declared == set(ROWS), f"mb.h and the rows differ: {declared ^ set(ROWS)}"
driver = subprocess.Popen([sys.argv[1], "calls", *sys.argv[3:]], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True)
model = Model(driver, *driver.stdout.readline().split())
model.play(0, "MBSetTimeOut 120")
kept = None
while model.calls < CALLS:
    for _ in range(PART):
        model.one()
    live = model.clear()
    assert kept in (None, live), f"{live - kept} allocations are left of a part; KSPOOL_TEST_SEED={SEED}"
    kept = live
never = [name for name, times in model.counts.items() if times == 0 and CALLS >= 20000]
assert not never, f"never successful: {never}; KSPOOL_TEST_SEED={SEED}"
driver.stdin.close()
assert driver.wait() == 0
print(f"session model: {model.calls} calls of {len(ROWS)} functions, {model.failed} failed, {model.unknown} changes in doubt, "
      f"{model.made} of them made; KSPOOL_TEST_SEED={SEED}")
