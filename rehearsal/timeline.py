"""The time line of an update: what each package, the serial line and the screen did, and when."""

import os
import re

from .comparison import records_of, results_of
from .console import lines_of

MOST_BLOCKS = 4000
MOST_BARS = 2000
SCREENS = {"white": ("asks to wait", "wait"), "green": ("shows the success", "good"), "red": ("shows a failure", "bad"),
           "yellow": ("finds no package", "bad"), "": ("waits for the button", "wait")}
LINE = re.compile(r" *(\d+\.\d+) (->|<-|--|\*\*|!!) (.*)")
BLOCK = re.compile(r"block \d+ of \d+,")
REPLIES = {"ACK": "ok", "NAK": "nak", "CA CA": "cancel"}
# The exchanges of the serial line, by how their first frame begins in the transcript.
EXCHANGES = {"version query": "version", "update start command": "start command", "start frame": "firmware"}


def lanes(run, machine):
    program = run.all("program")
    end = run.end["at"] if run.end else max((event["at"] for event in run.events if "at" in event), default=0)
    if not program:
        return []
    return [*packages(run, machine, end), *serial_line(machine, program[0]["board"], end), *screen(run, end)]


def bar(lane, start, end, label, state, **more):
    return {"lane": lane, "from": round(max(start, 0), 3), "to": round(max(end, start, 0), 3), "label": label, "state": state,
            **more}


def packages(run, machine, end):
    begun = {event["index"]: event["at"] for event in run.all("package")}
    ended = {event["index"]: event["at"] for event in run.all("result")}
    results = {index: status for status, index in results_of(run)}
    names = run.plan["packages"]
    exact = {os.path.basename(record["arguments"][-1]): record for record in records_of(machine)}
    started = run.started
    for index, start in list(begun.items())[:MOST_BARS]:
        label = names[index] if index < len(names) else f"package {index + 1}"
        state = "wait" if index not in results else "bad" if results[index] else "good"
        record = exact.get(label)
        if record and started and abs(record["from"] - started - start) < 60:
            yield bar("packages", record["from"] - started, record["to"] - started, label, state)
        else:
            yield bar("packages", start, ended.get(index, end), label, state)


def screen(run, end):
    changes = [(event["at"], event["tips"]) for event in run.all("screen")] or [(0, "")]
    for number, (start, tips) in enumerate(changes[:MOST_BARS]):
        label, state = SCREENS.get(tips, ("shows something else", "bad"))
        until = changes[number + 1][0] if number + 1 < len(changes) else end
        yield bar("screen", start, until, label, state)


def serial_line(machine, board_started, end):
    """One bar for each exchange; that of the firmware has the blocks."""
    transcript = machine.text("board.log")
    if not transcript or board_started is None:
        return
    exchanges = []
    for text in lines_of(transcript):
        line = LINE.match(text)
        if not line:
            continue
        at, mark, what = board_started + float(line[1]), line[2], line[3]
        label = next((label for begin, label in EXCHANGES.items() if mark == "->" and what.startswith(begin)), None)
        if label and len(exchanges) < MOST_BARS:
            exchanges.append(Exchange(label, at))
        elif exchanges:
            exchanges[-1].take(at, mark, what)
    yield from (exchange.bar() for exchange in exchanges)


class Exchange:
    def __init__(self, label, at):
        self._label, self._from, self._to = label, at, at
        self._state = "wait"
        self._blocks = []
        self._block_at = None

    def take(self, at, mark, what):
        if what.startswith("board is "):
            return
        self._to = at
        if mark == "!!":
            self._state = "bad"
        if mark == "->" and BLOCK.match(what):
            self._block_at = at
        elif mark == "<-":
            if self._state == "wait" and self._label != "firmware":
                self._state = "good"
            reply = next((state for begin, state in REPLIES.items() if what.startswith(begin)), None)
            if self._block_at is not None and reply and len(self._blocks) < MOST_BLOCKS:
                self._blocks.append([round(self._block_at, 3), reply])
                self._block_at = None
        elif what.startswith("transfer is complete") and self._state == "wait":
            self._state = "good"

    def bar(self):
        more = {"blocks": self._blocks} if self._label == "firmware" else {}
        return bar("serial line", self._from, self._to, self._label, self._state, **more)
