"""The part of a rehearsal that runs on the simulated machine: machine_run.py BUILD. Started by host.py.

It reads /run/machine/plan.json, which host.py describes, and tells what happens as lines of JSON on the standard
output. The last one is "end". The update's own output is in files in /run/machine. Times are seconds since the start
of the program.
"""

import hashlib
import json
import os
import pathlib
import re
import shutil
import signal
import stat
import subprocess
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(PROJECT), str(PROJECT / "sandbox")]

from machine import Machine, paths
from machine.packages import INSTALL
from machine.screen import HEIGHT, WIDTH
from rehearsal.screen import SUCCESS, TIPS, Display

SOURCE = pathlib.Path("/run/source")  # the packages to be staged
LINKS = pathlib.Path("/run/links")  # copies of those that are links
PREVIOUS = pathlib.Path("/run/previous")  # those of the previous release
PLAN = paths.STATE / "plan.json"
RECORDS = paths.STATE / "records.jsonl"  # the calls of the package manager
PREVIOUS_LOG = paths.STATE / "previous.log"
PICTURES = paths.STATE / "pictures"
STICK_ROOT = paths.STICK.parent
MOUNTS = STICK_ROOT.parent  # where the program looks for an application image

POLL_S = 0.05
START_S = 30  # until the window is there
BOARD_OFF_S = 2  # of silence after a serial line that does not open
SETTLED_S = 1  # of silence after the last word of the screen
LONGEST_LINE = 4096
PIECE = 1 << 20
MOST_PIECES = 64  # read at a time
LARGEST_FIRMWARE = 1 << 28

RESULT = re.compile(r"^qml: result: (-?\d+)\s+index: (\d+)\s+ipkList\.length: (\d+)$")
BLOCK = re.compile(r"-> block (\d+) of (\d+),")
NO_LINE = "Unable to open serial port"
BOARD_OPTIONS = {  # by whether the board has a real one's pace
    True: ["--pace", "115200"],
    # The program reads ten bytes at a time, so it waits for nothing when each reply is repeated ten times. The delays
    # keep a `C` out of the reply to the start command, also on a busy host.
    False: ["--control-repeat", "10", "--boot-delay", "2500", "--request-interval", "3000"],
}


def tell(event, **facts):
    print(json.dumps({"event": event, **facts}), flush=True)


def packages_in(folder):
    """The names that `ls *.ipk` lists there, in its order."""
    names = (os.fsencode(name) for name in os.listdir(folder))
    return [os.fsdecode(name) for name in sorted(names) if name.endswith(b".ipk") and not name.startswith(b".")]


def as_text(name):
    """A file name as text that JSON carries, as inspection has it."""
    return os.fsencode(name).decode("utf-8", "surrogateescape")


class Lines:
    """The lines with one of the marks that a growing file has got. It may grow very fast."""

    def __init__(self, path, *marks):
        self._path = path
        self._marks = marks
        self._file = None
        self._rest = b""

    def new(self):
        """Whether the file has grown since the last call, and the new lines with a mark."""
        if not self._file:
            try:
                self._file = open(self._path, "rb")
            except FileNotFoundError:
                return False, []
        grown, found = False, []
        for _ in range(MOST_PIECES):
            data = self._file.read(PIECE)
            if not data:
                break
            grown = True
            data = self._rest + data
            end = data.rfind(b"\n") + 1
            whole, self._rest = data[:end], data[end:][:LONGEST_LINE]
            if any(mark in whole for mark in self._marks):
                found += [line[:LONGEST_LINE].decode("utf-8", "replace") for line in whole.split(b"\n")
                          if any(mark in line for mark in self._marks)]
        return grown, found


