"""The steps that `before` and `during` of a row can call."""

import os
import pathlib
import re
import shlex
import shutil
import signal
import subprocess

from machine import paths
from machine.watch import same_content, text_of

HOOKS = paths.STATE / "hooks"  # scripts that run before the commands of the same name
TOOLS = paths.STATE / "tools"  # the commands of the PATH, without the forgotten one
INSTALLING = paths.STATE / "installing"  # the process of a slow package's script
GO = paths.STATE / "go"  # ends a slow package


class Steps:
    """The steps on the machine of one row."""

    def __init__(self, machine, row, has_tap=False):
        self.machine = machine
        self.row = row
        self.has_tap = has_tap  # between the program and the board
        self.status = None  # exit status of the program, set by await_exit()
        HOOKS.mkdir()
        machine.environment["PATH"] = f"{HOOKS}:{machine.environment['PATH']}"
        machine.screen.probe()

    def names(self):
        """The names that a row can use: the steps below, the parts of the machine, and some of its paths."""
        parts = ("board", "console", "environment", "packages", "program", "screen")
        return {name: getattr(self, name) for name in dir(self) if not name.startswith("_")} | {
            **{name: getattr(self.machine, name) for name in parts},
            "staged": paths.STAGED, "stick": paths.STICK, "pid_file": paths.PID_FILE,
        }

    # Before the program starts.

    def sh(self, lines):
        """Runs shell lines on the machine. The row fails when one of them fails."""
        call = self.machine.run("bash", "-euc", lines)
        assert call.returncode == 0, call.stdout

    def stage(self, file, name, folder=paths.STAGED):
        """Puts a package file into the folder under another name."""
        folder.mkdir(parents=True, exist_ok=True)
        shutil.copy(self.machine.packages.folder / file, folder / name)

    def put_on_stick(self, *files):
        self.machine.packages.stage(*files, folder=paths.STICK)

    def install(self, file):
        """Installs a package file."""
        self.sh(f"opkg install {self.machine.packages.folder / file}")

    def packaged_file_is_whole(self, file, path):
        """Compares a file on the machine with that in the package file."""
        self.sh(f"dpkg-deb --fsys-tarfile {self.machine.packages.folder / file} | tar -xO ./{path} | cmp - /{path}")

    def fill(self, folder):
        """Fills a folder that is a small file system."""
        self.sh(f"head -c 1M /dev/zero >{folder}/filler || true")

    def hook(self, command, lines):
        """Runs shell lines before each call of the command by the program's shell."""
        real = shutil.which(command, path=self.machine.environment["PATH"])
        _write_script(HOOKS / command, f'#!/usr/bin/env bash\nreal={shlex.quote(real)}\n{lines}\nexec "$real" "$@"\n')

    def strike(self, command, arguments, lines, call=1):
        """Runs shell lines once: before the call number `call` of the command by the program's shell. Only
        calls count whose arguments match the pattern `arguments`. In the lines, `$real` is the path of the
        command."""
        calls = HOOKS / f".{command}"
        self.hook(command, f"""\
pattern={shlex.quote(arguments)}
if [[ $* == $pattern ]] && echo >>{calls} && [ "$(wc -l <{calls})" -eq {call} ]; then
    {lines}
fi""")

    def strike_while_unpacking(self, arguments, size, lines=""):
        """Kills the package manager once, when a file that it unpacks has `size` bytes. Shell lines run after that."""
        self.strike("opkg", arguments, f"""\
    {{ (ulimit -c 0 -f {size // 1024}; exec env --default-signal=XFSZ "$real" "$@") 2>&3; }} 3>&2 2>/dev/null
    {lines}
    kill -9 $$""")

    def forget(self, command):
        """Removes the command from the PATH. Returns the path for a replacement."""
        TOOLS.mkdir()
        _, *folders = self.machine.environment["PATH"].split(":")
        self.machine.run("bash", "-c", 'for folder in "${@:3}"; do find "$folder/" -maxdepth 1 ! -name "$1" '
                         '-exec ln -st "$2" -- {} +; done', "forget", command, TOOLS, *folders)
        self.machine.environment["PATH"] = f"{HOOKS}:{TOOLS}"
        return TOOLS / command

    def replace_application(self, lines):
        """Replaces the main application by shell lines. Its calls are still recorded."""
        application = pathlib.Path("/root/Hmi")
        application.unlink()  # a link to the stand-in
        _write_script(application, f'#!/bin/sh\necho "$0 $*" >>{paths.CALLS}\n{lines}\n')

    def start_by(self, lines):
        """Makes every later start run these shell lines instead of the program; it starts nothing itself.

        The lines start the program by "$@", the program with its arguments. `program` stands for the shell
        that runs them, which becomes the program itself only through `exec "$@"`.
        """
        self.machine.program.command = ["/bin/sh", "-c", lines, "starter", *self.machine.program.command]

    def start_idler(self, group=0):
        """Starts a process that sleeps, in the process group `group` or in its own. Returns its Popen."""
        return subprocess.Popen(["sleep", "1000"], process_group=group)

    # The program and the board.

    def start(self, *arguments):
        """Starts the program, also beside a running instance. Returns its Popen."""
        return self.machine.program.start(*self.row.arguments, *arguments)

    def start_again(self, *arguments):
        """Starts the program with empty logs of the screen and the console."""
        paths.SCREEN_LOG.write_bytes(b"")
        self.machine.console.clear()
        return self.start(*arguments)

    def cut_off(self):
        """Kills the program, as a power cut does."""
        self.machine.program.stop(signal.SIGKILL)

    def switch_board_on(self, *options):
        # Each control byte is repeated ten times, because the program reads ten bytes at a time. The
        # delays keep the order fixed: each read takes about a second, and no `C` may arrive before the
        # program has read the reply to the start command, and no second `C` during the read of the first.
        timing = ("--control-repeat", "10", "--boot-delay", "2500", "--request-interval", "3000")
        if self.has_tap:
            self.machine.board.start_with_tap(self.machine.tap, *timing, *options)
        else:
            self.machine.board.start(*timing, *options)

    def switch_board_off(self):
        self.machine.board.stop()
        if self.has_tap:
            self.machine.tap.stop()
        paths.BOARD_SUMMARY.unlink()

    def press(self):
        """Clicks the button and waits for the effect."""
        self.click()
        self.await_("the effect of the button", self._is_pressed)

    def click(self, times=1):
        """Clicks the button, `times` times without a pause."""
        self.await_button()
        self.machine.screen.tell_probe("\n".join(["click udisk"] * times))

    def close_window(self):
        self.machine.screen.tell_probe("close")

    def let_installer_end(self):
        """Ends the wait of a slow package."""
        GO.touch()

    def kill_package_manager(self):
        """Kills it, but not the script that it has started. Returns when the shell that called it has said so."""
        for name in pathlib.Path("/proc").glob("[0-9]*/comm"):
            if text_of(name) == "opkg\n":
                os.kill(int(name.parent.name), signal.SIGKILL)
        self.await_line(paths.PROGRAM_LOG, "^Killed$")

    def kill_script(self):
        """Kills the script of a slow package."""
        os.kill(int(INSTALLING.read_text(encoding="ascii")), signal.SIGKILL)

    # Waiting and inspection.

    def await_(self, what, condition, *arguments):
        """Waits until condition(*arguments) is true. Fails when the program ends first."""
        return self.machine.await_(what, condition, *arguments)

    def await_button(self):
        """Waits until the button can be pressed."""
        self.await_("a button that can be pressed", self._is_idle)

    def await_text(self, text):
        """Waits for a text on the screen."""
        self.await_(text, lambda: any(text in item.get("text", "") for item in self.machine.screen.items.values()))

    def await_item(self, name, **properties):
        """Waits for an item on the screen with these properties."""
        def is_there():
            item = self.machine.screen.items.get(name)
            return item is not None and properties.items() <= item.items()

        self.await_(name, is_there)

    def await_path(self, path):
        """Waits until the path exists."""
        self.await_(path, pathlib.Path(path).exists)

    def await_removal(self, path):
        """Waits until the path does not exist."""
        self.await_(f"removal of {path}", lambda: not pathlib.Path(path).exists())

    def await_copy(self, file, copy):
        """Waits until the copy is complete."""
        self.await_(f"a copy of {file}", same_content, file, copy)

    def await_line(self, path, expression):
        """Waits until a text line of the file matches the regular expression."""
        self.await_(expression, lambda: re.search(expression, text_of(path), re.MULTILINE))

    def await_installer(self):
        """Waits until the installation of a slow package has started."""
        self.await_("the installer", lambda: INSTALLING.exists() and INSTALLING.stat().st_size)

    def await_board(self, expression):
        """Waits until a text line of the board's transcript matches the regular expression."""
        self.await_(expression, self.machine.board.saw, expression)

    def await_exit(self):
        """Waits for the end of the program. Its exit status is compared with `status` of the row."""
        status = self.machine.program.wait()
        self.status = status if status >= 0 else 128 - status

    def await_end(self, process):
        """Waits for the end of another process, given as its Popen."""
        self.await_("the end of the other process", lambda: process.poll() is not None)

    def gone(self):
        """The classes of the program's objects, in the order of their destruction."""
        return re.findall(r"^probe: (.*) is gone$", self.machine.console.text, re.MULTILINE)

    def _is_idle(self):
        button = self.machine.screen.items.get("udisk", {})
        return button.get("enabled") and button["color"] == "#333333"

    def _is_pressed(self):
        return self.machine.screen.items.get("tip_en") != {"color": "#ffffff", "enabled": True, "text": ""}


def _write_script(path, text):
    path.write_text(text, encoding="utf-8")
    path.chmod(0o755)
