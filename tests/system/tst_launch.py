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


def argumentChoosesTheStatusScreen(machine):
    def picture(name, *arguments):
        path = pathlib.Path(f"/tmp/{name}.png")
        machine.program.start(*arguments)
        machine.screen.find_window()
        machine.screen.picture(path)
        machine.program.stop()
        return path

    machine.packages.stage("good/10-machine-base_1.2.0.ipk")
    machine.screen.open()

    waiting = picture("waiting", "0000")
    assert has_colour(waiting, WHITE, WHOLE)
    assert not has_colour(waiting, GREEN, WHOLE)

    success = picture("success", "2")
    assert has_colour(success, GREEN, WHOLE)
    assert not has_colour(success, WHITE, WHOLE)

    same(signature(waiting), signature(picture("other", "22")))
    same(signature(success), signature(picture("two", "2", "0000")))
    assert not CALLS.exists()


# The window counts in pixels of 96 an inch, the display has twice as many.
def screenGrowsWithTheFinenessOfTheDisplay(machine):
    machine.environment["QT_FONT_DPI"] = "192"
    machine.screen.open()
    machine.program.start()
    machine.await_("the window", machine.screen.has_window)
    geometry = machine.run("xdotool", "getwindowgeometry", machine.screen.window).stdout
    assert "Geometry: 1200x1200\n" in geometry, geometry
