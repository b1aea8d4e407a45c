"""Paths on the simulated machine and in the project."""

import pathlib

PROJECT = pathlib.Path(__file__).resolve().parents[2]

# Fixed paths of the program.
STAGED = pathlib.Path("/tmp/ota")
STICK = pathlib.Path("/mnt/nand_disk/update_ipk")
PID_FILE = pathlib.Path("/tmp/ota.pid")
FIRMWARE = pathlib.Path("/root/mcu/UpdataSystem.bin")
BOARD_DEVICE = pathlib.Path("/dev/ttymxc1")

# The state of the machine.
STATE = pathlib.Path("/run/machine")
CALLS = STATE / "calls.log"  # calls of the package manager and the main application
PACKAGED_FIRMWARE = pathlib.Path("/usr/share/machine/firmware/UpdataSystem.bin")
DATABASE = pathlib.Path("/var/lib/opkg/status")  # of the package manager
PACKAGE_SETTINGS = pathlib.Path("/etc/opkg/opkg.conf")

# Logs.
PROGRAM_LOG = STATE / "program.log"  # output of the program and its commands
BOARD_LOG = STATE / "board.log"  # transcript of the serial line
BOARD_OUTPUT = STATE / "boardsim.out"
BOARD_SUMMARY = STATE / "board.json"
TAP_LOG = STATE / "tap.log"  # transcript of boardtap
TAP_RECORDING = STATE / "tap.recording"
RECEIVED = STATE / "received.bin"  # the image that the board has received
SCREEN_LOG = STATE / "screen.log"  # the states of the screen that the program has painted
SCREEN_CONTROL = STATE / "screen.control"
