"""The table of promises, tests/promises.txt: sentences of docs/security.md and SECURITY.md, each with
faults that break it and the test that notices them, or with the reason why no fault can. Its head has
the form. `scripts/check-reasons` runs complaints(), `scripts/mutants promises` tries the faults.

The entries of a sentence have to cover its words. No entries are demanded for the section "What is
trusted" and for the first columns of tables: they say what others may do, which no change of the
sources makes untrue. What the library does stands there too in some places and has entries all the same."""
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
# What may stand between the words of two entries, with punctuation and the targets of links.
JOINING = set("and but hence or so that which with".split())


class Fault(NamedTuple):
    """A change of one line into any other, and the test that fails then."""
    test: str
    place: Place
    changed: str

    def __str__(self):
        return BETWEEN.join((self.test, str(self.place), self.changed))

    def find(self):
        """As Change.find() in source_changes.py, without the rule of what may become of a line."""
        number = self.place.find()
        line = source_places.lines_of(self.place.file)[number]
        if source_places.plain(line) == source_places.plain(self.changed):
            raise LookupError(f"changes nothing: {self}")
        return number, line[:len(line) - len(line.lstrip())] + self.changed


class Promise(NamedTuple):
    document: str
    words: str
    reason: str  # why no fault can break it; empty for one that has faults
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
    """All, those of a file together, each once."""
    return sorted({fault for promise in read() for fault in promise.faults}, key=lambda fault: (fault.place, fault))


def text_of(path):
    with open(path, encoding="utf-8") as file:
        return file.read()


def sentences(document):
    """All of a document that has to have entries."""
    for section in re.split(r"^#+ ", text_of(document), flags=re.M)[1:]:
        title, _, body = section.partition("\n")
        if title == "What is trusted":
            continue
        for line in body.splitlines():
            if line.startswith("|"):
                line = "" if line.startswith(("|---", "| | ")) else line.strip("| ").split("|")[-1]
            yield from (part for part in END.split(re.sub(r"^(\d+\.|-) ", "", line.strip())) if part)


def not_said(sentence, entries):
    """The words of a sentence that are in none of the entries, but for those that join."""
    said = [any(sentence in words for words in entries)] * len(sentence)
    for words in entries:
        for found in re.finditer(re.escape(words), sentence):
            said[found.start():found.end()] = [True] * len(words)
    rest = "".join(" " if gone else letter for letter, gone in zip(sentence, said))
    return [word for word in WORD.findall(re.sub(r"\]\([^)]*\)", "", rest)) if word.lower() not in JOINING]


def occurs(pattern, paths):
    return any(re.search(pattern, text_of(path), re.M) for path in glob.glob(paths, recursive=True))


def is_test(name):
    """Whether there is a program or script of this name, and the case of it that is named."""
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
