"""Where things are: on the simulated machine, and in the project."""

import pathlib

PROJECT = pathlib.Path(__file__).resolve().parents[2]

# The program's own.
STAGED = pathlib.Path("/tmp/ota")
STICK = pathlib.Path("/mnt/nand_disk/update_ipk")
PID_FILE = pathlib.Path("/tmp/ota.pid")
FIRMWARE = pathlib.Path("/root/mcu/UpdataSystem.bin")
BOARD_DEVICE = pathlib.Path("/dev/ttymxc1")

# The machine's.
STATE = pathlib.Path("/run/machine")
ROOT = STATE / "root"  # where packages are installed
CALLS = STATE / "calls.log"  # of the package manager and the main application
PACKAGED_FIRMWARE = ROOT / "usr/share/machine/firmware/UpdataSystem.bin"

# What is watched.
PROGRAM_LOG = STATE / "program.log"  # what the program and its commands print
BOARD_LOG = STATE / "board.log"  # the transcript of the line
BOARD_OUTPUT = STATE / "boardsim.out"
BOARD_SUMMARY = STATE / "board.json"
RECEIVED = STATE / "received.bin"  # the image that the board got
SCREEN_LOG = STATE / "screen.log"  # what the program has painted
SCREEN_CONTROL = STATE / "screen.control"
