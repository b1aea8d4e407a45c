"""Makes the recordings that no row of the fault table makes: record.py BUILD FOLDER, on the simulated machine.

    sandbox/run --bind FOLDER -- /usr/bin/python3 -B tests/recordings/record.py build/dev FOLDER

A recording of a row: scripts/faults --tap --keep DIR ROW leaves it as DIR/ROW/tap.recording.
"""

import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import tty

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "sandbox"))

from machine import Machine, paths
from machine.watch import text_of

FRAME_MARK = 0xE7
BOOT_S = 2.5  # the program reads the reply to the start command for up to 2 s


def reply(size, content):
    """A reply to a command: `content` at its place, sealed."""
    frame = bytearray(size)
    frame[0] = frame[-1] = FRAME_MARK
    frame[1] = size
    for offset, data in content.items():
        frame[offset:offset + len(data)] = data
    frame[-2] = sum(frame[1:-2]) & 0xFF
    return bytes(frame)


VERSION_REPLY = reply(36, {16: b"V4.1.3"})
START_REPLY = reply(18, {12: b"\x13\x00\xc2"})


class ForeignBoard(threading.Thread):
    """A board whose boot loader is a YModem receiver of other hands, `rb`. Replies to the two commands itself."""

    def __init__(self, device, folder):
        super().__init__(daemon=True)
        self._folder = folder
        self._master, slave = os.openpty()
        tty.setraw(slave)
        self._slave = slave  # stays open, so that the line lives on
        device.symlink_to(os.ttyname(slave))
        self.status = None

    def run(self):
        self._answer(30, VERSION_REPLY)
        self._answer(18, START_REPLY)
        threading.Event().wait(BOOT_S)
        ours, theirs = socket.socketpair()
        with subprocess.Popen(["rb", "--quiet"], cwd=self._folder, stdin=theirs, stdout=theirs) as receiver:
            theirs.close()
            threading.Thread(target=self._carry, args=(ours,), daemon=True).start()
            while data := ours.recv(4096):
                os.write(self._master, data)
        self.status = receiver.returncode

    def _answer(self, size, frame):
        while size:
            size -= len(os.read(self._master, size))
        os.write(self._master, frame)

    def _carry(self, receiver):
        try:
            while True:
                receiver.sendall(os.read(self._master, 4096))
        except OSError:
            pass  # the receiver has ended


def watch(machine, name, folder):
    """Ends the tap and keeps what it has recorded."""
    machine.tap.stop()
    shutil.copy(machine.tap.recording, folder / f"{name}.recording")


def calls(machine, name, folder, options, *words):
    """Calls of a native caller."""
    machine.board.start_with_tap(machine.tap, *options)
    machine.run(machine.build / "tests/recordings/bridgecalls", *words)
    watch(machine, name, folder)
    assert machine.board.stop() == 0, text_of(paths.BOARD_LOG)


def update_with_rb(machine, folder):
    with tempfile.TemporaryDirectory() as received:
        board = ForeignBoard(machine.tap.device, received)
        machine.tap.start(paths.BOARD_DEVICE)
        board.start()
        machine.screen.probe()
        # Its size in hexadecimal digits begins with a letter: rb takes it as unknown, not as a wrong decimal.
        machine.packages.build("--firmware-size", str(0xbb8))
        machine.packages.stage("good/40-control-board-firmware_4.1.3.ipk")
        machine.program.start()
        machine.await_("the package", machine.console.package_ended, 0, 0)
        machine.await_("the removal of the firmware", lambda: not paths.FIRMWARE.exists())
        watch(machine, "rb-update", folder)
        image = (pathlib.Path(received) / "UpdataSystem.bin").read_bytes()
        assert board.status == 0 and image.startswith(paths.PACKAGED_FIRMWARE.read_bytes())


def main(build, folder):
    folder = pathlib.Path(folder)
    with Machine(build) as machine:
        calls(machine, "boardsim-packets", folder, ["--boot-delay", "60000"], "start-command", "packets")
        calls(machine, "boardsim-handshakes", folder, [], "handshake-v3", "handshake-v4")
        update_with_rb(machine, folder)
    return 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
