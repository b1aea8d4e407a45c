"""The update screen of the unchanged program, from the packages to the control board."""

import glob
import os
import pathlib
import time

from facts import install_calls, opkg, same, start_on_screen, start_quick_board
from machine import HAND_OVER
from machine.paths import CALLS, FIRMWARE, PACKAGED_FIRMWARE, RECEIVED, STAGED, STICK
from machine.pictures import GREEN, RED, SUCCESS, TIPS, WHITE, YELLOW
from machine.watch import same_content, same_folder

BASE = "good/10-machine-base_1.2.0.ipk"
INTERFACE = "good/30-user-interface_3.1.0.ipk"
BOARD_FIRMWARE = "good/40-control-board-firmware_4.1.3.ipk"
GOOD = [BASE, "good/20-drink-recipes_2.0.1.ipk", INTERFACE, BOARD_FIRMWARE]
INSTALLED = ["control-board-firmware 4.1.3", "drink-recipes 2.0.1", "machine-base 1.2.0", "user-interface 3.1.0"]
INSTALLED_BASE = ["machine-base 1.2.0"]
NOTES = pathlib.Path("/root/notes.txt")


def await_colour(machine, colour, place):
    machine.await_(f"{colour} at {place}", machine.screen.shows, colour, place)


def await_end_of_update(machine, last_index):
    machine.await_("the last package", machine.console.package_ended, 0, last_index)
    machine.await_("the removal of the firmware", lambda: not FIRMWARE.exists())


def await_failure(machine, status, index):
    machine.await_("the failure", machine.console.package_ended, status, index)


def stagedPackagesRunToTheEnd(machine):
    machine.packages.stage(*GOOD)
    NOTES.touch()
    start_quick_board(machine)
    start_on_screen(machine)

    await_end_of_update(machine, 3)
    await_colour(machine, GREEN, SUCCESS)
    await_colour(machine, GREEN, TIPS)
    same(INSTALLED, machine.packages.installed())
    same(install_calls(*(STAGED / os.path.basename(file) for file in GOOD)), machine.calls())
    same(0, machine.board.stop())
    assert same_content(PACKAGED_FIRMWARE, RECEIVED)
    same(["/root/Hmi", "/root/mcu"], sorted(glob.glob("/root/*")))
    assert machine.program.is_running


def packagesOnTheStickWaitForTheClick(machine):
    machine.packages.stage(*GOOD, folder=STICK)
    start_quick_board(machine)
    start_on_screen(machine)
    machine.await_("the screen", machine.console.printed, "ota================= false")
    machine.screen.await_button()
    assert not CALLS.exists()
    assert not STAGED.exists()

    machine.screen.press_button()
    await_end_of_update(machine, 3)
    await_colour(machine, GREEN, SUCCESS)
    same(INSTALLED, machine.packages.installed())
    assert same_folder(STICK, STAGED)
    same(0, machine.board.stop())
    assert same_content(PACKAGED_FIRMWARE, RECEIVED)


def failingPackageStopsTheRest(machine):
    machine.packages.stage(BASE, "failing/20-drink-recipes_2.0.2.ipk", INTERFACE)
    start_quick_board(machine)
    start_on_screen(machine)

    await_failure(machine, 65280, 1)
    await_colour(machine, RED, TIPS)
    same(INSTALLED_BASE, machine.packages.installed())
    same(2, len(machine.calls()))
    assert not machine.board.saw("version query")
    assert machine.program.is_running


def brokenPackageStopsTheRest(machine):
    machine.packages.stage(BASE, "broken/30-user-interface_3.1.1.ipk", BOARD_FIRMWARE)
    start_quick_board(machine)
    machine.program.start()

    await_failure(machine, 65280, 1)
    same(INSTALLED_BASE, machine.packages.installed())
    same(2, len(machine.calls()))
    assert not machine.board.saw("version query")


def olderPackageIsInstalledOverANewerOne(machine):
    opkg(machine, "install", BASE)
    machine.packages.stage("downgrade/10-machine-base_1.1.0.ipk")
    machine.program.start()

    machine.await_("the package", machine.console.package_ended, 0, 0)
    same(["machine-base 1.1.0"], machine.packages.installed())


