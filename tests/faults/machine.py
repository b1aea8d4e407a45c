"""Runs one row on the simulated machine: machine.py BUILD PACKAGES ROW. Started by run.py.

Prints the differences, nothing when all is as the row says. The exit status is 0 or 1.
"""

import itertools
import os
import pathlib
import signal
import subprocess
import sys
import time

import table
import verdict

STEPS = pathlib.Path(__file__).with_name("steps")
POLL_S = 0.02
BOARD_END_S = 30  # only a hang is ever that slow


class Log:
    """The lines of the console and of the screen, each with the time at which it was seen."""

    FILES = (verdict.STATE / "program.log", verdict.STATE / "screen.log")

    def __init__(self):
        self._lines = []
        self._read = dict.fromkeys(self.FILES, 0)

    def follow(self):
        for path in self.FILES:
            lines = verdict.text_of(path).split("\n")[:-1]
            now = time.monotonic()
            self._lines += [(now, line) for line in lines[self._read[path]:]]
            self._read[path] = len(lines)

    def seconds_between(self, first, then):
        """From the last line with `first` to the earliest line with `then`; None without them."""
        end = next((i for i, (_, line) in enumerate(self._lines) if then in line), 0)
        start = next((seen for seen, line in reversed(self._lines[:end]) if first in line), None)
        return None if start is None else self._lines[end][0] - start


def start_steps(row, build, packages):
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
        signal.signal(number, signal.SIG_DFL)  # whoever started this may have them ignored
    environment = os.environ | {
        "ROW_BUILD": build,
        "ROW_PACKAGES": packages,
        "ROW_STAGED": "\n".join(row.staged),
        "ROW_STICK": "\n".join(row.stick),
        "ROW_BOARD": row.board if row.board == "none" else "\n".join(row.board),
        "ROW_BEFORE": row.before,
        "ROW_CLICK": "yes" if row.click else "",
        "ROW_DURING": row.during,
    }
    with open(verdict.STATE / "steps.log", "wb") as log:
        # A `kill -9 0` must not reach whoever started the machine: groups go beyond its processes.
        return subprocess.Popen(["bash", STEPS], env=environment, stdout=log, stderr=log,
                                start_new_session=True)


def switch_board_off():
    pid = verdict.text_of(verdict.STATE / "board.pid").strip()
    if not pid:
        return
    os.kill(int(pid), signal.SIGTERM)
    limit = time.monotonic() + BOARD_END_S
    while verdict.is_running(pid) and time.monotonic() < limit:
        time.sleep(POLL_S)


def wait_for_outcome(row, rows, log, packages, steps):
    """Returns the differences once there are none, or those that are left at the row's limit."""
    limit = time.monotonic() + verdict.SLOWNESS * row.limit
    while True:
        log.follow()
        if steps.poll() not in (None, 0):
            return ["the steps failed:\n" + verdict.text_of(verdict.STATE / "steps.log")]
        if steps.poll() == 0:
            differences = verdict.differences(row, rows, log, packages)
            first = list(itertools.islice(differences, 1)) # the cheap ones come first
            if not first or time.monotonic() > limit:
                return first + list(differences)
        elif time.monotonic() > limit:
            return ["the steps do not end"]
        time.sleep(POLL_S)


def run(name, build, packages):
    rows = table.load()
    row = next(row for row in rows["rows"] if row.name == name)
    log = Log()
    steps = start_steps(row, build, packages)
    found = wait_for_outcome(row, rows, log, packages, steps)
    if not found:
        time.sleep(row.holds)
        log.follow()
        switch_board_off()
        found = list(verdict.differences(row, rows, log, packages, is_over=True))
    return found


if __name__ == "__main__":
    DIFFERENCES = run(sys.argv[3], sys.argv[1], sys.argv[2])
    for difference in DIFFERENCES:
        print(difference)
    sys.exit(1 if DIFFERENCES else 0)
