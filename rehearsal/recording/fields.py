"""The fields of a frame, as docs/wire-formats.md draws them: the page there is the one place of each layout."""

import dataclasses
import re

BLOCK = re.compile(r"^```frame\n(.*?)^```$", re.MULTILINE | re.DOTALL)
TITLE = re.compile(r"(->|<-) (.*) \((\d+) bytes?\)")
ROW = re.compile(r" *(\d|- )")
BROKEN = re.compile(r"broke off after \d+ of (\d+) bytes")
DATA = re.compile(r"(\d+) bytes of data")
MOST_BYTES = 20  # that are shown of a field; a longer one is shown as the drawn ones are
HEAD, TAIL = 4, 2


def _up_to(end):
    return lambda rest: rest.index(end) if end in rest else None


# Rows whose width depends on what is in them, by how their content begins: how wide, given the bytes from there to the
# rows of a fixed width; None: the frame does not have the row.
MEASURED = {
    "file name": _up_to(b"\0"),
    "size in ": _up_to(b"\0"),
    "version text, up to ": lambda rest: (rest + b"\0").index(b"\0"),
    "parameters: up to ": lambda rest: rest.index(b"_") + 1 if b"_" in rest else len(rest),
}
# Rows that take what the others leave. The last may be empty.
ELASTIC = ("data", "padding", "end of the size", "examined only as part ", "the rest of ")


@dataclasses.dataclass
class Row:
    """A row of a drawn table."""
    offset: int
    width: int
    bytes: str
    content: str

    @property
    def is_elastic(self):
        return self.content.startswith(ELASTIC)

    @property
    def measure(self):
        return next((measure for begin, measure in MEASURED.items() if self.content.startswith(begin)), None)


@dataclasses.dataclass
class Table:
    """The drawn table of one frame."""
    mark: str  # -> to the board, <- from it
    title: str
    size: int
    rows: list


@dataclasses.dataclass
class Field:
    """A field of a frame beside the row that draws it; None: it is not drawn."""
    offset: int
    width: int
    bytes: str
    row: Row


def kind_of(title):
    """The title or meaning without what differs from frame to frame."""
    text = title.removeprefix("bad ").removeprefix("further ").removesuffix(", again")
    return re.sub(r"\b\d+\b", "#", re.split('[:",]', text)[0]).strip()


def tables_of(text):
    """The drawn tables of the page, in its order."""
    for block in BLOCK.findall(text):
        titles = [match for match in map(TITLE.fullmatch, block.splitlines()) if match]
        rows = [re.split(r" {2,}", line.strip()) for line in block.splitlines() if ROW.match(line)]
        count = len(titles)
        for number, (mark, title, size) in enumerate(match.groups() for match in titles):
            own = [(cells[number], cells[count + number], cells[2 * count + number], cells[-1]) for cells in rows]
            yield Table(mark, title, int(size), [Row(int(offset), int(width), data, content)
                                                 for offset, width, data, content in own if offset != "-"])


def shown(data):
    """The bytes of a field, as the page draws them."""
    if len(data) > 1 and data.count(data[0]) == len(data):
        return f"{data[:1].hex()} ..."
    return data.hex(" ") if len(data) <= MOST_BYTES else f"{data[:HEAD].hex(' ')} ... {data[-TAIL:].hex(' ')}"


def _width(row, later, offset, frame, meaning, total):
    """The width of the row in this frame; None: the frame does not have the row."""
    rest = total - offset - sum(other.width for other in later if not other.is_elastic and not other.measure)
    data = DATA.search(meaning)
    if row.content == "data" and data:
        return int(data[1]) if 0 < int(data[1]) <= rest else None
    if row.is_elastic:
        return rest if rest > 0 or (rest == 0 and row.content.startswith(ELASTIC[-1])) else None
    if not row.measure:
        return row.width
    there = frame[offset:offset + rest]
    width = row.measure(there)
    return len(there) if width is None and len(there) < rest else width


def _split(table, frame, meaning, total):
    """The fields of the frame by this table, or None when it is of another form."""
    fields, offset = [], 0
    for number, row in enumerate(table.rows):
        width = _width(row, table.rows[number + 1:], offset, frame, meaning, total)
        if width is None:
            return None
        fields.append(Field(offset, width, shown(frame[offset:offset + width]), row))
        offset += width
    if offset != total:
        return None
    if offset < len(frame):
        fields.append(Field(offset, len(frame) - offset, shown(frame[offset:]), None))
    return fields


def _may_be(table, frame):
    """Start frame and end frame begin alike: the first byte of the name tells."""
    named = next((begin == "file name" for row in table.rows for begin in ("file name", "no file name")
                  if row.content.startswith(begin)), None)
    return named is None or named == (frame[3:4] != b"\0")


class Layouts:
    """All drawn tables."""

    def __init__(self, text):
        self._tables = [(kind_of(table.title), table) for table in tables_of(text)]

    def unfold(self, mark, meaning, frame, violations=()):
        """The table that draws the frame, and its fields; (None, []) when none does."""
        broken = next(filter(None, map(BROKEN.search, violations)), None)
        if broken and meaning == "broken frame":
            candidates = [table for _, table in self._tables if table.mark == mark and table.size == int(broken[1])
                          and frame.startswith(bytes.fromhex(table.rows[0].bytes)) and _may_be(table, frame)]
        else:
            kind = kind_of(meaning)
            candidates = [table for own, table in self._tables if table.mark == mark and own == kind]
        for table in candidates:
            has_elastic = any(row.is_elastic for row in table.rows)
            fields = _split(table, frame, meaning, len(frame) if has_elastic and not broken else table.size)
            if fields:
                return table, fields
        return None, []
