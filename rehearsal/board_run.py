"""The part of a rehearsal that drives the emulated ARM board: board_run.py BUILD. Started by board.py.

It does what machine_run.py does on the simulated machine, and tells the same events, with three more: "step", what goes on
now (`text`), "system", the `versions` of what is on the board, and "no machine", why it cannot be used (`text`). The plan has more, too:
    settings           of the kernel
    drives             for the emulator: a name, a file, and whether it is only read
    package            the program's package, which is installed there; null: the system starts an assistant itself
Paths below /run/machine are of the host, all others of the board.
"""

import base64
import json
import os
import pathlib
import re
import shlex
import signal
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(PROJECT), str(PROJECT / "sandbox")]

from machine import paths
from machine.emulated import EmulatedMachine, EmulatorError, drive
from machine.packages import INSTALL
from machine.screen import HEIGHT, WIDTH
from machine.watch import WaitError
from rehearsal import machine_run
from rehearsal.machine_run import PICTURES, PLAN, PREVIOUS_LOG, RECORDS, Ended, Rehearsal, Watch, tell
from rehearsal.screen import PIXEL, Frame

SYSTEM = pathlib.Path("/run/system")  # kernel and ram disk
DRIVES = pathlib.Path("/run/drives")
WORK = "/run/rehearsal"  # of the board
STICK_ROOT = paths.STICK.parent
MEMORY_MB = "1024"
BOOT_S = 400  # until the first shell
LONGEST_SETTLING_S = 240  # of the start of the system
IDLE, IDLE_S = 0.9, 4  # the system has started when its processor has been idle for so long
START_S = 120
SLOWER = 4  # the emulator, than the host
AUTOMATIC_MOUNT_S = 10
FRAME_S, LIFE_S, LOOK_S = 0.25, 3, 1  # how often the screen, the program and the firmware are looked at
LARGEST_FIRMWARE = 16 << 20
MOST_OUTPUT = 100_000
KERNEL_LINE = re.compile(rb"\[ *\d+\.\d{6}\] ")
PROGRAM_LINE = re.compile(rb"qml: |sys_line:|ls: ")

machine_run.START_S = START_S  # the emulator is slower than the host


VERSIONS = {
    "system": "sed -n 's/^PRETTY_NAME=//p' /etc/os-release | tr -d '\"'", "kernel": "uname -r",
    "Qt": "find /lib/ /usr/lib/ -name 'libQt5Core.so.5.*' -type f | sed 's/.*so.//'",
    "C library": "find /lib/ /usr/lib/ -name 'libc.so.6' -exec strings {} ';' | sed -n 's/^GNU C Library (\\(.*\\)) .*/\\1/p'",
    "opkg": "opkg --version",
}


class NoMachine(Exception):
    """The board cannot be used. The text says why."""


class BoardDisplay:
    """The display of the emulated board."""

    def __init__(self, link):
        self._link = link
        self._path = "/run/machine/screen.ppm"
        self._frame, self._at = Frame(bytes(WIDTH * HEIGHT * PIXEL)), 0

    def frame(self):
        if time.monotonic() - self._at >= FRAME_S:
            self._link.picture(self._path, "ppm")
            self._frame = _frame_of(pathlib.Path(self._path).read_bytes()) or self._frame
            self._at = time.monotonic()
        return self._frame

    def close(self):
        pass


def _frame_of(picture):
    """The Frame of a binary PPM file; None when it has not the size of the screen, as before its driver is loaded."""
    header = b"P6\n%d %d\n255\n" % (WIDTH, HEIGHT)
    if not picture.startswith(header) or len(picture) < len(header) + 3 * WIDTH * HEIGHT:
        return None
    rgb = picture[len(header):]
    pixels = bytearray(WIDTH * HEIGHT * PIXEL)
    for channel in range(3):
        pixels[2 - channel::PIXEL] = rgb[channel::3]
    return Frame(bytes(pixels))


