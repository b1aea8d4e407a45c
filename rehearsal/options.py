"""The command line of scripts/rehearse, which has the text of --help. Run as a program, it only checks the words."""

import argparse
import os
import pathlib
import re
import subprocess
import sys

PROJECT = pathlib.Path(__file__).resolve().parents[1]
BOARD_START_S = 20
# A file system of its own at one of these would hide what the machine needs.
NEEDED_FOLDERS = ("bin", "dev", "etc", "lib", "lib32", "lib64", "libx32", "mnt", "proc", "run", "sbin", "sys", "usr")


WRONG_USE = 2  # exit status


class WrongUse(Exception):
    """The command line is wrong. The text says why."""


class Parser(argparse.ArgumentParser):
    def error(self, message):
        raise WrongUse(message)


def parse(words):
    """Returns the options. Raises WrongUse."""
    parser = Parser(prog="rehearse", add_help=False, allow_abbrev=False)
    parser.add_argument("folder", metavar="FOLDER")
    parser.add_argument("--stick", action="store_true")
    parser.add_argument("--installed", metavar="FOLDER")
    parser.add_argument("--architecture", action="append", default=[], type=architecture, dest="architectures")
    parser.add_argument("--room", action="append", default=[], type=room, metavar="DIR=BYTES")
    parser.add_argument("--board-version", metavar="TEXT")
    parser.add_argument("--no-board", action="store_true")
    parser.add_argument("--fault", action="append", default=[], dest="faults", metavar="KIND[=VALUE][@PLACE]")
    parser.add_argument("--real-pace", action="store_true")
    parser.add_argument("--on", choices=("board",))
    parser.add_argument("--root", metavar="TAR")
    parser.add_argument("--limit", type=seconds)
    parser.add_argument("--opkg", choices=("stand-in", "real"), default="stand-in")
    parser.add_argument("--report", type=pathlib.Path, default=PROJECT / "build/rehearsal", metavar="DIR")
    parser.add_argument("--junit", type=pathlib.Path, metavar="FILE")
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/release", metavar="DIR")
    options = parser.parse_args(words)
    options.room = dict(options.room)
    if options.no_board and (options.faults or options.real_pace or options.board_version is not None):
        raise WrongUse("--no-board leaves no board for --board-version, --fault or --real-pace")
    if options.root and not options.on:
        raise WrongUse("--root is for --on board")
    return options


def architecture(text):
    if not re.fullmatch(r"[A-Za-z0-9][A-Za-z0-9_.+-]{0,60}", text):
        raise argparse.ArgumentTypeError(f"{text!r} is no architecture")
    return text


def room(text):
    folder, _, size = text.rpartition("=")
    if not re.fullmatch(r"[1-9][0-9]{0,14}", size) or not folder.startswith("/"):
        raise argparse.ArgumentTypeError(f"no DIR=BYTES: {text!r}")
    folder = os.path.normpath("/" + folder.lstrip("/"))
    if folder.split("/")[1] in NEEDED_FOLDERS:
        raise argparse.ArgumentTypeError(f"{folder} has no room of its own; / is that of the disk")
    return folder, int(size)


def seconds(text):
    if not re.fullmatch(r"[1-9][0-9]{0,6}", text):
        raise argparse.ArgumentTypeError(f"{text!r} is no number of seconds")
    return int(text)


def check(options):
    """Compares the options with what there is. Raises WrongUse."""
    check_places(options)
    for program in ("src/update-assistant", "simulator/boardsim"):
        if not os.access(options.build / program, os.X_OK):
            raise WrongUse(f"{shown(options.build)} has no {program}")
    if not options.no_board:
        check_board(options)


def check_places(options):
    """The part of check() that needs no built program."""
    for folder in filter(None, (options.folder, options.installed)):
        if not os.path.isdir(folder):
            raise WrongUse(f"{shown(folder)} is not a folder")
        if not os.access(folder, os.R_OK | os.X_OK):
            raise WrongUse(f"{shown(folder)} cannot be read")
    make_writable(options.report)
    if options.junit:
        check_file(options.junit)


def make_writable(folder):
    probe = folder / f".{os.getpid()}"
    try:
        folder.mkdir(parents=True, exist_ok=True)
        probe.touch()
        probe.unlink()
    except OSError as error:
        raise WrongUse(f"--report: {shown(folder)} cannot be written: {error.strerror}") from error


def check_file(path):
    is_new = not path.exists()
    try:
        with open(path, "ab"):
            pass
        if is_new:
            path.unlink()
    except OSError as error:
        raise WrongUse(f"--junit: {shown(path)} cannot be written: {error.strerror}") from error


def board_options(options):
    """For boardsim; None without a board."""
    if options.no_board:
        return None
    version = [] if options.board_version is None else ["--version-text", options.board_version]
    return [*version, *(word for fault in options.faults for word in ("--fault", fault))]


def check_board(options):
    """boardsim itself says what it takes."""
    words = board_options(options)
    if not words:
        return
    board = subprocess.Popen([options.build / "simulator/boardsim", *words], stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace")
    try:
        if board.stdout.readline().startswith("ready "):
            return
        _, fault = board.communicate(timeout=BOARD_START_S)
    finally:
        board.kill()
        board.communicate()
    raise WrongUse(shown((fault.strip().splitlines() or ["boardsim does not start"])[0].removeprefix("boardsim: ")))


def given(options):
    """The options as they were given, for the report."""
    facts = {"--stick": options.stick, "--installed": options.installed, "--architecture": options.architectures,
             "--room": [f"{folder}={size}" for folder, size in options.room.items()],
             "--board-version": options.board_version, "--no-board": options.no_board, "--fault": options.faults,
             "--real-pace": options.real_pace, "--on": options.on, "--root": options.root, "--limit": options.limit,
             "--opkg": "" if options.opkg == "stand-in" else options.opkg}
    return {name: ", ".join(value) if isinstance(value, list) else "yes" if value is True else str(value)
            for name, value in facts.items() if value}


def shown(text):
    """The text without what a terminal would obey."""
    return "".join(c if c.isprintable() else ascii(c)[1:-1] for c in str(text))


def say(error, command="rehearse"):
    """Returns the exit status of wrong use."""
    print(f"{command}: {shown(error)} (try --help)", file=sys.stderr)
    return WRONG_USE


if __name__ == "__main__":
    try:
        check_places(parse(sys.argv[1:]))
    except WrongUse as wrong:
        sys.exit(say(wrong))
