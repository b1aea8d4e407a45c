"""The serial line of a check: the tap at the device, and the program's library behind it on the simulated machine."""

import contextlib
import os
import re
import signal
import subprocess
import time
from dataclasses import dataclass, field

from rehearsal.host import OWN_FAULT, SANDBOX, HostError, text_of

PROGRAM_DEVICE = "/dev/ttymxc1"  # the fixed paths of the program
PROGRAM_FIRMWARE = "/root/mcu/UpdataSystem.bin"
POLL_S = 0.05
START_S = 20  # for the tap
LINE = re.compile(r" *(\d+\.\d+) (->|<-|--|!!) (.*)")
FRAME = re.compile(r"(.*) \((\d+) bytes?\): .*")
VIOLATION = "violation: "
GONE = "device has gone"


@dataclass
class Event:
    """A frame on the line, or a note of the tap."""

    seconds: float  # since the start of the tap
    mark: str  # "->" to the board, "<-" from it, "--" a note
    meaning: str
    size: int = 0
    violations: list = field(default_factory=list)


@dataclass
class Exchange:
    """What happened while calls of the program's library ran."""

    events: list = field(default_factory=list)
    results: dict = field(default_factory=dict)  # by call; without those that have not returned
    given_up: bool = False  # the calls did not return

    def requests(self):
        return [event for event in self.events if event.mark == "->"]

    def replies(self, request):
        """What the board has sent between a request and the next one."""
        found = []
        for event in self.events[self.events.index(request) + 1:]:
            if event.mark == "->":
                break
            if event.mark == "<-":
                found.append(event)
        return found

    @property
    def gone(self):
        return any(event.mark == "--" and event.meaning == GONE for event in self.events)


class Tap:
    """boardtap at the device. Its transcript says what goes over the line."""

    def __init__(self, build, device, recording, folder):
        self.link = folder / "line"
        self.events = []
        self._transcript = folder / "transcript"
        self._file = None
        self._rest = ""
        self._errors = folder / "tap.errors"
        with open(self._errors, "wb") as errors:
            self._process = subprocess.Popen(
                [build / "simulator/boardtap", "--device", device, "--link", self.link, "--record", recording,
                 "--transcript", self._transcript, "--hex", "short"],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors, start_new_session=True)

    def __enter__(self):
        if not self._process.stdout.readline().startswith(b"ready "):
            self._process.wait()
            raise HostError(text_of(self._errors).strip().removeprefix("boardtap: ") or "boardtap does not start")
        self._file = open(self._transcript, encoding="utf-8", errors="replace")
        return self

    def __exit__(self, *_):
        self.end()
        self._file.close()

    def end(self):
        """The last events come then."""
        if self._process.poll() is None:
            self._process.terminate()
        self._process.wait()
        self._process.stdout.close()
        self.read()

    def read(self):
        """Takes the new events."""
        *lines, self._rest = (self._rest + self._file.read()).split("\n")
        for line in filter(None, map(LINE.fullmatch, lines)):
            self._take(float(line[1]), line[2], line[3])

    def _take(self, seconds, mark, text):
        if mark == "!!":
            self.events[-1].violations.append(text.removeprefix(VIOLATION))
            return
        frame = FRAME.fullmatch(text) if mark != "--" else None
        self.events.append(Event(seconds, mark, frame[1], int(frame[2])) if frame else Event(seconds, mark, text))

    @property
    def has_gone(self):
        return Exchange(self.events).gone


class Line:
    """Lets the program's library use the line of a tap."""

    def __init__(self, build, tap, firmware, folder, show):
        """`show(events)` is called now and then."""
        self._build = build
        self._tap = tap
        self._firmware = firmware
        self._errors = folder / "machine.errors"
        self._output = folder / "machine.output"
        self._show = show
        self._exchanges = []  # with the number of the first event of each

    def call(self, *names, patience):
        """Runs calls of tests/recordings/bridgecalls.cpp on a simulated machine. `patience(events)` is a sign and a number
        of seconds: the calls are given up when the sign has been the same for so long. Returns the Exchange."""
        exchange = Exchange()
        self._exchanges.append((exchange, len(self._tap.events)))
        with open(self._output, "w+", encoding="utf-8", errors="replace") as said, open(self._errors, "wb") as errors:
            machine = subprocess.Popen(list(map(str, self._command(names))), stdin=subprocess.DEVNULL, stdout=said,
                                       stderr=errors, start_new_session=True)
            try:
                self._follow(machine, exchange, patience)
            finally:
                # All of its processes: one that has just begun does not end with its parent.
                with contextlib.suppress(ProcessLookupError):
                    os.killpg(machine.pid, signal.SIGKILL)
                machine.wait()
            said.seek(0)
            results = (line.rstrip("\n").partition(": ") for line in said)
            exchange.results = {name: result for name, _, result in results if name in names}
        self.settle()
        if machine.returncode == OWN_FAULT and not self._tap.has_gone:
            raise HostError(text_of(self._errors).strip().removeprefix("sandbox/run: "))
        if exchange.given_up and not exchange.events:
            raise HostError("the simulated machine sends nothing: this host is too busy")
        return exchange

    def settle(self):
        """Gives each exchange the events from its first request up to the next one's, by their times: what is malformed
        comes late, and the last of it when the tap has ended."""
        self._tap.read()
        events = sorted(self._tap.events, key=lambda event: event.seconds)
        end = float("inf")
        for exchange, first in reversed(self._exchanges):
            begin = next((event.seconds for event in self._tap.events[first:] if event.mark == "->"), end)
            exchange.events = [event for event in events if begin <= event.seconds < end]
            end = begin

    def _command(self, names):
        placed = ["--place", f"{PROGRAM_FIRMWARE}={self._firmware.resolve()}"] if self._firmware else []
        return [SANDBOX, "--private", "--no-network", "--device", f"{PROGRAM_DEVICE}={self._tap.link}", *placed,
                "--show", self._build, "--", self._build / "tests/recordings/bridgecalls", *names]

    def _follow(self, machine, exchange, patience):
        last_sign, since = None, 0
        while machine.poll() is None and not self._tap.has_gone:
            self.settle()
            self._show(exchange.events)
            sign, seconds = patience(exchange.events)
            if sign != last_sign:
                last_sign, since = sign, time.monotonic()
            elif time.monotonic() - since > seconds:
                exchange.given_up = True
                return
            time.sleep(POLL_S)
