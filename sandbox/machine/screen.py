"""The screen: a display with the program's window, or what a probe in the program tells of it."""

import json
import os
import subprocess

from . import paths, pictures
from .watch import text_of

WIDTH, HEIGHT = 1280, 800


def start_display(width, height, *options):
    """Starts a virtual display. Returns the Popen of its server, and what DISPLAY has to be."""
    answer, number = os.pipe()
    with open(answer, encoding="ascii") as display:
        server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(number), "-screen", "0", f"{width}x{height}x24", "-dpi", "96", "-noreset",
             "-nolisten", "tcp", *options],
            pass_fds=[number], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(number)
        return server, f":{display.readline().strip()}"


class Display:
    """What shows the program's screen. A machine's own has take(path) and click(x, y) beside this."""

    def __init__(self, machine, folder):
        """The folder is for pictures that nobody keeps."""
        self._machine = machine
        self._scratch = folder / "window.png"

    def picture(self, path, before=None):
        """Saves the screen once it shows something that stays, and else than the picture before."""
        self._machine.await_(f"a new picture for {path.stem}", pictures.settled, self.take, path, before)

    def shows(self, colour, place):
        """Whether the screen, as it is now, has the colour at the place."""
        return self.take(self._scratch) and pictures.has_colour(self._scratch, colour, place)

    def await_button(self):
        self._machine.await_("an enabled button", self.shows, pictures.BUTTON_ENABLED, pictures.BUTTON)

    def press_button(self):
        """Clicks the button in the middle of the screen, once it can be pressed."""
        self.await_button()
        self.click(WIDTH // 2, HEIGHT // 2)


class Screen(Display):
    """The program's screen. Nothing of it is there before open() or probe(), which come before the program."""

    def __init__(self, machine):
        super().__init__(machine, paths.STATE)
        self.window = None
        self._server = None

    def open(self, own=True):
        """Opens a display of its own, or the caller's, if it is to be that and there is one."""
        environment = self._machine.environment
        environment["QT_QPA_PLATFORM"] = "xcb"
        if own or not environment.get("DISPLAY"):
            self._server, environment["DISPLAY"] = start_display(WIDTH, HEIGHT)
            environment.pop("XAUTHORITY", None)

    def has_window(self):
        """Whether the program has a window; if so, `window` is its number."""
        found = self._machine.run("xdotool", "search", "--onlyvisible", "--pid", self._machine.program.pid)
        self.window = found.stdout.partition("\n")[0] if found.returncode == 0 else None
        return bool(self.window)

    def find_window(self):
        """Waits for the program's window and gives it the whole screen, as the appliance does."""
        self._machine.await_("the window", self.has_window)
        self._machine.run("xdotool", "windowmove", self.window, 0, 0)
        self._machine.run("xdotool", "windowsize", self.window, WIDTH, HEIGHT)

    def take(self, path):
        """Saves the window as it is on the screen now. Returns whether there was one."""
        return self._machine.run("import", "-silent", "-window", self.window, path).returncode == 0

    def click(self, x, y):
        self._machine.run("xdotool", "mousemove", "--window", self.window, x, y, "click", 1)

    def probe(self):
        """Loads the plugin sandbox/probe into the program, which then needs no display."""
        os.mkfifo(paths.SCREEN_CONTROL)
        self._machine.environment |= {
            "QT_QPA_PLATFORM": "offscreen",
            "QT_QPA_GENERIC_PLUGINS": f"screen:{paths.SCREEN_LOG}:{paths.SCREEN_CONTROL}",
            "QT_PLUGIN_PATH": str(self._machine.build / "plugins"),
        }

    def tell_probe(self, line):
        """Makes the probe "click ID" or "close" the window."""
        paths.SCREEN_CONTROL.write_text(line + "\n", encoding="utf-8")

    @property
    def painted(self):
        """The last state that was painted, as the probe tells it; empty before the first."""
        state = text_of(paths.SCREEN_LOG).rpartition("\n")[0].rpartition("\n")[2]
        return json.loads(state) if state else {"items": {}, "rows": []}

    @property
    def items(self):
        """What the visible items hold, by their ids."""
        return self.painted["items"]

    @property
    def rows(self):
        """The rows of the list: texts, each with its colour behind it."""
        return self.painted["rows"]

    def close(self):
        if self._server:
            self._server.terminate()
            self._server.wait()
