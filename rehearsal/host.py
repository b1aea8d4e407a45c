"""Starts the simulated machine for one rehearsal, and follows what runs there.

The plan, plan.json in the machine's state folder, has
    packages         the files that the program should install, in their order
    stick            whether the packages are on a stick, and the button is to be pressed
    image            whether the stick has an application image
    previous         whether there is a previous release to be installed first
    architectures    that the machine accepts beside its own
    board            options of boardsim; null: there is no board
    real_pace        whether the board replies as slowly as a real one
    limit, limits    seconds that the installation of a file may take: of any, and of those that have their own
    board_limit      seconds of silence after which nothing is expected of the board any more
"""

import contextlib
import fcntl
import io
import json
import os
import pathlib
import selectors
import shutil
import signal
import subprocess
import tempfile
import time

PROJECT = pathlib.Path(__file__).resolve().parents[1]
SANDBOX = PROJECT / "sandbox/run"
SOURCE, LINKS, PREVIOUS = "/run/source", "/run/links", "/run/previous"
STICK, STICK_PACKAGES = "/mnt/nand_disk", "/mnt/nand_disk/update_ipk"
STATE = "/run/machine"
DISK_KINDS = ("ext2/ext3", "xfs", "btrfs", "f2fs")  # can carry the disk of the machine
OWN_FAULT = 125  # exit status of sandbox/run when there is no machine
LONGEST_EVENT = 16 << 20
LEFT_OVER_S = 60  # age of a folder that is no new one
LEAST_FREE = 512 << 20  # bytes that stay free on the host's disk
MOST_OF_A_TEXT = 4 << 20  # bytes of its beginning and of its end
TICK_S = 0.2
QUIET_S = 300  # without any event, beyond the limits of the plan
MB = 1000**2


class HostError(Exception):
    """This host cannot run the simulated machine, or not now."""


def work_folder(prefix):
    """A new folder, which is locked until this process ends. Removes those of processes that were killed."""
    place = pathlib.Path(os.environ.get("TMPDIR") or "/var/tmp")
    try:
        for folder in place.glob(f"{prefix}.*"):
            remove_left_over(folder)
        folder = pathlib.Path(tempfile.mkdtemp(prefix=f"{prefix}.", dir=place))
        fcntl.flock(os.open(folder, os.O_RDONLY | os.O_DIRECTORY), fcntl.LOCK_EX | fcntl.LOCK_NB)
    except OSError as error:
        raise HostError(f"{place} cannot be written: {error.strerror}. TMPDIR may name another folder") from error
    return folder


def remove_left_over(folder):
    with contextlib.suppress(OSError):
        lock = os.open(folder, os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW)
        try:
            status = os.fstat(lock)
            # Another process may have just made it, and lock it next.
            if status.st_uid == os.geteuid() and status.st_mtime < time.time() - LEFT_OVER_S:
                fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                remove(folder)
        finally:
            os.close(lock)


def end_group(process):
    """Ends all processes of its group: one that has just begun does not end with its parent."""
    with contextlib.suppress(ProcessLookupError):
        os.killpg(process.pid, signal.SIGKILL)
    process.wait()


