"""The program and the simulated board as processes."""

import json
import os
import re
import signal
import subprocess

from . import paths
from .watch import WAIT_S, await_, text_of

EMULATOR = os.environ.get("UPDATE_ASSISTANT_EMULATOR", "").split()  # runs programs for another processor


class Process:
    """A process in a process group of its own, but not in a session of its own.

    A malformed pid file makes the program kill its process group. As a session leader the program would get
    the serial line as its controlling terminal, and would end when the board is switched off.
    """

    def __init__(self, environment, path, log):
        self.command = [*EMULATOR, path]
        self.log = log  # the file that follow() prints
        self.process = None  # the Popen of the last start, until its end
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
        """Ends the process by a signal. Returns its exit status, as wait() does."""
        self.process.send_signal(number)
        return self.wait()

    def wait(self):
        """Waits for the end of the process. Returns its exit status: -N after signal N."""
        status = self.process.wait(WAIT_S)
        if self._follower:
            self._follower.wait()
            self._follower = None
        self.process = None
        return status

    def follow(self, name):
        """Prints each new output line of its log, with the name in front, until the process ends."""
        self.log.touch()
        self._follower = subprocess.Popen(
            ["sh", "-c", 'tail --pid="$1" -n +1 -s 0.2 -f "$2" | sed -u "s/^/$3 | /"', "follow",
             str(self.pid), self.log, name])

    def close(self):
        if self.process:
            self.stop(signal.SIGKILL)


class Program(Process):
    """The unchanged program. `command` can be replaced by a command that starts it."""

    def start(self, *arguments):
        """Returns the Popen. Output is written to the log line by line."""
        return self._start(["stdbuf", "-oL", *self.command, *arguments], self.log, "ab")


class Board(Process):
    """The simulated board, `boardsim`, on the serial line that the program opens. It writes to the folder."""

    def __init__(self, environment, path, device=paths.BOARD_DEVICE, folder=paths.STATE):
        super().__init__(environment, path, folder / paths.BOARD_LOG.name)
        self.received = folder / paths.RECEIVED.name
        self._device = device
        self._summary = folder / paths.BOARD_SUMMARY.name
        self._output = folder / paths.BOARD_OUTPUT.name

    def start(self, *options):
        self._start_on_line("--image", self.received, *options)

    def replay(self, recording, pace):
        """Starts the board of a recording."""
        self._start_on_line("--replay", recording, "--replay-pace", pace)

    def _start_on_line(self, *options):
        self._start([*self.command, "--link", self._device, "--transcript", self.log, "--summary", self._summary,
                     *options], self._output, "wb")
        await_("the board", lambda: text_of(self._output).startswith("ready "), process=self.process)

    def start_with_tap(self, tap, *options):
        """Starts the board behind `tap`, a Tap: the program opens the tap's line."""
        device, self._device = self._device, tap.device
        try:
            self.start(*options)
        finally:
            self._device = device
        tap.start(device)

    def saw(self, expression):
        """Whether an output line of the transcript matches the regular expression."""
        return re.search(expression, text_of(self.log), re.MULTILINE) is not None

    def summary(self):
        """The summary that boardsim writes when it stops; None before."""
        text = text_of(self._summary)
        return json.loads(text) if text else None


class Tap(Process):
    """`boardtap` between the simulated board and the program. It writes to the folder."""

    def __init__(self, environment, path, folder=paths.STATE):
        super().__init__(environment, path, folder / paths.TAP_LOG.name)
        self.device = folder / "board.line"  # the line of the board behind the tap
        self.recording = folder / paths.TAP_RECORDING.name
        self._output = folder / "boardtap.out"

    def start(self, link):
        self._start([*self.command, "--device", self.device, "--link", link, "--transcript", self.log,
                     "--hex", "short", "--record", self.recording], self._output, "wb")
        await_("the tap", lambda: text_of(self._output).startswith("ready "), process=self.process)
