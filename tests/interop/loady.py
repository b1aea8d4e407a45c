"""Sends firmware to `loady` of U-Boot in an emulator: loady.py BUILD FOLDER [SIZE...], on the simulated machine.

The program's own transfer sends it, and the tap records it into FOLDER. Prints a table, one line a row of loady.toml.
"""

import os
import pathlib
import re
import select
import shutil
import socket
import subprocess
import sys
import time
import tomllib
import tty
import zlib

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "sandbox"))

from machine import Machine, paths

U_BOOT = "/usr/lib/u-boot/qemu_arm/u-boot.bin"
MEMORY = 0x50000000
BLOCK = 1024
WAIT_S = 300
TRY_S = 10

# loady waits 2 s for a byte, and the program sends each frame a second after the reply. The clock of U-Boot counts
# instructions, 1 ns each: no host is as fast, so loady waits longer than 2 s. With more for an instruction, a fast host
# makes loady lose patience; by the host's clock, a busy one does, which hands over 16 bytes at a time.
PATIENT = "shift=0"
ON_TIME = "shift=auto"  # the host's clock: the program waits 10 s, and loady takes 4 s to refuse a block
LOOK_S = 0.2


class Board:
    """U-Boot in an emulator, with its serial port on a pseudo-terminal."""

    def __init__(self, device, clock):
        self._port, theirs = socket.socketpair()
        self._emulator = subprocess.Popen(
            ["qemu-system-arm", "-M", "virt", "-m", "512", "-icount", clock, "-display", "none",
             "-monitor", "none", "-nic", "none", "-bios", U_BOOT, "-serial", "stdio"], stdin=theirs, stdout=theirs)
        theirs.close()
        self._said = b""
        self._commands = 0
        self._line, self._device = os.openpty()
        tty.setraw(self._device)
        device.symlink_to(os.ttyname(self._device))
        self._link = device

    def __enter__(self):
        self._await(rb"Hit any key")
        self.await_prompt()
        return self

    def __exit__(self, *_):
        self._emulator.kill()
        self._emulator.wait()
        self._link.unlink()
        self._port.close()
        os.close(self._line)
        os.close(self._device)

    def run(self, command):
        """Returns what U-Boot says."""
        self._commands += 1
        self._port.sendall(f"{command}; echo end-{self._commands}\r".encode())
        return self._await(rb"\nend-%d\r\n=> " % self._commands)

    def start_loady(self):
        self._port.sendall(b"loady %x\r" % MEMORY)
        self._await(rb"bps\.\.\.\r\n")

    def await_prompt(self):
        """loady drops for some seconds what comes after its end."""
        for _ in range(WAIT_S // TRY_S):
            try:
                self._commands += 1
                self._port.sendall(b"\recho end-%d\r" % self._commands)
                self._await(rb"\nend-%d\r\n=> " % self._commands, TRY_S)
                return
            except TimeoutError:
                pass
        raise TimeoutError("U-Boot does not end loady")

    def _await(self, pattern, seconds=WAIT_S):
        end = time.monotonic() + seconds
        while not (match := re.search(pattern, self._said)):
            if not select.select([self._port], [], [], max(0, end - time.monotonic()))[0]:
                raise TimeoutError(f"U-Boot does not say {pattern}: {self._said[-200:]}")
            self._said += self._port.recv(4096)
        said, self._said = self._said[:match.end()], self._said[match.end():]
        return said

    def carry(self, process, lost):
        """Connects serial port and pseudo-terminal until the process has ended, but for the byte at `lost`."""
        sent = 0
        os.write(self._line, self._said)
        self._said = b""
        while process.poll() is None:
            for source in select.select([self._port, self._line], [], [], LOOK_S)[0]:
                if source is self._port:
                    os.write(self._line, self._port.recv(4096))
                    continue
                data = os.read(self._line, 4096)
                gap = lost - sent if lost is not None and sent <= lost < sent + len(data) else len(data)
                self._port.sendall(data[:gap] + data[gap + 1:])
                sent += len(data)


def firmware_of(row):
    ends = bytes.fromhex(row.get("ends", ""))
    return bytes((7 * i + i // 256) % 256 for i in range(row["size"] - len(ends))) + ends


def send(machine, board, row):
    """Returns the result of the program's transfer, and the size and the CRC that U-Boot has after it."""
    paths.FIRMWARE.parent.mkdir(parents=True, exist_ok=True)
    paths.FIRMWARE.write_bytes(firmware_of(row))
    board.run("setenv filesize")
    machine.tap.start(paths.BOARD_DEVICE)
    with subprocess.Popen(["stdbuf", "-oL", machine.build / "tests/recordings/bridgecalls", "transfer"],
                          env=machine.environment, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE) as program:
        # Now: the program drops what comes before it waits, and then waits no longer than 10 s.
        while b"waiting for updating" not in program.stdout.readline():
            pass
        board.start_loady()
        board.carry(program, row.get("lost"))
        result = re.search(rb"^transfer: (-?\d+)$", program.stdout.read(), re.MULTILINE)[1].decode()
    machine.tap.stop()
    board.await_prompt()
    size = re.search(rb"filesize=([0-9a-f]+)", board.run("printenv filesize"))
    if not size:
        return result, 0, 0
    crc = re.search(rb"==> ([0-9a-f]{8})", board.run(f"crc32 {MEMORY:x} {size[1].decode()}"))
    return result, int(size[1], 16), int(crc[1], 16)


def is_met(machine, row, folder):
    """Prints the line of a row; returns whether U-Boot has what it must have."""
    try:
        with Board(machine.tap.device, ON_TIME if "lost" in row else PATIENT) as board:
            result, received, crc = send(machine, board, row)
    except TimeoutError as error:
        print(f"     {error}")
        result, received, crc = "none", 0, 0
    size = row["size"]
    name = f"loady-{size:x}"
    shutil.copy(machine.tap.recording, folder / f"{name}.recording")
    padded = firmware_of(row).ljust((size // BLOCK + 1) * BLOCK, b"\x1a")
    is_good = received == row["received"] and crc == zlib.crc32(padded[:received])
    print(f"{'ok  ' if is_good else 'FAIL'} {size:7} {size:>9x} {received:9} {result:>7}  {row['why']}", flush=True)
    if not is_good:
        print(f"     {row['received']} bytes were to be received; {folder / name}.recording shows what happened")
    return is_good


def main(build, folder, *sizes):
    rows = tomllib.loads(pathlib.Path(__file__).with_suffix(".toml").read_text(encoding="utf-8"))["row"]
    wanted = [int(size, 0) for size in sizes]
    rows = [row for row in rows if not wanted or row["size"] in wanted]
    with Machine(build) as machine:
        print("        size announced  received program", flush=True)
        missed = [row for row in rows if not is_met(machine, row, pathlib.Path(folder))]
    return 1 if missed or not rows else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
