"""Runs one row on the simulated machine: run_row.py BUILD PACKAGES ROW [--tap] [SOLVER]. Started by run.py.

Prints every difference from the row. The exit status is 0 when there is none, else 1.
"""

import dataclasses
import linecache
import pathlib
import re
import signal
import sys
import threading
import time
import traceback

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "sandbox"))

import table
import verdict
from machine import Machine, paths
from machine.watch import text_of
from steps import Steps

LOG_POLL_S = 0.02  # how exactly the times of output lines are known
POLL_S = 0.1
STARTED_POLL_S = 0.05
TRANSCRIBED = re.compile(r" *\d+\.\d+ (?:(->|<-) .* bytes?\):|  +\d{4}:)((?: [0-9a-f]{2})*)")
RECORDED = re.compile(r" *(?:\d+\.\d+ (->|<-))?((?: +[0-9a-f]{2})+)")


class Log(threading.Thread):
    """The output lines of the program and the states of the screen, each with the time at which it was read."""

    FILES = (paths.PROGRAM_LOG, paths.SCREEN_LOG)

    def __init__(self):
        super().__init__(daemon=True)
        self._lines = []
        self._read = dict.fromkeys(self.FILES, 0)  # bytes

    def run(self):
        while True:
            for path in filter(pathlib.Path.exists, self.FILES):
                self._follow(path)
            time.sleep(LOG_POLL_S)

    def _follow(self, path):
        if path.stat().st_size == self._read[path]:
            return
        with open(path, "rb") as file:
            if path.stat().st_size < self._read[path]:  # the program was started again
                self._read[path] = 0
            file.seek(self._read[path])
            lines = file.read().split(b"\n")[:-1]
        now = time.monotonic()
        self._lines += [(now, line.decode(errors="replace")) for line in lines]
        self._read[path] += sum(len(line) + 1 for line in lines)

    def seconds_between(self, first, then):
        """From the last line with `first` before `then` to the earliest line with `then`; None without them."""
        end = next((i for i, (_, line) in enumerate(self._lines) if then in line), 0)
        start = next((seen for seen, line in reversed(self._lines[:end]) if first in line), None)
        return None if start is None else self._lines[end][0] - start


def tell_start(machine):
    """Tells run.py when the program shows its screen, or has ended."""
    while not machine.screen.painted["items"]:
        program = machine.program.process
        if program and program.poll() is not None:
            break
        time.sleep(STARTED_POLL_S)
    print("started", flush=True)


def run_lines(lines, what, names):
    """Runs Python lines of a row. The traceback of a failure shows the line that failed."""
    linecache.cache[what] = (len(lines), None, lines.splitlines(keepends=True), what)
    exec(compile(lines, what, "exec"), names)


def take_steps(row, steps):
    packages, names = steps.machine.packages, steps.names()
    if row.staged:
        packages.stage(*row.staged)
    if row.stick:
        packages.stage(*row.stick, folder=paths.STICK)
    run_lines(row.before, "before", names)
    if row.board != "none":
        steps.switch_board_on(*row.board)
    steps.start()
    if row.click:
        steps.press()
    run_lines(row.during, "during", names)


def end_steps(*_):
    raise TimeoutError("the steps do not end")


def run(row, rows, machine, log, has_tap=False):
    """Returns the differences from the row."""
    log.start()
    threading.Thread(target=tell_start, args=[machine], daemon=True).start()
    limit = verdict.SLOWNESS * row.limit
    given_up = time.monotonic() + limit
    signal.signal(signal.SIGALRM, end_steps)
    signal.alarm(limit)
    try:
        steps = Steps(machine, row, has_tap)
        take_steps(row, steps)
    except Exception:
        return [traceback.format_exc()]
    finally:
        signal.alarm(0)

    while True:
        found = verdict.differences(row, rows, log, steps)
        first = next(found, None)  # cheap comparisons come first
        if first is None:
            break
        if time.monotonic() > given_up:
            return [first, *found]
        time.sleep(POLL_S)
    time.sleep(row.holds)
    if machine.board.process:
        machine.board.stop()
    if machine.tap.process:  # after the board, so that it has all that the board has sent
        machine.tap.stop()
    found = list(verdict.differences(row, rows, log, steps, is_over=True))
    return found + list(tap_differences(row)) if has_tap else found


def tap_differences(row):
    """The bytes in the recording of the tap are those that the board received and sent."""
    if not paths.TAP_RECORDING.exists():
        return
    board, tap = (line_bytes(text_of(path), pattern) for path, pattern in
                  ((paths.BOARD_LOG, TRANSCRIBED), (paths.TAP_RECORDING, RECORDED)))
    faults = " ".join(row.board)
    if "lose-bytes" in faults:
        tap["->"] = board["->"]  # the board has lost them after the tap
    elif "hang-up" in faults:
        tap["->"] = tap["->"][:len(board["->"])]  # the rest came too late for the board
    for mark in ("->", "<-"):
        if tap[mark] != board[mark]:
            yield f"{mark} the tap has recorded {len(tap[mark]) // 2} bytes, the board {len(board[mark]) // 2}"


def line_bytes(text, pattern):
    """The bytes in a transcript or a recording, by direction."""
    found, mark = {"->": "", "<-": ""}, ""
    for match in filter(None, map(pattern.fullmatch, text.splitlines())):
        mark = match[1] or mark
        found[mark] += match[2].replace(" ", "")
    return found


def main(build, packages, name, *more):
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.SIG_DFL)  # the caller may ignore them, and children inherit that
    rows = table.load()
    row = next(row for row in rows["rows"] if row.name == name)
    if "libsolv" in more:
        row = dataclasses.replace(row, **row.libsolv)
    with Machine(build, packages) as machine:
        log = Log()
        found = run(row, rows, machine, log, "--tap" in more)
    for difference in found:
        print(difference)
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
