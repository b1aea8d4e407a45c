"""The time line of an update: what each package, the serial line and the screen did, and when."""

import os
import re

from .comparison import records_of, results_of
from .console import lines_of
from .exchanges import MOST_BARS, bar, exchanges_of

SCREENS = {"white": ("asks to wait", "wait"), "green": ("shows the success", "good"), "red": ("shows a failure", "bad"),
           "yellow": ("finds no package", "bad"), "": ("waits for the button", "wait")}
LINE = re.compile(r" *(\d+\.\d+) (->|<-|--|\*\*|!!) (.*)")


def lanes(run, machine):
    program = run.all("program")
    end = run.end["at"] if run.end else max((event["at"] for event in run.events if "at" in event), default=0)
    if not program:
        return []
    return [*packages(run, machine, end), *serial_line(machine, program[0]["board"], end), *screen(run, end)]


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
    transcript = machine.text("board.log")
    if not transcript or board_started is None:
        return
    lines = filter(None, map(LINE.match, lines_of(transcript)))
    yield from exchanges_of((board_started + float(line[1]), line[2], line[3]) for line in lines)