class Machine:
    """One simulated machine. At its exit it is gone, with all that it wrote; `state` is there until then."""

    def __init__(self, build, needed):
        """`needed` are the bytes that will be written to its disk."""
        self.build = pathlib.Path(build).resolve()
        self.work = work_folder("rehearsal")
        self.state = self.work / "state"
        self.state.mkdir()
        self._needed = needed
        self._process = None
        self.errors = self.work / "errors"

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()
        remove(self.work)

    def end(self):
        if self._process:
            end_group(self._process)  # and with it everything that runs on the machine
            self._process.stdout.close()
            self._process = None

    def disk_options(self, size=None):
        """The disk is in memory where it is to be small, and where the host's disk cannot carry it."""
        if size is not None:
            return ["--small", f"/={size}"]
        kind = subprocess.run(["stat", "--file-system", "--format=%T", self.work], stdout=subprocess.PIPE, text=True,
                              check=False).stdout.strip()
        if kind not in DISK_KINDS:
            return []
        free = shutil.disk_usage(self.work).free
        if free < self._needed + LEAST_FREE:
            raise HostError(f"{self.work.parent} has {free // MB} MB free; the machine needs "
                            f"{(self._needed + LEAST_FREE) // MB} MB. TMPDIR may name another folder")
        disk = self.work / "disk"
        disk.mkdir()
        return ["--disk", str(disk)]

    def run(self, plan, options, opkg):
        """Yields what machine_run.py tells, and None now and then when it tells nothing."""
        (self.state / "plan.json").write_text(json.dumps(plan), encoding="ascii")
        command = [SANDBOX, "--private", "--no-network", "--state", self.state, "--opkg", opkg, *options,
                   "--show", PROJECT / "rehearsal", "--show", self.build, "--",
                   "/usr/bin/python3", "-B", PROJECT / "rehearsal/machine_run.py", self.build]
        with open(self.errors, "wb") as errors:
            self._process = subprocess.Popen(list(map(str, command)), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                             stderr=errors, start_new_session=True)
        yield from self._events(max([plan["limit"], plan["board_limit"], *plan["limits"].values()]) + QUIET_S)
        status = self._process.wait()
        if status == OWN_FAULT:
            raise HostError(text_of(self.errors).strip().removeprefix("sandbox/run: "))

    def _events(self, longest):
        pipe = self._process.stdout
        os.set_blocking(pipe.fileno(), False)
        rest, last = b"", time.monotonic()
        with selectors.DefaultSelector() as selector:
            selector.register(pipe, selectors.EVENT_READ)
            while True:
                if not selector.select(TICK_S):
                    self._guard(time.monotonic() - last, longest)
                    yield None
                    continue
                data = pipe.read(1 << 16)
                if not data:
                    return
                last = time.monotonic()
                *lines, rest = (rest + data).split(b"\n")
                if len(rest) > LONGEST_EVENT:
                    raise HostError("the machine tells too much")
                for line in lines:
                    with contextlib.suppress(ValueError):
                        yield json.loads(line)

    def _guard(self, quiet_s, longest):
        """Ends what fills the host's disk, and a machine that hangs as a whole."""
        if shutil.disk_usage(self.work).free < LEAST_FREE:
            self._process.kill()
            raise HostError("what runs on the machine fills the disk of this host")
        if quiet_s > longest:
            self._process.kill()
            raise HostError(f"nothing came from the machine for {quiet_s:.0f} s")

    def text(self, name):
        """The content of a file that the machine has left, open, without the middle of a large one; None without a
        file."""
        file = self.file(name)
        if not file:
            return None
        with file:
            size = file.seek(0, os.SEEK_END)
            file.seek(0)
            if size <= 2 * MOST_OF_A_TEXT:
                return io.BytesIO(file.read(2 * MOST_OF_A_TEXT))
            begin = file.read(MOST_OF_A_TEXT)
            file.seek(size - MOST_OF_A_TEXT)
            left_out = f"\n... {size - 2 * MOST_OF_A_TEXT} bytes are left out here ...\n".encode("ascii")
            return io.BytesIO(begin + left_out + file.read(MOST_OF_A_TEXT))

    def file(self, name):
        """A regular file that the machine has left, open; None if there is none. What runs there may put anything
        in its place, a link out of it, too."""
        try:
            file = os.open(self.state / name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK)
        except OSError:
            return None
        stream = os.fdopen(file, "rb")
        if not os.path.isfile(f"/proc/self/fd/{file}"):
            stream.close()
            return None
        return stream


def text_of(path):
    with contextlib.suppress(OSError), open(path, "rb") as file:
        return file.read(1 << 16).decode("utf-8", "replace")
    return ""


def remove(folder):
    """Removes a folder, whatever packages made of it: folders without permissions, and very deep ones."""
    command = ["rm", "-rf", "--one-file-system", "--", str(folder)]
    if subprocess.run(command, stderr=subprocess.DEVNULL, check=False).returncode:
        subprocess.run(["chmod", "-R", "u+rwX", "--", str(folder)], stderr=subprocess.DEVNULL, check=False)
        subprocess.run(command, check=False)


class Interrupt(Exception):
    """A signal asks for the end."""


@contextlib.contextmanager
def ended_by_signals():
    """Within, the signals that end a program raise Interrupt once; later ones are ignored, so that all is tidied up."""
    def interrupt(number, _):
        for one in numbers:
            signal.signal(one, signal.SIG_IGN)
        raise Interrupt(number)
    numbers = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
    before = {number: signal.signal(number, interrupt) for number in numbers}
    try:
        yield
    finally:
        for number, handler in before.items():
            signal.signal(number, handler)
