"""The screen: a display with the window of the program, or the reports of a probe in the program."""

import json
import os
import subprocess

from . import paths, pictures
from .watch import text_of

WIDTH, HEIGHT = 1280, 800


def start_display(width, height, *options):
    """Starts a virtual display. Returns the Popen of its server and the value for DISPLAY."""
    answer, number = os.pipe()
    with open(answer, encoding="ascii") as display:
        server = subprocess.Popen(
            ["Xvfb", "-displayfd", str(number), "-screen", "0", f"{width}x{height}x24", "-dpi", "96", "-noreset",
             "-nolisten", "tcp", *options],
            pass_fds=[number], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(number)
        return server, f":{display.readline().strip()}"


class Display:
    """A display with the screen of the program. A subclass implements take(path) and click(x, y)."""

    def __init__(self, machine, folder):
        """The folder receives temporary pictures."""
        self._machine = machine
        self._scratch = folder / "window.png"

    def picture(self, path, before=None):
        """Saves the screen when it no longer changes and differs from the picture `before`."""
        self._machine.await_(f"a new picture for {path.stem}", pictures.settled, self.take, path, before)

    def shows(self, colour, place):
        """Whether the screen has the colour at the place now."""
        return self.take(self._scratch) and pictures.has_colour(self._scratch, colour, place)

    def await_button(self):
        self._machine.await_("an enabled button", self.shows, pictures.BUTTON_ENABLED, pictures.BUTTON)

    def press_button(self):
        """Waits until the button is enabled, then clicks it."""
        self.await_button()
        self.click(WIDTH // 2, HEIGHT // 2)


class Screen(Display):
    """The screen of the program. Call open() or probe() before the start of the program."""

    def __init__(self, machine):
        super().__init__(machine, paths.STATE)
        self.window = None
        self._server = None

    def open(self, own=True):
        """Opens a virtual display. If `own` is false and the caller has a display, uses that one."""
        environment = self._machine.environment
        environment["QT_QPA_PLATFORM"] = "xcb"
        if own or not environment.get("DISPLAY"):
            self._server, environment["DISPLAY"] = start_display(WIDTH, HEIGHT)
            environment.pop("XAUTHORITY", None)

    def has_window(self):
        """Whether the program has a window. Stores its number in `window`."""
        found = self._machine.run("xdotool", "search", "--onlyvisible", "--pid", self._machine.program.pid)
        self.window = found.stdout.partition("\n")[0] if found.returncode == 0 else None
        return bool(self.window)

    def find_window(self):
        """Waits for the window of the program and gives it the whole display, as on the appliance."""
        self._machine.await_("the window", self.has_window)
        self._machine.run("xdotool", "windowmove", self.window, 0, 0)
        self._machine.run("xdotool", "windowsize", self.window, WIDTH, HEIGHT)

    def take(self, path):
        """Saves the window as it is now. Returns whether it exists."""
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
        """Sends the probe a command: "click ID", or "close" for the window."""
        paths.SCREEN_CONTROL.write_text(line + "\n", encoding="utf-8")

    @property
    def painted(self):
        """The last painted state, as reported by the probe; empty before the first one."""
        state = text_of(paths.SCREEN_LOG).rpartition("\n")[0].rpartition("\n")[2]
        return json.loads(state) if state else {"items": {}, "rows": []}

    @property
    def items(self):
        """The properties of the visible items, by their ids."""
        return self.painted["items"]

    @property
    def rows(self):
        """The rows of the list: each text is followed by its colour."""
        return self.painted["rows"]

    def close(self):
        if self._server:
            self._server.terminate()
            self._server.wait()
