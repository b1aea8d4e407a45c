"""Starts of the unchanged program: the pid file, and the mode that the argument chooses."""

import os
import pathlib
import signal

from facts import same, start_and_await_screen
from machine.paths import CALLS, PID_FILE
from machine.pictures import GREEN, WHITE, WHOLE, has_colour, signature
from machine.watch import WAIT_S, text_of


def firstStartRecordsItsPid(machine):
    program = start_and_await_screen(machine)
    same(str(program.pid), text_of(PID_FILE))
    assert not machine.console.printed("enter kill")


def secondStartEndsTheFirst(machine):
    first = start_and_await_screen(machine)
    second = start_and_await_screen(machine)
    assert machine.console.printed("enter kill")
    same(-signal.SIGKILL, first.wait(WAIT_S))
    assert machine.program.is_running
    same(str(second.pid), text_of(PID_FILE))


def shorterPidKeepsTheOldTail(machine):
    old = "999999999"  # nobody's
    PID_FILE.write_text(old, encoding="ascii")
    new = str(start_and_await_screen(machine).pid)
    same(new + old[len(new):], text_of(PID_FILE))
    assert machine.console.printed("enter kill")


def pidFileOutlivesTheProgram(machine):
    program = start_and_await_screen(machine)
    machine.program.stop()
    same(str(program.pid), text_of(PID_FILE))


def folderInPlaceOfThePidFileIsLeftAlone(machine):
    PID_FILE.mkdir()
    start_and_await_screen(machine)
    assert not machine.console.printed("enter kill")
    same([], os.listdir(PID_FILE))


def garbageInThePidFileEndsTheOwnGroup(machine):
    PID_FILE.write_text("nobody\n", encoding="ascii")
    same(-signal.SIGKILL, machine.program.start().wait(WAIT_S))
    assert machine.console.printed("enter kill")


def status_picture(machine, name, *arguments):
    """The picture of the status screen that the program shows with these arguments."""
    path = pathlib.Path(f"/tmp/{name}.png")
    machine.program.start(*arguments)
    machine.screen.find_window()
    machine.screen.picture(path)
    machine.program.stop()
    return path


def argumentChoosesTheStatusScreen(machine):
    machine.packages.stage("good/10-machine-base_1.2.0.ipk")
    machine.screen.open()

    waiting = status_picture(machine, "waiting", "0000")
    assert has_colour(waiting, WHITE, WHOLE)
    assert not has_colour(waiting, GREEN, WHOLE)

    success = status_picture(machine, "success", "2")
    assert has_colour(success, GREEN, WHOLE)
    assert not has_colour(success, WHITE, WHOLE)

    same(signature(waiting), signature(status_picture(machine, "other", "22")))
    same(signature(success), signature(status_picture(machine, "two", "2", "0000")))
    assert not CALLS.exists()


def assert_geometry(machine, geometry, dots_per_inch):
    machine.environment["QT_FONT_DPI"] = str(dots_per_inch)
    machine.screen.open()
    machine.program.start()
    machine.await_("the window", machine.screen.has_window)
    told = machine.run("xdotool", "getwindowgeometry", machine.screen.window).stdout
    assert f"Geometry: {geometry}\n" in told, told


# The window counts in pixels of 96 an inch, the display has twice as many.
def screenGrowsWithTheFinenessOfTheDisplay(machine):
    assert_geometry(machine, "1200x1200", dots_per_inch=192)


# No factor between whole ones: the display has five pixels for four of the window's.
def screenGrowsByWholeFactors(machine):
    assert_geometry(machine, "600x600", dots_per_inch=120)


# A text of each screen as it stands in its compiled form, in capitals; the sources are compressed.
OTHER_TEXTS = [(b"o\0t\0a\0=", b"O\0T\0A\0="),
               (b"u\0p\0d\0a\0t\0i\0n\0g\0 ", b"U\0P\0D\0A\0T\0I\0N\0G\0 ")]
COMPILED_MARK = b"qv4cdata"
QT_VERSION_OFFSET = len(COMPILED_MARK) + 4  # behind the version of the format


def become(machine, altered):
    """From now on the program has these bytes, under one name and with the date that it had."""
    old, new = machine.program.command[-1], pathlib.Path("/tmp/program")
    times = os.stat(old)
    copy = pathlib.Path("/tmp/altered")
    copy.write_bytes(altered(old.read_bytes()))
    copy.chmod(0o755)
    os.utime(copy, ns=(times.st_atime_ns, times.st_mtime_ns))
    copy.rename(new)
    machine.program.command[-1] = new


def with_other_texts(program):
    for text, other in OTHER_TEXTS:
        assert text in program
        program = program.replace(text, other)
    return program


def for_another_qt(program):
    program = bytearray(program)
    place = program.find(COMPILED_MARK)
    assert place >= 0
    while place >= 0:
        program[place + QT_VERSION_OFFSET] ^= 0xFF
        place = program.find(COMPILED_MARK, place + 1)
    return bytes(program)


# Packages are made with one date for all their files, so an update need not change the program's.
def screensAreThoseOfTheProgramFile(machine):
    become(machine, bytes)
    start_and_await_screen(machine)
    become(machine, with_other_texts)
    machine.program.start()
    machine.await_("the other text", machine.console.printed, "OTA=================")


def screensOfAnotherQtComeFromTheirSources(machine):
    machine.screen.open()
    own = status_picture(machine, "own", "0")
    become(machine, with_other_texts)
    assert signature(status_picture(machine, "altered", "0")) != signature(own)
    become(machine, for_another_qt)
    same(signature(own), signature(status_picture(machine, "source", "0")))
    start_and_await_screen(machine)
