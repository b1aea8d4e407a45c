"""The page of a recording: its verdict, its time line, and each frame with its fields."""

import pathlib

import jinja2

from rehearsal.exchanges import bar, exchanges_of
from rehearsal.report import timeline
from rehearsal.report.form import PARTS
from rehearsal.report.page import axis_time, count, environment, size, time
from rehearsal.report.shown import plain

from .events import Collection
from .fields import Layouts

HERE = pathlib.Path(__file__).parent
LAYOUTS = HERE.parents[1] / "docs/wire-formats.md"
LANES = ("serial line",)
MOST_FINDINGS = 50
MOST_OPEN = 20  # malformed frames that are unfolded from the beginning
BYTES_PER_LINE = 16
MARKS = {"->": ("to board", "→"), "<-": ("from board", "←"), "--": ("note", "–")}


class Verdict:
    """The first lines of the page: tone, headline and what it means."""

    do = ""

    def __init__(self, collection, bars):
        self._collection = collection
        self._blocks = [entry["blocks"] for entry in bars if entry["label"] == "firmware"]
        taken = (sum(state == "ok" for _, state in blocks) for blocks in self._blocks)
        self._transfers = [*zip(collection.transfers, taken)]
        self._incomplete = sum(not one.is_ended or taken < one.blocks for one, taken in self._transfers)

    @property
    def tone(self):
        collection = self._collection
        is_good = not (collection.violations or collection.refusals or collection.away or self._incomplete)
        return "good" if is_good and collection.frames else "bad"

    @property
    def headline(self):
        collection = self._collection
        if collection.violations:
            return f"{count(collection.violations, 'violation')} on the serial line"
        if collection.away:
            return "The device went away"
        if collection.refusals:
            return "The board refused frames"
        if self._incomplete:
            return "The transfer is not complete"
        return "Every frame is in order" if collection.frames else "Nothing went over the line"

    @property
    def meaning(self):
        if not self._transfers:
            return "No firmware was transferred."
        if len(self._transfers) > 1:
            return f"{len(self._transfers):,} transfers, {len(self._transfers) - self._incomplete:,} of them complete."
        one, taken = self._transfers[0]
        if not self._incomplete:
            return f"“{one.name}”, {size(one.size)}: the transfer is complete."
        return f"“{one.name}”, {size(one.size)}: the board took {taken:,} of {count(one.blocks, 'block')}" \
            f"{'' if one.is_ended else ', then the transfer ended'}."

    @property
    def figures(self):
        collection = self._collection
        blocks = sum(map(len, self._blocks))
        return [("Time", time(collection.at)), ("Frames", f"{collection.frames:,}"), ("Blocks", f"{blocks:,}"),
                ("Refused by the board", f"{collection.refusals:,}"), ("Violations", f"{collection.violations:,}")]


def away_bars(collection):
    for start, end in collection.away:
        yield bar("device", start, collection.at if end is None else end, "away", "bad")


def lines_of(data):
    """The bytes as lines of an offset and hexadecimal digits."""
    return [f"{offset:4}: {data[offset:offset + BYTES_PER_LINE].hex(' ')}" for offset in range(0, len(data), BYTES_PER_LINE)]


class Frame:
    """An event as the page shows it."""

    def __init__(self, event, layouts, is_open):
        self.event, self.is_open = event, is_open
        self.direction, self.arrow = MARKS[event.mark]
        self.table, self.fields = layouts.unfold(event.mark, event.meaning, event.bytes, event.violations)
        self.lines = [] if self.fields else lines_of(event.bytes)


def frames_of(collection, layouts):
    """The frames, and numbers of those that were left out between them."""
    opened = 0
    for entry in collection.kept():
        if isinstance(entry, int):
            yield {"left_out": entry}
            continue
        opened += bool(entry.violations)
        yield {"left_out": 0, "frame": Frame(entry, layouts, bool(entry.violations) and opened <= MOST_OPEN)}


def as_html(name, head, events):
    """The page as a str, from the head and the events that boardtap tells."""
    collection = Collection()
    bars = [*exchanges_of(collection.passed(events)), *away_bars(collection)]
    bars = [PARTS["timeline"] | entry for entry in bars]
    verdict = Verdict(collection, bars)
    notable = [entry for entry in collection.kept() if not isinstance(entry, int)
               and entry.is_notable]
    page = environment()
    page.loader = jinja2.ChoiceLoader([jinja2.FileSystemLoader(HERE), page.loader])
    return page.get_template("recording.html").render(
        verdict=verdict, kind="Recording of the serial line", source=name, title=plain(name, 120), style="recording.css",
        head=head, notable=notable[:MOST_FINDINGS],
        more=max(0, collection.notable - MOST_FINDINGS), shown=max(0, len(notable) - MOST_FINDINGS),
        drawing=timeline.lanes(bars, [], axis_time, LANES),
        frames=frames_of(collection, Layouts(LAYOUTS.read_text("utf-8"))), total=collection.frames)
