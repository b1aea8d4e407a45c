"""What facts assert beyond `assert`, and what they have in common."""

import contextlib
import os
import pathlib

from machine.packages import INSTALL
from machine.watch import run

FORCE = INSTALL.split()[2:]


def same(expected, actual):
    assert expected == actual, f"\n   expected: {expected!r}\n   actual:   {actual!r}"


def output(*command, status=0, environment=None):
    """Runs a command, which has to end with the status. Returns what it says."""
    call = run(*command, environment=environment)
    assert call.returncode == status, f"status {call.returncode}\n{call.stdout}"
    return call.stdout


def private_environment(folder):
    """Temporary files go below the folder of a fact, so that what is left behind is seen."""
    (folder / "tmp").mkdir(exist_ok=True)
    return os.environ | {"TMPDIR": str(folder / "tmp")}


def left_behind(folder, but="run_fact.py"):
    """Temporary files, and processes that name the folder, but for this one and those that name `but`."""
    found = [str(path) for path in (folder / "tmp").iterdir()]
    for process in pathlib.Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):
            words = (process / "cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
            if str(folder) in words and int(process.name) != os.getpid() and but not in words:
                found.append(words)
    return found


def opkg(machine, *words, status=0, **variables):
    """Calls the package manager as output() does. Relative files are the machine's package files."""
    words = [machine.packages.folder / word if str(word).endswith(".ipk") else word for word in words]
    return output("opkg", *words, status=status, environment=machine.environment | variables)


def install_calls(*files):
    return [f"{INSTALL} {file}" for file in files]


def start_quick_board(machine, *options):
    """The control bytes come ten at a time, as the program reads them: it goes on at once."""
    machine.board.start("--control-repeat", "10", *options)


def start_on_screen(machine, *arguments):
    """Starts the program on a display of its own, and waits for its window."""
    machine.screen.open()
    machine.program.start(*arguments)
    machine.screen.find_window()


def start_and_await_screen(machine):
    """Starts the program, and waits until the update screen is up. Returns its Popen."""
    machine.console.clear()
    process = machine.program.start()
    await_update_screen(machine)
    return process


def await_update_screen(machine):
    machine.await_("the screen", machine.console.printed, "ota=================")
