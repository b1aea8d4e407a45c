"""The serial line of a check: the tap at the device, and the program's library behind it on the simulated machine."""

import re
import subprocess
import time
from dataclasses import dataclass, field

from rehearsal.host import OWN_FAULT, SANDBOX, HostError, end_group, text_of

PROGRAM_DEVICE = "/dev/ttymxc1"  # the fixed paths of the program
PROGRAM_FIRMWARE = "/root/mcu/UpdataSystem.bin"
POLL_S = 0.05
QUIET_S = 1  # a malformed reply ends with 250 ms of silence; the next request comes later
TAP_ENDS = (0, 1)  # exit statuses of a tap that has told all
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
        self._file = open(self._transcript, "w+", encoding="utf-8", errors="replace")
        self._rest = ""
        self._errors = folder / "tap.errors"
        # It ends with this process, even with one that is killed.
        self._command = ["setpriv", "--pdeathsig", "TERM", build / "simulator/boardtap", "--device", device, "--link",
                         self.link, "--record", recording, "--transcript", self._transcript, "--hex", "short"]
        self._process = None

    def __enter__(self):
        try:
            with open(self._errors, "wb") as errors:
                self._process = subprocess.Popen(self._command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                                 stderr=errors, start_new_session=True)
            if not self._process.stdout.readline().startswith(b"ready "):
                raise HostError(self._fault() or "boardtap does not start")
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        self.stop()
        self._file.close()

    def stop(self):
        if not self._process:
            return
        if self._process.poll() is None:
            self._process.terminate()
        self._process.wait()
        self._process.stdout.close()

    def end(self):
        """The last events come then. Raises HostError when the tap has failed: events are missing."""
        self.stop()
        if self._process.returncode not in TAP_ENDS:
            raise HostError(self._fault() or f"boardtap has ended with {self._process.returncode}")
        self.read()

    def _fault(self):
        lines = text_of(self._errors).strip().splitlines()
        return lines[-1].removeprefix("boardtap: ") if lines else ""

    @property
    def is_running(self):
        return self._process.poll() is None

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
                end_group(machine)
            said.seek(0)
            results = (line.rstrip("\n").partition(": ") for line in said)
            exchange.results = {name: result for name, _, result in results if name in names}
        time.sleep(QUIET_S)
        self.settle()
        if machine.returncode == OWN_FAULT and not self._tap.has_gone:
            raise HostError(text_of(self._errors).strip().removeprefix("sandbox/run: "))
        if exchange.given_up and self._tap.is_running and not exchange.events:
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
        while machine.poll() is None and self._tap.is_running and not self._tap.has_gone:
            self.settle()
            self._show(exchange.events)
            sign, seconds = patience(exchange.events)
            if sign != last_sign:
                last_sign, since = sign, time.monotonic()
            elif time.monotonic() - since > seconds:
                exchange.given_up = True
                return
            time.sleep(POLL_S)
