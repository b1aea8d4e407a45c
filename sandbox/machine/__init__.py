"""Drives the simulated machine of sandbox/run: program, board, screen, console and packages.

    with Machine(build) as machine:
        machine.packages.stage("good/10-machine-base_1.2.0.ipk")
        machine.board.start("--version-text", "V4.1.3")
        machine.program.start()
        machine.await_("the package", machine.console.package_ended, 0, 0)

`watch` and `pictures` inspect machines of any kind. `emulated` contains another machine with the same
parts: a complete ARM board in an emulator.
"""

import os
import pathlib
import sys

from . import paths
from .packages import Packages
from .processes import Board, Program, Tap
from .screen import Screen
from .watch import Console, await_, run, text_of

HAND_OVER = "/root/Hmi -path=/root"  # in the form of calls()


class Machine:
    """The machine on which this code runs. At its exit it ends everything that it has started."""

    def __init__(self, build, packages=None):
        """`build` is a build tree, `packages` a folder of package files (default: builds the example packages)."""
        if os.environ.get("UPDATE_ASSISTANT_SANDBOX") != "1":
            sys.exit(f"{sys.argv[0]}: runs only on the machine of sandbox/run")
        self.build = pathlib.Path(build)
        # For every started process. Software rendering and a fixed locale give the same output on every host.
        self.environment = os.environ | {"QT_QUICK_BACKEND": "software", "LC_ALL": "C.UTF-8"}
        self.program = Program(self.environment, self.build / "src/update-assistant", paths.PROGRAM_LOG)
        self.board = Board(self.environment, self.build / "simulator/boardsim")
        self.tap = Tap(self.environment, self.build / "simulator/boardtap")
        self.screen = Screen(self)
        self.console = Console(paths.PROGRAM_LOG)
        self.packages = Packages(packages)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for part in (self.program, self.tap, self.board, self.screen):
            part.close()

    def await_(self, what, condition, *arguments):
        """Waits as watch.await_ does. Fails when the program ends first."""
        return await_(what, condition, *arguments, process=self.program.process)

    def run(self, *command, **variables):
        """Runs a command on the machine as watch.run does, with additional environment variables."""
        return run(*command, environment=self.environment | variables)

    def calls(self):
        """The calls of the package manager and of the main application, as command lines."""
        return text_of(paths.CALLS).splitlines()

    def show_what_happened(self):
        for path in (paths.PROGRAM_LOG, paths.BOARD_LOG, paths.BOARD_OUTPUT, paths.TAP_LOG, paths.CALLS):
            text = text_of(path)
            if text:
                print(f"-- {path}\n{text}", file=sys.stderr)
