"""The command line of scripts/check-board, which has the text of --help. Run as a program, it only checks the words."""

import contextlib
import fcntl
import os
import pathlib
import re
import stat
import sys

from rehearsal.options import PROJECT, Parser, WrongUse, say, seconds, shown

PROGRAMS = ("simulator/boardtap", "tests/recordings/bridgecalls")


def parse(words):
    """Returns the options. Raises WrongUse."""
    parser = Parser(prog="check-board", add_help=False, allow_abbrev=False)
    parser.add_argument("device", metavar="DEVICE")
    parser.add_argument("--firmware", type=pathlib.Path, metavar="FILE")
    parser.add_argument("--limit", type=seconds, default=30)
    parser.add_argument("--recording", type=pathlib.Path, default=PROJECT / "build/check-board.recording", metavar="FILE")
    parser.add_argument("--json", action="store_true")
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/release", metavar="DIR")
    return parser.parse_args(words)


def check_places(options):
    """The part of check() that needs no built program."""
    if options.firmware:
        try:
            if not stat.S_ISREG(options.firmware.stat().st_mode):
                raise WrongUse(f"--firmware: {shown(options.firmware)} is no file")
            with open(options.firmware, "rb") as file:
                empty = not file.read(1)
        except OSError as error:
            raise WrongUse(f"--firmware: {shown(options.firmware)} cannot be read: {error.strerror}") from error
        if empty:
            raise WrongUse(f"--firmware: {shown(options.firmware)} is empty; the program sends no such file")
        if options.recording.exists() and options.recording.samefile(options.firmware):
            raise WrongUse(f"--recording: {shown(options.recording)} is the firmware")
    try:
        options.recording.parent.mkdir(parents=True, exist_ok=True)
        with open(options.recording, "ab"):
            pass
    except OSError as error:
        raise WrongUse(f"--recording: {shown(options.recording)} cannot be written: {error.strerror}") from error
    with device(options.device):
        pass


def check(options):
    """Compares the options with what there is. Raises WrongUse."""
    check_places(options)
    for program in PROGRAMS:
        if not os.access(options.build / program, os.X_OK):
            raise WrongUse(f"{shown(options.build)} has no {program}")


@contextlib.contextmanager
def device(path):
    """Within, no other check has the device. Raises WrongUse when it cannot be used."""
    name = shown(path)
    try:
        descriptor = os.open(path, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK | os.O_CLOEXEC)
    except FileNotFoundError as error:
        raise WrongUse(f"there is no device {name}: is the adapter plugged in?") from error
    except PermissionError as error:
        raise WrongUse(f"no right to open {name}: become a member of its group, or root") from error
    except IsADirectoryError as error:
        raise WrongUse(f"{name} is no serial device") from error
    except OSError as error:
        reason = "another program has it for itself" if error.errno == 16 else error.strerror
        raise WrongUse(f"{name} cannot be opened: {reason}") from error
    try:
        if not os.isatty(descriptor):
            raise WrongUse(f"{name} is no serial device")
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError as error:
            raise WrongUse(f"{name} is busy: another program has locked it") from error
        for user in users(descriptor):
            raise WrongUse(f"{name} is busy: {user} has it open")
        yield
    finally:
        os.close(descriptor)


def users(descriptor):
    """The other processes that have the device open, as far as this user may see them. The one at the other end of a
    pseudo-terminal is the board."""
    own = os.fstat(descriptor)
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            files = list((process / "fd").iterdir())
            if int(process.name) != os.getpid() and any(map(lambda file: is_same(file, own), files)) \
                    and not any(map(lambda file: is_other_end(file, own), files)):
                yield f"{shown((process / 'comm').read_text(errors='replace').strip())} (process {process.name})"


def is_same(file, own):
    with contextlib.suppress(OSError):
        other = file.stat()
        return stat.S_ISCHR(other.st_mode) and (other.st_dev, other.st_ino, other.st_rdev) == (own.st_dev, own.st_ino, own.st_rdev)
    return False


def is_other_end(file, own):
    with contextlib.suppress(OSError):
        if os.readlink(file).endswith("ptmx"):
            about = (file.parents[1] / "fdinfo" / file.name).read_text(encoding="ascii")
            return re.search(rf"^tty-index:\s+{os.minor(own.st_rdev)}$", about, re.MULTILINE) is not None
    return False


def say_wrong(error):
    return say(error, "check-board")


if __name__ == "__main__":
    try:
        check_places(parse(sys.argv[1:]))
    except WrongUse as wrong:
        sys.exit(say_wrong(wrong))
