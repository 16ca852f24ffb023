"""Parses the public headers for the reference and the manual: each function with its comment and its
arguments, which are explained in that comment or at the top of the header."""
import re
import textwrap

COMMENT = re.compile(r"/\*(.*?)\*/", re.S)
DECLARATION = re.compile(r"((?:extern |typedef )?(?:KSPOOL_API )?[^;{}#/]*?\([^;/]*?\))\s*(?:KSPOOL_NOEXCEPT)?"
                         r"(?:\s*(?:QLX_PRINTF\([^)]*\)|__attribute__\(\(.*?\)\)))?;", re.S)
# "  name   what it means", in a comment.
TERM = re.compile(r"^ {2,4}(\S.*?) {2,}(\S.*)$")
VARIABLE = re.compile(r"^extern KSPOOL_API ([^;]*?(\w+));\s*/\*(.*?)\*/", re.M | re.S)
SHARED = "Arguments that mean the same everywhere:"


def text_of(comment):
    """The text of a comment."""
    lines = [re.sub(r"^ ?\* ?", "", line.rstrip()) for line in comment.strip("*").splitlines()]
    return "\n".join(lines).strip("\n").rstrip() if len(lines) > 1 else comment.strip()


def terms(text):
    """The table of a comment: names to explanations."""
    found, name = {}, None
    for line in text.splitlines():
        term = TERM.match(line)
        if term:
            name = term[1]
            found[name] = term[2]
        elif name and line.startswith("    "):
            found[name] += " " + line.strip()
        else:
            name = None
    return found


def without(text, names):
    """A comment without the rows that explain some names."""
    kept, skipping = [], False
    for line in text.splitlines():
        term = TERM.match(line)
        skipping = term[1] in names if term else skipping and line.startswith("    ")
        if not skipping:
            kept.append(line)
    return re.sub(r"\n{3,}", "\n\n", "\n".join(kept)).strip("\n")


class Function:
    """A function, whose comment is at `begin` to `end` of the source: an empty range if it shares the comment
    of the function before it."""

    def __init__(self, declaration, comment, shared, begin, end, further):
        self.begin, self.end = begin, end
        self.declaration = " ".join(declaration.replace("KSPOOL_API ", "").split())
        self.name = re.search(r"(\w+)\)?\(", self.declaration)[1]
        inside = re.search(r"\((?!\*)(.*)\)$", self.declaration)[1]
        self.arguments = [re.search(r"(\w+)(?:\[\])?$", argument.strip())[1]
                          for argument in inside.split(",") if argument.strip() not in ("void", "...")]
        explained = terms(comment)
        self.says = {argument: explained.get(argument) or shared.get(argument)
                     for argument in self.arguments}
        self.text = ("The same." if further else
                     without(comment, [name for name in explained if name in shared or name in self.says]))


class Variable:
    def __init__(self, found):
        self.declaration, self.name = f"extern {found[1]}", found[2]
        self.text = text_of(found[3])


class Header:
    def __init__(self, path):
        source = open(path, encoding="utf-8").read()
        self.introduction = text_of(COMMENT.search(source)[1])
        head, _, table = self.introduction.partition(SHARED)
        self.shared = terms(table)
        self.introduction = head.strip()
        self.variables = [Variable(found) for found in VARIABLE.finditer(source)]
        self.functions = []
        for comment in COMMENT.finditer(source):
            begin, end, further = comment.start(), comment.end() + 1, False
            declaration = DECLARATION.match(source, end)
            while declaration:  # the functions up to the next empty line share the comment
                self.functions.append(Function(declaration[1], text_of(comment[1]), self.shared, begin, end,
                                               further))
                begin = end = declaration.end() + 1
                further = True
                declaration = DECLARATION.match(source, end) if source[end] != "\n" else None


def numbered(lines):
    """The items of a list: "1." to its text."""
    items = []
    for line in lines:
        if re.match(r"\d+\. ", line):
            items.append(line.split(" ", 1))
        else:
            items[-1][1] += " " + line.strip()
    return items


def paragraphs(text):
    """A comment's paragraphs: texts, tables as lists of pairs, and verbatim lines."""
    for block in re.split(r"\n\s*\n", text):
        lines = block.splitlines()
        if re.match(r"\d+\. ", block):
            yield numbered(lines)
            continue
        plain = [line.strip() for line in lines if not line.startswith("  ")]
        if plain:
            yield " ".join(plain)
        if terms(block):
            yield list(terms(block).items())
        elif len(plain) < len(lines):
            yield textwrap.dedent("\n".join(line for line in lines if line.startswith("  ")))
