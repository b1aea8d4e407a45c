"""Inspects machines of any kind: waiting, files, the console and a report."""

import filecmp
import os
import pathlib
import re
import subprocess
import time

WAIT_S = 120  # longer than any step takes without a hang
POLL_S = 0.05
RESULT_LINE = re.compile(r"^qml: result: (-?\d+)\s+index: (\d+) ", re.MULTILINE)


class WaitError(Exception):
    """An awaited condition has not become true."""


def await_(what, condition, *arguments, process=None):
    """Waits until condition(*arguments) is true, and returns its value.

    Raises a WaitError after WAIT_S, or as soon as the process, a Popen, has ended.
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
    """Runs a command to its end. Returns a CompletedProcess with the whole output in `stdout`."""
    return subprocess.run(list(map(str, command)), env=environment, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                          check=False)


def is_running(pid):
    """Whether the process exists. A zombie does not count."""
    state = re.search(r"^State:\t(.)", text_of(f"/proc/{pid}/status"), re.MULTILINE)
    return bool(state) and state[1] not in "ZX"


def text_of(path):
    """The content of a text file; "" if it does not exist."""
    try:
        return pathlib.Path(path).read_text(encoding="utf-8", errors="replace")
    except OSError:
        return ""


def names_in(folder):
    """The sorted names in a folder; empty if it does not exist."""
    try:
        return sorted(os.listdir(folder))
    except OSError:
        return []


def same_content(one, other):
    """Whether both files exist and have the same bytes."""
    try:
        return filecmp.cmp(one, other, shallow=False)
    except OSError:
        return False


def same_folder(one, other):
    """Whether both folders have the same contents."""
    return run("diff", "-r", one, other).returncode == 0


class Console:
    """The output of the program and its commands, in a file that grows."""

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
        """Whether the texts were printed, each in a later output line than the text before it."""
        lines = iter(self.lines)
        return all(any(text in line for line in lines) for text in texts)

    def package_ended(self, status, index):
        return [status, index] in self.results

    def clear(self):
        open(self.path, "w", encoding="utf-8").close()


class Report:
    """Prints the stages of a demonstration and the facts that must be true."""

    def __init__(self, before_s=0):
        """`before_s` is added to the reported total time."""
        self.failures = 0
        self._started = time.monotonic() - before_s

    def stage(self, text):
        print(f"\n== {text}", flush=True)

    def fact(self, text, is_true):
        print(f"   {'ok' if is_true else 'FAILED':7} {text}", flush=True)
        self.failures += not is_true

    def close(self, pictures):
        """Ends the report. Returns the exit status: 0 when every fact is true, else 1."""
        print(f"   pictures in {pictures}, total time {time.monotonic() - self._started:.0f} s", flush=True)
        return 1 if self.failures else 0