class Console:
    """Copies what the program says from the console of the board to the program's log, without the kernel's lines."""

    def __init__(self):
        self._console = open(paths.STATE / "console.log", "rb")
        self._log = open(paths.PROGRAM_LOG, "wb")
        self._rest = b""
        self._is_program = False

    def skip(self):
        """What comes from now on is the program's."""
        self._console.seek(0, os.SEEK_END)
        self._is_program = True

    def pump(self):
        *lines, self._rest = (self._rest + self._console.read(1 << 20)).split(b"\n")
        for line in lines:
            line = line.rstrip(b"\r").rpartition(b"\r")[2]  # what a terminal shows in the end
            self._is_program = self._is_program or bool(PROGRAM_LINE.match(line))
            if self._is_program and not KERNEL_LINE.match(line):
                self._log.write(line + b"\n")
        self._log.flush()
        return self._is_program


class BoardProgram:
    """The program on the board, whose life is looked at now and then."""

    process = None  # its exit status is not known

    def __init__(self, machine):
        self._machine = machine
        self._at, self._is_running = 0, False

    def is_there(self):
        return self._machine.link.shell(f'pid=$(cat {paths.PID_FILE}) && [ -d "/proc/${{pid:-none}}" ]').returncode == 0

    @property
    def is_running(self):
        if time.monotonic() - self._at >= LIFE_S:
            self._is_running, self._at = self.is_there(), time.monotonic()
        return self._is_running


class BoardPackages:
    def __init__(self, machine):
        self._machine = machine

    def states(self):
        """As Packages.states(), from what the package manager lists."""
        call = self._machine.link.shell("opkg list-installed")
        fields = (line.split(" - ") for line in call.stdout.splitlines() if call.returncode == 0)
        return {words[0].strip(): f"installed {words[1].strip()}" for words in fields if len(words) > 1}


class BoardWatch(Watch):
    """Records each installation when its result is on the console, for want of a package manager that does."""

    def __init__(self, rehearsal, console):
        super().__init__(rehearsal.display, rehearsal.started)
        self._rehearsal = rehearsal
        self._output = console
        self._last = None
        self._later = None  # the picture that awaits the effect of the button

    def poll(self):
        self._output.pump()
        super().poll()
        if self._later and self.tips:
            super().want(*self._later)
            self._later = None

    def want(self, name, title):
        if name == "installing":
            self._later, self._last = (name, title), time.time()
        else:
            super().want(name, title)

    def _read(self, line):
        known = len(self.results)
        super()._read(line)
        for status, index in self.results[known:]:
            self._rehearsal.record(status, index, self._last)
            self._last = time.time()