class Watch:
    """What the screen, the console and the serial line have shown so far."""

    def __init__(self, display, started):
        self._display = display
        self._started = started
        self._console = Lines(paths.PROGRAM_LOG, b"qml: result:", NO_LINE.encode())
        self._transcript = Lines(paths.BOARD_LOG, b"-> block ")
        self._wanted = []  # pictures to be taken when the screen stands still
        self._pictures = set()
        self.frame = None
        self.is_still = False
        self.tips, self.is_success = "", False
        self._parts = None  # of the screen, which tell these two
        self.results = []
        self.count = None  # of packages, as the program says
        self.has_no_line = False
        self.last_sign = time.monotonic()  # of anything

    def seconds(self):
        return round(time.time() - self._started, 3)

    def poll(self):
        for source, take in ((self._console, self._read), (self._transcript, self._tell_block)):
            has_grown, lines = source.new()
            if has_grown:
                self._sign()
            for line in lines:
                take(line)
        frame = self._display.frame()
        self.is_still = frame == self.frame
        if not self.is_still:
            self._sign()
            self.frame = frame
            self._look()
        elif self._wanted and not frame.is_blank:
            self.take_wanted()

    def _sign(self):
        self.last_sign = time.monotonic()

    def _read(self, line):
        result = RESULT.match(line)
        if result:
            status, index, self.count = map(int, result.groups())
            self.results.append([status, index])
            tell("result", status=status, index=index, of=self.count, at=self.seconds())
        elif NO_LINE in line:
            self.has_no_line = True

    def _tell_block(self, line):
        block = BLOCK.search(line)
        if block:
            tell("block", number=int(block[1]), of=int(block[2]), at=self.seconds())

    def _look(self):
        parts = self.frame.part(TIPS), self.frame.part(SUCCESS)
        if parts == self._parts:
            return
        self._parts = parts
        state = self.frame.tips, self.frame.is_success
        if state != (self.tips, self.is_success):
            self.tips, self.is_success = state
            tell("screen", tips=self.tips, success=self.is_success, at=self.seconds())

    def quiet_s(self):
        return time.monotonic() - self.last_sign

    def want(self, name, title):
        if name not in self._pictures:
            self._pictures.add(name)
            self._wanted.append((name, title))

    def take_wanted(self):
        for name, title in self._wanted:
            self.frame.save(PICTURES / f"{name}.png")
            tell("picture", name=name, title=title, at=self.seconds())
        self._wanted = []


class Ended(Exception):
    """The update has ended: `how` it did, a key of comparison.OUTCOMES, and what was `awaited` if nothing came."""

    def __init__(self, how, awaited=""):
        super().__init__(how)
        self.how = how
        self.awaited = awaited


