"""The events of a recording, of which a page shows a bounded number."""

import collections
import dataclasses
import re

MARKS = {"to board": "->", "from board": "<-", "none": "--"}
MOST_ENDS = 1000  # frames at the beginning, and as many at the end, that are kept
MOST_NOTABLE = 500  # of those between that are malformed or refused
MOST_TRANSFERS = 20_000
START_FRAME = re.compile(r'start frame: "(.*)", (\d+) bytes \(hex \w+\), blocks to come: (\d+)')
REFUSALS = ("NAK", "CA CA")


@dataclasses.dataclass
class Transfer:
    """What the program has announced."""
    name: str
    size: int
    blocks: int
    is_ended: bool = False  # by the end frame


@dataclasses.dataclass
class Event:
    """A frame, or something that happened to the line."""
    number: int
    at: float  # seconds
    mark: str
    meaning: str
    bytes: bytes
    violations: list
    reply_to: str = ""  # meaning of the last frame to the board

    @property
    def is_refusal(self):
        return self.mark == "<-" and self.meaning.startswith(REFUSALS)

    @property
    def is_notable(self):
        return bool(self.violations) or self.is_refusal


def event_of(number, values):
    return Event(number, values["ms"] / 1000, MARKS[values["direction"]], values["meaning"],
                 bytes.fromhex(values["bytes"]), values["violations"])


class Collection:
    """Keeps what the page shows of the events, and counts all."""

    def __init__(self):
        self._first, self._notable = [], []
        self._asked = ""
        self._last = collections.deque(maxlen=MOST_ENDS)
        self.count = self.frames = self.violations = self.refusals = self.notable = 0
        self.at = 0.0  # of the last event
        self.transfers = []
        self.away = []  # [from, to] of the device, to None while it is

    def add(self, event):
        if event.mark == "->":
            self._asked = event.meaning
        event.reply_to = self._asked
        self.count += 1
        self.frames += event.mark != "--"
        self.violations += len(event.violations)
        self.refusals += event.is_refusal
        self.notable += event.is_notable
        self.at = max(self.at, event.at)
        begun = START_FRAME.fullmatch(event.meaning)
        if begun and len(self.transfers) < MOST_TRANSFERS:
            self.transfers.append(Transfer(begun[1], int(begun[2]), int(begun[3])))
        elif event.meaning == "end frame" and self.transfers:
            self.transfers[-1].is_ended = True
        if event.mark == "--" and event.meaning == "device has gone" and len(self.away) < MOST_ENDS:
            self.away.append([event.at, None])
        elif event.mark == "--" and event.meaning == "device is back" and self.away:
            self.away[-1][1] = event.at
        if len(self._first) < MOST_ENDS:
            self._first.append(event)
            return
        if len(self._last) == MOST_ENDS and self._last[0].is_notable and len(self._notable) < MOST_NOTABLE:
            self._notable.append(self._last[0])
        self._last.append(event)

    def kept(self):
        """The events that are kept, with a number where so many have been left out."""
        number = 0
        for event in [*self._first, *self._notable, *self._last]:
            if event.number > number:
                yield event.number - number
            yield event
            number = event.number + 1

    def passed(self, events):
        """Adds the events while somebody else takes them: a time, a mark and what happened, for each."""
        for event in events:
            self.add(event)
            yield event.at, event.mark, event.meaning
            for _ in event.violations:
                yield event.at, "!!", ""