class BoardRehearsal(Rehearsal):
    def __init__(self, machine, plan):
        super().__init__(machine, plan)
        self.display = BoardDisplay(machine.link)
        self.console = None
        self._looked = 0

    def shell(self, text):
        return self.machine.link.shell(text)

    def call(self, command, limit):
        """Runs a command that may take long. Returns its status, None after the limit, and its output."""
        self.shell(f"rm -f {WORK}/status; mkdir -p {WORK}\n"
                   f"( {command} >{WORK}/output 2>&1 </dev/null; echo $? >{WORK}/done; mv {WORK}/done {WORK}/status ) &")
        given_up = time.monotonic() + limit
        while time.monotonic() < given_up:
            status = self.shell(f"cat {WORK}/status 2>/dev/null").stdout.strip()
            if status:
                break
            time.sleep(0.3)
        output = self.shell(f"tail -c {MOST_OUTPUT} {WORK}/output").stdout
        return (int(status) if status.isdigit() else None), output

    # ------------------------------------------------------------------ before the update

    def boot(self):
        tell("step", text="the emulated board starts")
        self.start_board()
        self.machine.emulator.start()
        if not self.awaited(self.has_shell, BOOT_S):
            raise NoMachine(f"the emulated board does not start with it: {self.last_words()}")
        self.console = Console()
        tell("step", text="its system starts")
        idle_since, before = None, self.processor()
        for _ in range(LONGEST_SETTLING_S):
            time.sleep(1)
            now = self.processor()
            is_idle = now and before and now[1] - before[1] >= IDLE * (now[0] - before[0])
            idle_since = (idle_since or time.monotonic()) if is_idle else None
            if idle_since and time.monotonic() - idle_since >= IDLE_S:
                break
            if self.machine.console.printed("Kernel panic"):
                raise NoMachine(f"it does not start: {self.last_words()}")
            before = now

    def has_shell(self):
        if not self.machine.emulator.is_running:
            raise NoMachine("the emulator does not start; its log is " + self.machine.emulator.log.read_text(errors="replace"))
        try:
            return self.shell("true").returncode == 0
        except EmulatorError:
            self.machine.link.close()
            return False

    def processor(self):
        """The ticks of the processor, and those in which it was idle."""
        line = self.shell("head -n 1 /proc/stat 2>/dev/null").stdout.split()
        times = [int(part) for part in line[1:9]] if line[:1] == ["cpu"] else []
        return (sum(times), times[3] + times[4]) if len(times) > 4 else None

    def last_words(self):
        lines = [line.strip() for line in self.machine.console.lines if line.strip()]
        panic = next((line for line in lines if "Kernel panic" in line), None)
        return panic or (lines[-1] if lines else "its console shows nothing")

    def tell_versions(self):
        versions = []
        for name, command in VERSIONS.items():
            lines = self.shell(f"{command} 2>/dev/null").stdout.split("\n")
            versions.append({"name": name, "version": lines[0][:100].strip()})
        tell("system", versions=[one for one in versions if one["version"]])

    def install_previous(self):
        files = self.plan["previous_packages"]
        folder = f"{WORK}/previous"
        call = self.shell(f"mkdir -p {folder} && mount -t vfat -o ro,utf8 /dev/vdc1 {folder}")
        if call.returncode:
            raise NoMachine(f"the packages of the previous release cannot be shown to it: {call.stdout}")
        for index, name in enumerate(files):
            tell("previous", index=index, of=len(files), file=name)
            status, output = self.call(f"{INSTALL} {shlex.quote(f'{folder}/{name}')}", self.limit_of(name))
            with open(PREVIOUS_LOG, "a", encoding="utf-8") as log:
                log.write(output)
            if status != 0:
                tell("previous failed", file=name, status=status)
                return name
        self.shell(f"umount {folder}")
        return None

    def prepare_program(self):
        """Installs the program where the system has none. It is started later."""
        self.shell(f"mkdir -p {WORK}")
        if self.plan["package"] is None:
            tell("step", text="the assistant of the machine starts")
            if not self.awaited(self.machine.program.is_there, START_S):
                raise NoMachine(f"its own start of the assistant has not started it: no process has its number in {paths.PID_FILE}")
            if not self.awaited(self.console.pump, START_S):
                raise NoMachine("its own start of the assistant sends the messages elsewhere than to /dev/console, where the "
                                "rehearsal reads them")
            return
        tell("step", text="the program is installed")
        self.machine.copy(pathlib.Path("/run/package.ipk"), f"{WORK}/update-assistant.ipk")
        status, output = self.call(f"{INSTALL} {WORK}/update-assistant.ipk", START_S)
        if status != 0:
            words = [line for line in output.splitlines() if line.strip()]
            raise NoMachine("its opkg does not install the package of the program: "
                            f"{words[-1] if words else f'status {status}'}")

    @staticmethod
    def awaited(condition, limit):
        given_up = time.monotonic() + limit
        while not condition():
            if time.monotonic() > given_up:
                return False
            time.sleep(0.5)
        return True

    def put_stick_in(self):
        """The machine mounts it itself, or the rehearsal does. Its root is what is at both places of the program."""
        tell("step", text="the stick is put in")
        machine, is_mounted = self.machine, f"grep -q ' {STICK_ROOT} ' /proc/mounts"
        machine.link.plug("stick")
        if not self.awaited(lambda: self.shell(is_mounted).returncode == 0, AUTOMATIC_MOUNT_S):
            call = self.shell(f"for try in 1 2 3 4 5 6 7 8 9; do [ -b /dev/sda1 ] && break; sleep 1; done\n"
                              f"mount -t vfat -o utf8 /dev/sda1 {STICK_ROOT}")
            if call.returncode:
                raise NoMachine(f"the stick cannot be mounted at {STICK_ROOT}: {call.stdout.strip()}")
        self.shell(f"cd {STICK_ROOT} && for name in *; do [ -e \"{STICK_ROOT.parent}/$name\" ] || "
                   f"ln -s \"{STICK_ROOT}/$name\" {STICK_ROOT.parent}/; done")

    # ------------------------------------------------------------------ the update

    def run(self):
        PICTURES.mkdir()
        self.started = time.time()
        if self.plan["package"] is not None:
            self.console.skip()
            self.shell("update-assistant-start </dev/null >/dev/console 2>&1 &")
        self.watch = BoardWatch(self, self.console)
        tell("program", at=0, started=self.started, board=self.board_started and round(self.board_started - self.started, 3))
        try:
            if not self.awaited(self.machine.program.is_there, START_S):
                raise Ended("program ended", "its start")
            self.await_("the whole screen", lambda: self.watch.frame and self.watch.frame.is_whole, START_S)
            self.put_stick_in()
            self.press_button()
            self.install()
            self.update_board()
        except Ended as end:
            outcome = end
        if self.machine.program.is_there():
            self.settle()
            self.watch.want("end", "The end of the update")
            self.watch.take_wanted()
        return outcome

    def await_(self, what, condition, limit, how="limit"):
        """The short limits are those of the host."""
        super().await_(what, condition, limit if limit >= START_S else SLOWER * limit, how)

    def record(self, status, index, since):
        """What the stand-in of the simulated machine records of a call."""
        files = self.plan["packages"]
        watched = self.shell(f"stat -c '%s %y' {paths.FIRMWARE} 2>/dev/null").stdout.strip()
        record = {"arguments": ["install", f"/tmp/ota/{files[index] if index < len(files) else ''}"], "from": since,
                  "to": time.time(), "status": status >> 8, "watched": watched or None}
        with open(RECORDS, "a", encoding="ascii") as records:
            records.write(json.dumps(record) + "\n")

    def check_firmware(self):
        if self.firmware or time.monotonic() - self._looked < LOOK_S:
            return
        self._looked = time.monotonic()
        call = self.shell(f"[ -f {paths.FIRMWARE} ] && head -c {LARGEST_FIRMWARE} {paths.FIRMWARE} | base64")
        if call.returncode == 0:
            self.firmware = paths.STATE / "firmware.bin"
            self.firmware.write_bytes(base64.b64decode(call.stdout))


