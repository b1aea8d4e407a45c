"""The stated time of a transfer, compared with a transfer at the speed of the real line."""

import pathlib
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2]))

import sets
from machine import paths
from rehearsal.inspection import inspect, program

SIZE = 5000


def transferTakesTheStatedTime(machine):
    paths.STAGED.mkdir()
    (paths.STAGED / "40-firmware.ipk").write_bytes(sets.package(firmware=SIZE))
    firmware = inspect(paths.STAGED).firmware
    machine.board.start("--pace", str(program.BAUD))
    machine.program.start()
    machine.await_("the start command", machine.board.saw, "update start command")
    start = time.monotonic()
    machine.await_("the success", lambda: not paths.FIRMWARE.exists())  # removed when the success is shown
    seconds = time.monotonic() - start
    print(f"stated {firmware.seconds:.2f} s, taken {seconds:.2f} s")
    assert 0.98 * firmware.seconds < seconds < 1.2 * firmware.seconds  # a busy host wakes the program late
    assert machine.board.saw(rf"block {firmware.blocks} of {firmware.blocks}")
