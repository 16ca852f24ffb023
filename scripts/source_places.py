"""Names lines of the sources by file, function and text, so that the names survive edits elsewhere. The lists
tests/mutants.txt, survivors.txt and unreached.txt name lines in this way.

Functions are found by the layout that clang-format gives them: a definition starts in the column of
its scope (0, or four more for each class around it), its body is indented, and it ends with a `}` in
the column where it started. Python sources are parsed. Lines outside of functions have the function `-`.
A line that occurs several times in its function needs a number: `walk#2` is the second one in `walk`.
"""
import ast
import functools
import re
from typing import NamedTuple

BETWEEN = " :: "
CLASS = re.compile(r"(?:template <.*?> )?(?:class|struct|union)\b *([\w:]*)[^(]*[{;]$")
ATTRIBUTE = re.compile(r"\[\[.*?\]\]|__attribute__\(\(.*?\)\)+|\balignas\(.*?\)|\b[A-Z]+(?:_[A-Z]+)+\(.*?\)")
FUNCTION = re.compile(r"((?:[\w~]+(?:<[\w, ]*>)?::)*(?:operator\(\)|operator ?[^\s(]+|~?\w+))\(")
PASSED_OVER = re.compile(r'\s*(?:$|//|#|(?:public|private|protected):$)|namespace\b|extern "C" {|}')


class Scopes:
    """Finds the function of each line while going through a file."""

    def __init__(self):
        self.classes = []  # names of the classes around, outermost first
        self.head = ""  # a definition or declaration, as far as it was parsed
        self.body = None  # function whose body is open; "-" for a table
        self.in_macro = False
        self.in_comment = False

    def feed(self, line):
        """The function of a line, and of the lines before it that got None, since the head of a definition may
        have several lines."""
        code = self._without_comments(line)
        column = 4 * len(self.classes)
        was_in_macro, self.in_macro = self.in_macro, code.endswith("\\")
        if was_in_macro:
            return self.body or "-"
        if self.body is not None:
            body = self.body
            if code.startswith(" " * column + "}"):
                self.body = None
            return body
        if self.classes and code.startswith(" " * (column - 4) + "}"):
            self.classes.pop()
            return "-"
        if not self.head and PASSED_OVER.match(code):
            return "-"
        self.head += " " + code.strip()
        return self._end_head() if code.endswith(("{", "}", ";")) else None

    def _without_comments(self, line):
        if self.in_comment:
            _, end, line = line.partition("*/")
            self.in_comment = not end
        code = re.sub(r"\s*//(?=[\s/]).*|/\* .*? \*/", "", line).rstrip()
        if re.match(r"\s*/\*", code):
            self.in_comment, code = True, ""
        return code

    def _end_head(self):
        head, self.head = ATTRIBUTE.sub("", self.head).strip(), ""
        opens = head.endswith("{")
        if is_class := CLASS.match(head):
            if opens:
                self.classes.append(is_class[1])
            return "-"
        found = FUNCTION.search(head)
        defines = found and not head.endswith(";") and " = " not in head[:found.start()]
        name = "::".join([*self.classes, found[1]]) if defines else "-"
        if opens:
            self.body = name
        return name


@functools.cache
def lines_of(file):
    with open(file, encoding="utf-8") as source:
        return source.read().splitlines()


def python_functions(lines):
    names = ["-"] * len(lines)

    def walk(node, around):
        for child in ast.iter_child_nodes(node):
            name = f"{around}{child.name}" if isinstance(child, (ast.ClassDef, ast.FunctionDef)) else None
            if isinstance(child, ast.FunctionDef):
                names[child.lineno - 1:child.end_lineno] = [name] * (child.end_lineno - child.lineno + 1)
            walk(child, name + "::" if name else around)

    walk(ast.parse("\n".join(lines)), "")
    return names


@functools.cache
def functions_of(file):
    """The function of each line of a file."""
    if file.endswith(".py"):
        return python_functions(lines_of(file))
    scopes, names, waiting = Scopes(), [], 0
    for line in lines_of(file):
        waiting += 1
        name = scopes.feed(line)
        if name is not None:
            names += [name] * waiting
            waiting = 0
    return names + ["-"] * waiting


def plain(line):
    """A line with normalised white space."""
    return " ".join(line.split())


def numbers(file, function, line):
    """The numbers, from 0, of the lines in a function of a file that equal a line."""
    return [number for number, (name, text) in enumerate(zip(functions_of(file), lines_of(file)))
            if name == function and plain(text) == plain(line)]


class Place(NamedTuple):
    """A line's name."""
    file: str
    function: str
    line: str

    def find(self):
        """The line's number from 0. Raises LookupError with the reason unless there is exactly one such line."""
        function, _, chosen = self.function.partition("#")
        try:
            found = numbers(self.file, function, self.line)
        except FileNotFoundError:
            raise LookupError(f"stale, there is no such file: {self}") from None
        if chosen:
            found = found[int(chosen) - 1:int(chosen)]
        if not found:
            known = function in functions_of(self.file)
            raise LookupError(f"stale, {'the function has no such line' if known else 'no such function'}: {self}")
        if len(found) > 1:
            raise LookupError(f"ambiguous, the function has {len(found)} such lines: {self}")
        return found[0]

    def __str__(self):
        return BETWEEN.join(self)


def place_of(file, number):
    """The name of a line, given its number from 0."""
    function, line = functions_of(file)[number], lines_of(file)[number].strip()
    same = numbers(file, function, line)
    if len(same) > 1:
        function += f"#{same.index(number) + 1}"
    return Place(file, function, line)


def read_list(path, more):
    """The entries of a list in tests/: each a place, and a list of the `more` texts after it."""
    entries = []
    with open(path, encoding="utf-8") as file:
        for number, line in enumerate(file, 1):
            if line.startswith("#") or not line.strip():
                continue
            parts = [part.strip() for part in line.split(BETWEEN)]
            if len(parts) != 3 + more:
                raise ValueError(f"{path}:{number}: {len(parts)} parts instead of {3 + more}")
            entries.append((Place(*parts[:3]), parts[3:]))
    return entries