def otherBoardIsHandedOver(machine):
    machine.packages.stage(*GOOD)
    NOTES.touch()
    start_quick_board(machine, "--version-text", "V3.2")
    machine.environment["SANDBOX_HMI_STATUS"] = "3"  # any status but a negative one is a success
    start_on_screen(machine)

    await_end_of_update(machine, 3)
    await_colour(machine, GREEN, SUCCESS)
    assert HAND_OVER in machine.calls()
    assert NOTES.exists()
    same(0, machine.board.stop())
    assert not RECEIVED.exists()


def versionHoldsV4Anywhere(machine):
    machine.packages.stage(BOARD_FIRMWARE)
    start_quick_board(machine, "--version-text", "ABC-V41")
    machine.program.start()

    await_end_of_update(machine, 0)
    assert HAND_OVER not in machine.calls()
    same(0, machine.board.stop())
    assert same_content(PACKAGED_FIRMWARE, RECEIVED)


def missingFirmwareIsAnError(machine):
    machine.packages.stage(*GOOD[:3])
    start_quick_board(machine)
    start_on_screen(machine)

    machine.await_("the missing file", machine.console.printed, "[error]: Ymodem loading file failed.")
    await_colour(machine, RED, TIPS)
    assert not machine.screen.shows(GREEN, SUCCESS)


def withoutABoardTheWorkflowEndsSilently(machine):
    machine.packages.stage(*GOOD)
    NOTES.touch()
    start_on_screen(machine)

    machine.await_("the line that does not open", machine.console.printed,
                   "Unable to open serial port '/dev/ttymxc1': No such file or directory")
    await_colour(machine, WHITE, "20x6+1000+748")  # a bar of four fifths
    assert machine.screen.shows("#222222", "20x6+1080+748")  # the last fifth
    assert machine.screen.shows(WHITE, TIPS)
    assert not machine.screen.shows(GREEN, SUCCESS)
    same(INSTALLED, machine.packages.installed())
    assert same_content(PACKAGED_FIRMWARE, FIRMWARE)
    assert NOTES.exists()
    assert HAND_OVER not in machine.calls()
    assert machine.program.is_running


def silentBoardIsWaitedFor(machine):
    machine.packages.stage(BOARD_FIRMWARE)
    machine.board.start("--fault", "silent@version")
    machine.program.start()

    machine.await_("the query for the version", machine.board.saw, "version query")
    time.sleep(3)  # each look at the line takes 1 s; none of them may be the last
    assert machine.program.is_running
    assert FIRMWARE.exists()
    assert HAND_OVER not in machine.calls()


def lateBoardIsWaitedFor(machine):
    machine.packages.stage(BOARD_FIRMWARE)
    machine.board.start("--version-text", "V3.2", "--fault", "slow=2500@version")
    machine.program.start()

    await_end_of_update(machine, 0)
    assert HAND_OVER in machine.calls()


def failedCopyInstallsUndefined(machine):
    machine.packages.stage(*GOOD, folder=STICK)
    STAGED.touch()  # a file where the folder should be
    start_on_screen(machine)

    machine.screen.press_button()
    await_failure(machine, 65280, 0)
    await_colour(machine, RED, TIPS)
    same(install_calls("undefined"), machine.calls())


def clickWithoutPackagesShowsTheYellowTexts(machine):
    start_on_screen(machine)

    machine.screen.press_button()
    await_colour(machine, YELLOW, TIPS)
    assert not CALLS.exists()
    assert machine.program.is_running


def boardImageOnTheStickUpdatesTheBoardTwice(machine):
    machine.packages.stage(BOARD_FIRMWARE, folder=STICK)
    image = pathlib.Path("/mnt/update_ipk/app.bin")
    image.parent.mkdir()
    image.write_text("image\n", encoding="ascii")
    start_quick_board(machine, "--version-text", "V3.2")
    start_on_screen(machine)

    machine.screen.press_button()
    await_colour(machine, GREEN, SUCCESS)
    assert same_content(image, "/root/ota/app.bin")
    same([HAND_OVER, *install_calls(STAGED / os.path.basename(BOARD_FIRMWARE)), HAND_OVER], machine.calls())
    same(0, machine.board.stop())
