"""Looking at a machine of any kind: waiting, files, a console, and a report of what was seen."""

import filecmp
import os
import pathlib
import re
import subprocess
import time

WAIT_S = 120  # only a hang is ever that slow
POLL_S = 0.05
RESULT_LINE = re.compile(r"^qml: result: (-?\d+)\s+index: (\d+) ", re.MULTILINE)


class WaitError(Exception):
    """What was awaited has not come."""


def await_(what, condition, *arguments, process=None):
    """Waits until condition(*arguments) holds, and returns its value.

    Raises a WaitError after WAIT_S, or at once when the process, a Popen, has ended meanwhile.
    """
    limit = time.monotonic() + WAIT_S
    while True:
        has_ended = process is not None and process.poll() is not None
        value = condition(*arguments)
        if value:
            return value
        if has_ended:
            raise WaitError(f"the program has ended while waiting for: {what}")
        if time.monotonic() >= limit:
            raise WaitError(f"timed out waiting for: {what}")
        time.sleep(POLL_S)


def run(*command, environment=None):
    """Runs a command to its end. Returns a CompletedProcess; all that it says is in `stdout`."""
    return subprocess.run(list(map(str, command)), env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                          check=False)


def is_running(pid):
    """Whether there is such a process. One that has ended but is not waited for yet does not count."""
    state = re.search(r"^State:\t(.)", text_of(f"/proc/{pid}/status"), re.MULTILINE)
    return bool(state) and state[1] not in "ZX"


def text_of(path):
    """The content of a text file, "" when there is none."""
    try:
        return pathlib.Path(path).read_text(encoding="utf-8", errors="replace")
    except OSError:
        return ""


def names_in(folder):
    """The sorted names in a folder, none when there is no such folder."""
    try:
        return sorted(os.listdir(folder))
    except OSError:
        return []


def same_content(one, other):
    """Whether both files are there and have the same bytes."""
    try:
        return filecmp.cmp(one, other, shallow=False)
    except OSError:
        return False


def same_folder(one, other):
    """Whether both folders hold the same."""
    return run("diff", "-r", one, other).returncode == 0


class Console:
    """What the program and its commands have printed, in a file that grows."""

    def __init__(self, path):
        self.path = path

    @property
    def text(self):
        return text_of(self.path)

    @property
    def lines(self):
        return self.text.splitlines()

    @property
    def results(self):
        """The [status, index] of each package, in the order in which their installations ended."""
        return [[int(part) for part in match] for match in RESULT_LINE.findall(self.text)]

    def printed(self, text):
        return text in self.text

    def printed_in_order(self, *texts):
        """Whether the texts are there, each in a later line than the one before."""
        lines = iter(self.lines)
        return all(any(text in line for line in lines) for text in texts)

    def package_ended(self, status, index):
        return [status, index] in self.results

    def clear(self):
        open(self.path, "w", encoding="utf-8").close()


class Report:
    """The stages of a demonstration, and facts that have to be true."""

    def __init__(self, before_s=0):
        """`before_s` is the time that has gone into it before."""
        self.failures = 0
        self._started = time.monotonic() - before_s

    def stage(self, text):
        print(f"\n== {text}", flush=True)

    def fact(self, text, is_true):
        print(f"   {'ok' if is_true else 'FAILED':7} {text}", flush=True)
        self.failures += not is_true

    def close(self, pictures):
        """Ends the report. Returns the exit status: 0 when all its facts are true, else 1."""
        print(f"   pictures in {pictures}, total time {time.monotonic() - self._started:.0f} s", flush=True)
        return 1 if self.failures else 0
