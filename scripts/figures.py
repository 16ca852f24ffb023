"""The tables that scripts write into docs/reliability.md, each between two marks with its name."""
import os

DOCUMENT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "docs", "reliability.md")


def _parts(name):
    begin, end = f"<!-- figures: {name} -->\n", "<!-- end of figures -->\n"
    head, rest = open(DOCUMENT, encoding="utf-8").read().split(begin)
    table, tail = rest.split(end, 1)
    return head + begin, table, end + tail


def read(name):
    """The rows of a table, without its head, as lists of texts."""
    lines = _parts(name)[1].strip().splitlines()[2:]
    return [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]


def table(head, rows):
    """A table as text. Columns but the first are numbers."""
    lines = ["| " + " | ".join(head) + " |", "|---" + "|---:" * (len(head) - 1) + "|"]
    lines += ["| " + " | ".join(str(cell) for cell in row) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def write(name, head, rows):
    """Prints a table, and replaces the table of that name in the document."""
    text = table(head, rows)
    print(text, end="")
    before, _, after = _parts(name)
    with open(DOCUMENT + ".new", "w", encoding="utf-8") as file:
        file.write(before + "\n" + text + "\n" + after)
    os.replace(DOCUMENT + ".new", DOCUMENT)
