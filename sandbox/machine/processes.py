"""The program and the board, as processes of the machine."""

import json
import os
import re
import signal
import subprocess

from . import paths
from .watch import WAIT_S, await_, text_of

EMULATOR = os.environ.get("UPDATE_ASSISTANT_EMULATOR", "").split()  # for another processor's programs


class Process:
    """A process of the machine.

    It runs in a group of its own, for a pid file that is no number ends the group; but in no session of
    its own: the line would be its terminal there, and end the program when the board is switched off.
    """

    def __init__(self, environment, path, log):
        self.command = [*EMULATOR, path]
        self.log = log  # what is worth following
        self.process = None  # the Popen of the last start, until it is stopped
        self._environment = environment
        self._follower = None

    def _start(self, command, output, mode):
        with open(output, mode) as file:
            self.process = subprocess.Popen(command, env=self._environment, stdin=subprocess.DEVNULL,
                                            stdout=file, stderr=subprocess.STDOUT, process_group=0)
        return self.process

    @property
    def pid(self):
        return self.process.pid

    @property
    def is_running(self):
        return self.process is not None and self.process.poll() is None

    def stop(self, number=signal.SIGTERM):
        """Ends it by a signal. Returns its exit status, as wait() does."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        """Waits for its end. Returns its exit status, the negative number of the signal that has killed it."""
        status = self.process.wait(WAIT_S)
        if self._follower:
            self._follower.wait()
            self._follower = None
        self.process = None
        return status

    def follow(self, name):
        """Prints the lines of its log as they come, each behind the name, until it has ended."""
        self.log.touch()
        self._follower = subprocess.Popen(
            ["sh", "-c", 'tail --pid="$1" -n +1 -s 0.2 -f "$2" | sed -u "s/^/$3 | /"', "follow",
             str(self.pid), self.log, name])

    def close(self):
        if self.process:
            self.stop(signal.SIGKILL)


class Program(Process):
    """The unchanged program. `command` may be another that starts it."""

    def start(self, *arguments):
        """Returns the Popen. What is printed is in the log as soon as it is printed."""
        return self._start(["stdbuf", "-oL", *self.command, *arguments], self.log, "ab")


class Board(Process):
    """The simulated board, `boardsim`, on the line that the program opens. The folder gets what it writes."""

    def __init__(self, environment, path, device=paths.BOARD_DEVICE, folder=paths.STATE):
        super().__init__(environment, path, folder / paths.BOARD_LOG.name)
        self.received = folder / paths.RECEIVED.name
        self._device = device
        self._summary = folder / paths.BOARD_SUMMARY.name
        self._output = folder / paths.BOARD_OUTPUT.name

    def start(self, *options):
        self._start([*self.command, "--link", self._device, "--image", self.received,
                     "--transcript", self.log, "--summary", self._summary, *options], self._output, "wb")
        await_("the board", lambda: text_of(self._output).startswith("ready "), process=self.process)

    def saw(self, expression):
        """Whether the transcript has a line that the regular expression fits."""
        return re.search(expression, text_of(self.log), re.MULTILINE) is not None

    def summary(self):
        """What it says of the line once it is stopped; None before. Its exit status is 0 when all was right."""
        text = text_of(self._summary)
        return json.loads(text) if text else None
