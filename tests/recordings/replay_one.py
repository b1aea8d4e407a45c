"""Replays a recording on the simulated machine: replay_one.py BUILD PACKAGES FILE PACE. Started by replay.py.

A recording with a version query is an update: the program is started, with one package and the firmware of the
recording. Any other was made by a native caller: its calls are made again.
"""

import json
import pathlib
import re
import subprocess
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "sandbox"))

from machine import Machine, paths
from machine.processes import EMULATOR
from machine.watch import await_, text_of

CALLS = {  # by the frame that begins it
    "update start command": "start-command",
    "start frame": "transfer",
    "connect packet": "packets",
    "V3 handshake": "handshake-v3",
    "V4 handshake": "handshake-v4",
}
HOLDS_S = 1  # in which the program sends nothing after the end


def put_firmware(build, recording):
    """Puts the firmware in the recording where the program finds it. Blocks that were never sent are zeros."""
    summary, image = paths.STATE / "summary.json", paths.STATE / "image"
    transcript = subprocess.run([*EMULATOR, build / "simulator/boardtap", "--read", recording, "--hex", "short",
                                 "--summary", summary, "--image", image],
                                stdout=subprocess.PIPE, text=True, check=False).stdout
    transfers = json.loads(text_of(summary))["transfers"]
    size = max((transfer["announcedSize"] for transfer in transfers), default=0)
    if size:
        paths.FIRMWARE.parent.mkdir(parents=True, exist_ok=True)
        paths.FIRMWARE.write_bytes(image.read_bytes().ljust(size, b"\0"))
    return re.findall(r" -> (version query|" + "|".join(CALLS) + r")\b", transcript)


def main(build, packages, recording, pace):
    build = pathlib.Path(build)
    with Machine(build, packages) as machine:
        begun = put_firmware(build, recording)
        machine.board.replay(recording, pace)
        if "version query" in begun:
            machine.screen.probe()
            machine.packages.stage("good/10-machine-base_1.2.0.ipk")
            machine.program.start()
        else:
            machine.program.command = [*machine.program.command[:-1], build / "tests/recordings/bridgecalls"]
            machine.program.start(*(CALLS[frame] for frame in begun))
        board = machine.board
        await_("the end of the replay",
               lambda: board.saw(r"-- (replay is complete|board hangs up)$") or not board.is_running)
        time.sleep(HOLDS_S)
        status = board.stop()
    if status:
        print(text_of(paths.BOARD_OUTPUT))
    return status


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
