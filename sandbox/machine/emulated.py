"""The emulated ARM board, driven from outside the emulator: a machine with the same parts as Machine."""

import base64
import contextlib
import json
import os
import pathlib
import shlex
import socket
import subprocess
import tempfile

from . import paths, pictures
from .processes import Board, Process
from .screen import HEIGHT, WIDTH, Display
from .watch import WAIT_S, Console, await_

END = "-- end of the command, status "
WHOLE_AXIS = 0x7fff


class EmulatorError(Exception):
    """The emulator refuses a command, or the emulator or the shell of the board does not reply."""


class Link:
    """Connects to an emulated board through the sockets `shell` and `emulator` in a folder."""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        # One connection for all commands: the shell of the board ends with the connection, and input is lost
        # until the next shell has started.
        self._shell = None

    def close(self):
        if self._shell:
            self._shell.close()
            self._shell = None

    def shell(self, text):
        """Runs a text in the shell of the board. Returns a CompletedProcess with the whole output in `stdout`."""
        with _errors_of("shell"):
            self._shell = self._shell or self._connect("shell")
            print(f"(\n{text}\n) </dev/null; status=$?; echo; echo '{END}'$status", file=self._shell, flush=True)
            lines = []
            for line in self._shell:
                if line.startswith(END):
                    return subprocess.CompletedProcess(text, int(line[len(END):]),
                                                       "".join(lines).removesuffix("\n"))
                lines.append(line)
        raise EmulatorError("shell: the emulator has ended")

    def picture(self, file, form="png"):
        """Saves the display as a PNG or PPM file."""
        self._ask(("screendump", {"filename": os.path.abspath(file), "format": form}))

    def click(self, x, y):
        """Clicks at a point of the display; x and y are fractions of its width and height."""
        # The pointer first moves to a corner: the kernel reports no position without a movement, and a
        # program that has started since the last movement does not know the position.
        self._ask(_pointer_at(0, 0), _pointer_at(float(x), float(y)), _button(True), _button(False))

    def plug(self, drive):
        """Plugs in a stick with the contents of `drive`, a drive of the emulator."""
        self._ask(("device_add", {"driver": "usb-storage", "drive": drive}))

    def _ask(self, *requests):
        """Sends commands to the emulator, each a name and its arguments."""
        with _errors_of("emulator"), self._connect("emulator") as stream:
            stream.readline()  # the greeting
            for name, arguments in (("qmp_capabilities", {}), *requests):
                print(json.dumps({"execute": name, "arguments": arguments}), file=stream, flush=True)
                answer = {}
                while not answer.keys() & {"return", "error"}:  # skips events
                    line = stream.readline()
                    if not line:
                        raise EmulatorError(f"{name}: the emulator has ended")
                    answer = json.loads(line)
                if "error" in answer:
                    raise EmulatorError(f"{name}: {answer['error']['desc']}")

    def _connect(self, name):
        with socket.socket(socket.AF_UNIX) as end:  # the returned stream keeps it open
            end.settimeout(WAIT_S)
            end.connect(str(self.folder / name))
            return end.makefile("rw", encoding="utf-8", errors="replace")


@contextlib.contextmanager
def _errors_of(name):
    try:
        yield
    except OSError as error:
        raise EmulatorError(f"{name}: {error}") from error


def _pointer_at(x, y):
    return _input_events(*(("abs", {"axis": axis, "value": round(part * WHOLE_AXIS)})
                           for axis, part in (("x", x), ("y", y))))


def _button(down):
    return _input_events(("btn", {"button": "left", "down": down}))


def _input_events(*events):
    return "input-send-event", {"events": [{"type": kind, "data": data} for kind, data in events]}


