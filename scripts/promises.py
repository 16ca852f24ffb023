"""The table of promises, tests/promises.txt: sentences of docs/security.md and SECURITY.md, each with
faults that break it and the test that notices them, or with the reason why no fault can. The head of the
file describes its format. `scripts/check-reasons` runs complaints(), `scripts/mutants promises` tries the faults.

The entries of a sentence have to cover its words. The section "What is trusted" and the first columns of
tables need no entries: they say what others may do, which no change of the sources can make untrue. Where
they also say what the library does, there are entries nevertheless."""
import glob
import re
from typing import NamedTuple

import source_places
from source_places import BETWEEN, Place

LIST = "tests/promises.txt"
DOCUMENTS = ("docs/security.md", "SECURITY.md")
# A sentence ends before a capital letter, a quotation of code or a link.
END = re.compile(r"(?<=[.:])\s+(?=[A-Z`\[])")
WORD = re.compile(r"[^\W_]+(?:['./_-][^\W_]+)*")
# Words that may join two entries, besides punctuation and the targets of links.
JOINING = set("and but hence or so that which with".split())


class Fault(NamedTuple):
    """A change of one line into any other line, and the test that must then fail."""
    test: str
    place: Place
    changed: str

    def __str__(self):
        return BETWEEN.join((self.test, str(self.place), self.changed))

    def find(self):
        """As Change.find() in source_changes.py, but without restrictions on the changed line."""
        number = self.place.find()
        line = source_places.lines_of(self.place.file)[number]
        if source_places.plain(line) == source_places.plain(self.changed):
            raise LookupError(f"changes nothing: {self}")
        return number, line[:len(line) - len(line.lstrip())] + self.changed


class Promise(NamedTuple):
    document: str
    words: str
    reason: str  # why no fault can break it; empty if there are faults
    faults: list


def read():
    promises = []
    with open(LIST, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            parts = [part.strip() for part in line.split(BETWEEN)]
            if line.startswith("#") or not line.strip():
                continue
            if line.startswith(" ") and len(parts) == 5 and promises:
                promises[-1].faults.append(Fault(parts[0], Place(*parts[1:4]), parts[4]))
            elif not line.startswith(" ") and len(parts) in (2, 3):
                promises.append(Promise(*parts, *[""] * (3 - len(parts)), []))
            else:
                raise ValueError(f"{LIST}:{number}: not of a form that the head explains")
    return promises


def faults():
    """All faults, each once, sorted by file."""
    return sorted({fault for promise in read() for fault in promise.faults}, key=lambda fault: (fault.place, fault))


def text_of(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def sentences(document):
    """The sentences of a document that need entries."""
    for section in re.split(r"^#+ ", text_of(document), flags=re.M)[1:]:
        title, _, body = section.partition("\n")
        if title == "What is trusted":
            continue
        for line in body.splitlines():
            if line.startswith("|"):
                line = "" if line.startswith(("|---", "| | ")) else line.strip("| ").split("|")[-1]
            yield from (part for part in END.split(re.sub(r"^(\d+\.|-) ", "", line.strip())) if part)


def not_said(sentence, entries):
    """The words of a sentence that are in none of the entries, except joining words."""
    said = [any(sentence in words for words in entries)] * len(sentence)
    for words in entries:
        for found in re.finditer(re.escape(words), sentence):
            said[found.start():found.end()] = [True] * len(words)
    rest = "".join(" " if gone else letter for letter, gone in zip(sentence, said))
    return [word for word in WORD.findall(re.sub(r"\]\([^)]*\)", "", rest)) if word.lower() not in JOINING]


def occurs(pattern, paths):
    return any(re.search(pattern, text_of(path), re.M) for path in glob.glob(paths, recursive=True))


def is_test(name):
    """Whether a program or script of this name exists, and the named case in it."""
    program, _, case = name.partition(" ")
    if program.endswith(".py") or program.startswith("check-"):
        places = glob.glob("tests/**/" + program, recursive=True) + glob.glob("scripts/" + program)
        return bool(places) and not case
    if not occurs(rf"\b(add_executable|scripted_test)\({program}\b", "tests/CMakeLists.txt"):
        return False
    suite, _, rest = case.partition(".")
    test, _, row = rest.partition("/")
    if case and not occurs(rf"\bTEST(_[FP])?\({suite}, {test}\)", "tests/**/*.cpp"):
        return False
    # A row of a test is a file, or a line that begins with its name.
    return not row or bool(glob.glob(f"tests/**/{row}.txt", recursive=True)) or occurs(rf"^{row}\b", "tests/**/*.txt")


def complaints():
    promises, bad = read(), []
    for promise in promises:
        if promise.words not in text_of(promise.document):
            bad.append(f"{promise.document} does not say: {promise.words}")
        if bool(promise.reason) == bool(promise.faults):
            bad.append(f"neither faults nor a reason, or both: {promise.words}")
        for fault in promise.faults:
            try:
                fault.find()
            except LookupError as problem:
                bad.append(str(problem))
            if not is_test(fault.test):
                bad.append(f"there is no test {fault.test}")
    for document in DOCUMENTS:
        words = [promise.words for promise in promises if promise.document == document]
        bad += [f"{document}: no entry for \"{' '.join(rest)}\" of: {sentence}" for sentence in sentences(document)
                if (rest := not_said(sentence, words))]
    return [f"{LIST}: {problem}" for problem in bad]