class Rehearsal:
    def __init__(self, machine, plan):
        self.machine = machine
        self.plan = plan
        self.display = Display()
        self.watch = None
        self.started = 0  # when the program was
        self.board_started = None
        self.firmware = None  # the open file that the board is to get

    # ------------------------------------------------------------------ before the update

    def install_previous(self):
        """Returns the file that cannot be installed, if there is one."""
        files = packages_in(PREVIOUS)
        for index, name in enumerate(files):
            tell("previous", index=index, of=len(files), file=as_text(name))
            with open(PREVIOUS_LOG, "ab") as log:
                try:
                    call = subprocess.run([*INSTALL.split(), PREVIOUS / name], env=self.machine.environment, check=False,
                                          stdin=subprocess.DEVNULL, stdout=log, stderr=log, timeout=self.limit_of(name))
                    status = call.returncode
                except subprocess.TimeoutExpired:
                    status = None
            if status != 0:
                tell("previous failed", file=as_text(name), status=status)
                return name
        return None

    def limit_of(self, name):
        return self.plan["limits"].get(as_text(name), self.plan["limit"])

    def stage(self):
        """As whoever stages an update copies it. Returns what went wrong, if anything did."""
        paths.STAGED.mkdir(parents=True)
        linked = set(names_in(LINKS))
        files = [(LINKS if name in linked else SOURCE) / name for name in packages_in(SOURCE)]
        if not files:
            return ""
        call = self.machine.run("cp", "-a", "--", *files, paths.STAGED)
        return call.stdout[-500:] if call.returncode else ""

    def put_stick_in(self):
        """It is at one of the places; the other one has links to all that is there."""
        for name in os.listdir(STICK_ROOT)[:1000]:
            if not os.path.lexists(MOUNTS / name):
                (MOUNTS / name).symlink_to(STICK_ROOT / name)

    def start_board(self):
        if self.plan["board"] is None:
            return
        options = BOARD_OPTIONS[self.plan["real_pace"]]
        started = time.time()
        self.machine.board.start("--hex", "short", *options, *self.plan["board"])
        self.board_started = started

    # ------------------------------------------------------------------ the update

    def run(self):
        machine = self.machine
        PICTURES.mkdir()
        machine.environment |= {"DISPLAY": self.display.start(), "QT_QPA_PLATFORM": "xcb"}
        self.start_board()
        machine.environment |= {"SANDBOX_RECORD": str(RECORDS), "SANDBOX_WATCH": str(paths.FIRMWARE)}
        self.started = time.time()
        machine.program.start()
        self.watch = Watch(self.display, self.started)
        tell("program", at=0, started=self.started, board=self.board_started and round(self.board_started - self.started, 3))
        try:
            self.open_window()
            if self.plan["stick"]:
                self.press_button()
            elif not self.plan["packages"]:
                self.watch.want("idle", "The program waits for its button")
                self.await_("the screen", self.is_settled, START_S)
                raise Ended("idle")
            else:
                self.watch.want("installing", "The update has begun")
            self.install()
            self.update_board()
        except Ended as end:
            outcome = end
        if machine.program.is_running:
            self.settle()
            self.watch.want("end", "The end of the update")
            self.watch.take_wanted()
        return outcome

    def await_(self, what, condition, limit, how="limit"):
        """Polls until the condition holds. Raises Ended when the program ends, or nothing comes within the limit."""
        given_up = time.monotonic() + limit
        while not condition():
            if not self.machine.program.is_running:
                self.watch.poll()
                raise Ended("program ended", what)
            if time.monotonic() > given_up:
                raise Ended(how, what)
            time.sleep(POLL_S)
            self.watch.poll()

    def is_settled(self):
        return self.watch.is_still and not self.watch.frame.is_blank and self.watch.quiet_s() > 0.3

    def settle(self):
        try:
            self.await_("the screen", self.is_settled, 5)
        except Ended:
            pass

    def open_window(self):
        screen = self.machine.screen
        self.await_("the window of the program", screen.has_window, START_S)
        self.machine.run("xdotool", "windowmove", screen.window, 0, 0, "windowsize", screen.window, WIDTH, HEIGHT)
        self.await_("the whole screen", lambda: self.watch.frame and self.watch.frame.is_whole, START_S)

    def press_button(self):
        self.await_("the button of the program", lambda: self.watch.frame and self.watch.frame.has_button, START_S)
        self.watch.want("idle", "The stick is in; the button can be pressed")
        self.await_("the screen", self.is_settled, START_S)
        self.watch.want("installing", "The button has been pressed")
        for _ in range(3):
            self.machine.screen.click(WIDTH // 2, HEIGHT // 2)
            try:
                self.await_("the effect of the button", lambda: self.watch.tips, 5)
                return
            except Ended as end:
                if end.how != "limit":
                    raise
        if not self.plan["image"]:
            raise Ended("limit", "the effect of the button")

    def install(self):
        """Until the last package is installed."""
        files = self.plan["packages"]
        watch = self.watch
        begun, since = None, 0
        while watch.count is None or len(watch.results) < watch.count:
            index = len(watch.results)
            if index != begun:
                begun, since = index, time.monotonic()
                tell("package", index=index, at=watch.seconds())
                count = watch.count or len(files)
                if 2 < count and index == count // 2:
                    watch.want("halfway", f"{index} of {count} packages are installed")
                if 1 < count == index + 1:
                    watch.want("last-package", "The last package is being installed")
            if not files and self.is_refused():
                raise Ended("no package")
            file = files[index] if index < len(files) else ""
            limit = since + self.limit_of(file) - time.monotonic()
            self.await_(f"the end of the installation of {file}" if file else "the result of an installation",
                        lambda: len(watch.results) > index or not files and self.is_refused(), max(limit, 0))
            if watch.results and watch.results[-1][0] != 0:
                self.await_("the failure on the screen", lambda: watch.tips == "red", 10, "package failed")
                raise Ended("package failed")

    def is_refused(self):
        """Whether the screen shows that the stick has no package."""
        return self.plan["stick"] and self.watch.tips not in ("", "white") and self.watch.quiet_s() > SETTLED_S

    def update_board(self):
        """Until the success is on the screen, or nothing is to be expected any more."""
        watch = self.watch
        had_failed = watch.tips == "red"  # the image of a stick makes an update of the board before the packages
        tell("board", at=watch.seconds())
        if not watch.is_success:
            watch.want("control-board", "The control board is being updated")
        watch.last_sign = time.monotonic()

        def has_ended():
            self.check_firmware()
            quiet = watch.quiet_s()
            failed = watch.tips == "red" and not had_failed
            return (watch.is_success or failed and quiet > SETTLED_S or quiet > self.plan["board_limit"]
                    or watch.has_no_line and quiet > BOARD_OFF_S)

        self.await_("the end of the update", has_ended, 86400)
        if watch.is_success:
            raise Ended("success")
        if watch.tips == "red":
            raise Ended("board failed")
        raise Ended("no board" if watch.has_no_line else "board waits", "a sign of the control board")

    def check_firmware(self):
        """Keeps the last firmware that was there: the program deletes it at the end."""
        try:
            state = os.stat(paths.FIRMWARE)
            if self.firmware and os.path.samestat(os.fstat(self.firmware.fileno()), state):
                return
            self.firmware = open(paths.FIRMWARE, "rb", opener=without_waiting)
        except OSError:
            pass

    # ------------------------------------------------------------------ after it

    def what_is_there(self, outcome, before):
        machine = self.machine
        is_running = machine.program.is_running
        status = machine.program.process.poll() if machine.program.process else None
        board_status = machine.board.stop() if machine.board.process else None
        summary = machine.board.summary() or {}
        transfers = summary.get("transfers") or []
        tell("end", outcome=outcome.how, awaited=outcome.awaited, at=self.watch.seconds(),
             results=self.watch.results, before=before, after=states(machine),
             tips=self.watch.tips, success=self.watch.is_success,
             running=is_running, status=status, board_status=board_status,
             violations=[one for one in summary.get("violations", [])[:20]],
             transfer=transfers[-1] if transfers else None,
             firmware=content_of(self.firmware), received=content_of(paths.RECEIVED),
             left=sorted(as_text(name) for name in names_in(paths.FIRMWARE.parent))[:20])


def names_in(folder):
    try:
        return os.listdir(folder)
    except OSError:
        return []


def content_of(source):
    """Size and checksum of a regular file, which is a path or open; None if there is none. Of a large one, those of
    its beginning."""
    if not source:
        return None
    try:
        with source if hasattr(source, "read") else open(source, "rb", opener=without_waiting) as file:
            if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
                return None
            checksum = hashlib.sha256()
            while file.tell() < LARGEST_FIRMWARE:
                piece = file.read(PIECE)
                if not piece:
                    break
                checksum.update(piece)
            return {"size": file.tell(), "sha256": checksum.hexdigest()}
    except OSError:
        return None


def without_waiting(path, flags):
    return os.open(path, flags | os.O_NONBLOCK)


def states(machine):
    """As Packages.states(); empty when the database cannot be read."""
    try:
        return machine.packages.states()
    except (KeyError, IndexError, OSError):
        return {}


def empty(folder):
    for name in names_in(folder):
        path = folder / name
        if path.is_dir() and not path.is_symlink():
            shutil.rmtree(path, ignore_errors=True)
        else:
            path.unlink()


def accept(architectures):
    with open(paths.PACKAGE_SETTINGS, "a", encoding="ascii") as settings:
        for priority, name in enumerate(architectures, 20):
            settings.write(f"arch {name} {priority}\n")


def rehearse(rehearsal, plan):
    machine = rehearsal.machine
    accept(plan["architectures"])
    if plan["previous"] and rehearsal.install_previous() is not None:
        return
    before = states(machine)
    empty(paths.FIRMWARE.parent)
    if plan["stick"]:
        rehearsal.put_stick_in()
    else:
        fault = rehearsal.stage()
        if fault:
            tell("staging failed", text=fault)
    paths.CALLS.unlink(missing_ok=True)
    outcome = rehearsal.run()
    rehearsal.what_is_there(outcome, before)


def main(build):
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
        signal.signal(number, signal.SIG_DFL)  # the caller may ignore them, and children inherit that
    plan = json.loads(PLAN.read_text(encoding="ascii"))
    with Machine(build) as machine:
        rehearsal = Rehearsal(machine, plan)
        try:
            rehearse(rehearsal, plan)
        finally:
            machine.program.close()  # while it still has its display
            rehearsal.display.close()


if __name__ == "__main__":
    main(*sys.argv[1:])