class Emulator(Process):
    """The emulator. All devices are below 4 GB, where a 32-bit processor reaches them."""

    def __init__(self, results, sockets, boot, shell, has_line):
        """`boot` are the options with kernel, ram disk and drives, `shell` the name of the port to the shell. Without
        `has_line` there is no serial adapter."""
        super().__init__(os.environ, "qemu-system-arm", results / "emulator.log")
        self._options = [
            "-M", "virt,highmem=off", "-cpu", "cortex-a15",
            "-nodefaults", "-display", "none", "-nic", "none", *boot,
            "-chardev", f"file,id=console,path={results}/console.log", "-serial", "chardev:console",
            "-device", f"virtio-gpu-pci,xres={WIDTH},yres={HEIGHT}", "-device", "virtio-tablet-pci",
            "-device", "qemu-xhci", "-drive", f"if=none,id=stick,format=raw,file={results}/stick",
            "-device", "virtio-serial-pci",
            "-chardev", f"socket,id=shell,server=on,wait=off,path={sockets}/shell",
            "-device", f"virtserialport,chardev=shell,name={shell}",
            "-qmp", f"unix:{sockets}/emulator,server=on,wait=off",
        ]
        if has_line:
            self._options += ["-chardev", f"serial,id=line,path={sockets}/line", "-device", "usb-serial,chardev=line"]
        self._socket = sockets / "emulator"

    def start(self):
        self._start([*self.command, *self._options], self.log, "wb")
        await_("the emulator", self._socket.exists, process=self.process)


def own_system(system):
    """Options that boot the system of sandbox/board/make-system. Its changes are lost when the emulator ends."""
    return ["-m", "512", "-kernel", system / "vmlinuz", "-initrd", system / "ramdisk", "-append", "console=ttyAMA0",
            *drive("disk", system / "disk", "snapshot=on")]


def drive(name, file, how):
    return ["-drive", f"if=none,id={name},format=raw,{how},file={file}", "-device", f"virtio-blk-pci,drive={name}"]


class EmulatedProgram:
    """The program on the emulated board. The board itself starts it."""

    def __init__(self, machine):
        self._machine = machine

    @property
    def pid(self):
        """The process id in its pid file."""
        return self._machine.run("cat", paths.PID_FILE).stdout

    @property
    def is_running(self):
        return self._machine.exists(f"/proc/{self.pid}")


class EmulatedScreen(Display):
    """The display of the emulated board."""

    def __init__(self, machine, link, folder):
        super().__init__(machine, folder)
        self._link = link

    def take(self, path):
        """Saves the display. Returns whether it shows the program."""
        try:
            self._link.picture(path)
        except EmulatorError:
            return False
        return pictures.has_colour(path, pictures.WHITE, pictures.TITLE)

    def click(self, x, y):
        self._link.click(x / WIDTH, y / HEIGHT)


class EmulatedMachine:
    """A complete ARM board in an emulator, with a simulated control board at its serial adapter.

    `boot`, `shell` and `has_line` are for Emulator, `build` is a build tree for the host. The folder `results` contains
    `stick`, the contents of the stick, and receives the logs. At its exit the machine ends everything that it has started.
    """

    def __init__(self, boot, build, results, shell="shell", has_line=True):
        self._folder = tempfile.TemporaryDirectory()  # the paths of sockets must be short
        sockets = pathlib.Path(self._folder.name)
        self.link = Link(sockets)
        self.emulator = Emulator(results, sockets, boot, shell, has_line)
        self.program = EmulatedProgram(self)
        self.board = Board(os.environ, build / "simulator/boardsim", sockets / "line", results)
        self.screen = EmulatedScreen(self, self.link, sockets)
        self.console = Console(results / "console.log")  # output lines of the kernel and the program

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for part in (self.link, self.emulator, self.board):
            part.close()
        self._folder.cleanup()

    def await_(self, what, condition, *arguments):
        """Waits as watch.await_ does. Fails when the emulator ends first."""
        return await_(what, condition, *arguments, process=self.emulator.process)

    def run(self, *command):
        """Runs a command on the machine. Returns a CompletedProcess with the whole output in `stdout`."""
        return self.link.shell(shlex.join(map(str, command)))

    def exists(self, path):
        return self.run("test", "-e", path).returncode == 0

    def copy(self, file, place):
        """Copies a file of the host to a path on the machine."""
        content = base64.encodebytes(file.read_bytes()).decode("ascii")
        self.link.shell(f"base64 -d >{shlex.quote(str(place))} <<'END'\n{content}END")
