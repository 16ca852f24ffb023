"""Small faults that scripts/mutants puts into the sources: in one line, one condition is inverted or changed, or
one constant incremented. Comments and the contents of strings do not change."""
import ast
import os
import re
from typing import NamedTuple

import source_places
from source_places import BETWEEN, Place

# Binary operators have spaces around them, unlike the brackets of templates. The words include Python's.
TURNED = {" == ": " != ", " != ": " == ", " < ": " <= ", " <= ": " < ", " > ": " >= ", " >= ": " > ",
          " && ": " || ", " || ": " && ", " + ": " - ", " - ": " + ", "++": "--", "true": "false",
          "false": "true", " += ": " -= ", " -= ": " += ", " and ": " or ", " or ": " and ", "True": "False",
          "False": "True"}
FOUND = re.compile("|".join([re.escape(text) for text in TURNED if not text.isalpha()] +
                            [r"\b(?:[Tt]rue|[Ff]alse)\b", r"!(?=[\w(])", r"\bnot ",
                             r"(?<![\w.\"'%])\d+(?![\w.\"'])"]))
IGNORED = re.compile(r'^\s*(//|#|/?\*(?:[ *]|/?$)|static_assert|constexpr bool covers)|^\s*"|^template')
TEXT = re.compile(r'"(?:[^"\\]|\\.)*"|//.*|/\*.*?(?:\*/|$)|#.*|\'(?:[^\'\\]|\\.)*\'')
# Public headers and platform/ hold constants that every source depends on, and no code.
ENDINGS = {"include": ".hpp"}


class Change(NamedTuple):
    place: Place
    changed: str  # the changed line

    def __str__(self):
        return f"{self.place}{BETWEEN}{self.changed}"

    def find(self):
        """The number of the line, from 0, and the changed line with its indentation. Raises LookupError unless the
        entry names exactly one line of the sources, and a valid change of that line."""
        number = self.place.find()
        for line in changed_lines(source_places.lines_of(self.place.file)[number]):
            if source_places.plain(line) == source_places.plain(self.changed):
                return number, line
        raise LookupError(f"stale, no change of the line gives this: {self}")


def turned(text):
    if text in ("!", "not "):
        return ""
    return TURNED[text] if text in TURNED else str(int(text) + 1)


def changed_lines(line):
    """All changed forms of a line."""
    if IGNORED.match(line):
        return
    code = TEXT.sub(lambda text: " " * len(text[0]), line)
    for found in FOUND.finditer(code):
        if found[0] == " + " and '"' in line[found.start() - 1] + line[found.end()]:
            continue  # texts can be added only
        yield line[:found.start()] + turned(found[0]) + line[found.end():]


def texts_in(file):
    """The lines of a Python source, as numbers from 0, in which texts of several lines lie."""
    if not file.endswith(".py"):
        return set()
    texts = [node for node in ast.walk(ast.parse("\n".join(source_places.lines_of(file))))
             if isinstance(node, ast.Constant) and node.end_lineno > node.lineno]
    return {number for text in texts for number in range(text.lineno - 1, text.end_lineno)}


def changes_in(folder):
    """All changes of the files of a folder, without the folders in it."""
    for name in sorted(os.listdir(folder)):
        if not name.endswith(ENDINGS.get(folder, (".cpp", ".c", ".h", ".py"))):
            continue
        file = f"{folder}/{name}"
        texts = texts_in(file)
        for number, line in enumerate(source_places.lines_of(file)):
            for changed in () if number in texts else changed_lines(line):
                yield Change(source_places.place_of(file, number), changed.strip())


def read(path, more=0):
    """The changes in a list in tests/, each with the `more` texts after it."""
    return [(Change(place, changed), texts) for place, (changed, *texts) in source_places.read_list(path, 1 + more)]