def rehearse(rehearsal, plan):
    rehearsal.boot()
    rehearsal.tell_versions()
    if plan["previous"] and rehearsal.install_previous() is not None:
        return
    rehearsal.prepare_program()
    before = machine_run.states(rehearsal.machine)
    rehearsal.shell(f"rm -rf {paths.FIRMWARE.parent}/* {paths.FIRMWARE.parent}/.[!.]*")
    outcome = rehearsal.run()
    rehearsal.what_is_there(outcome, before)


def boot_options(plan):
    options = ["-m", MEMORY_MB, "-kernel", SYSTEM / "vmlinuz", "-initrd", SYSTEM / "rehearsal-ramdisk", "-append", plan["settings"]]
    for name, is_read_only in plan["drives"]:
        options += drive(name, DRIVES / name, "readonly=on" if is_read_only else "cache=unsafe")
    return options


def main(build):
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGPIPE):
        signal.signal(number, signal.SIG_DFL)
    plan = json.loads(PLAN.read_text(encoding="ascii"))
    with EmulatedMachine(boot_options(plan), pathlib.Path(build), paths.STATE, "rehearsal", plan["board"] is not None) as machine:
        machine.program, machine.packages = BoardProgram(machine), BoardPackages(machine)
        try:
            rehearse(BoardRehearsal(machine, plan), plan)
        except NoMachine as error:
            tell("no machine", text=str(error))
        except (EmulatorError, WaitError) as error:
            tell("no machine", text=f"the emulated board does not reply any more: {error}")


if __name__ == "__main__":
    main(*sys.argv[1:])
