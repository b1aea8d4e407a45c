"""The display of the simulated machine, read from the memory of its server: cheap enough to be watched all the time."""

import array
import mmap
import pathlib
import struct
import zlib

from machine import paths
from machine.screen import HEIGHT, WIDTH, start_display

FOLDER = paths.STATE.parent / "display"
PIXEL = 4  # bytes: blue, green, red, none
# The places of the items on a screen of 1280 by 800 pixels, as left, top, right, bottom.
TIPS = (40, 115, 1280, 175)
SUCCESS = (0, 225, 1280, 285)
BUTTON = (540, 380, 740, 420)
BOTTOM = (10, 740, 200, 800)  # where a window of the whole size has its last line
COLOURS = {"white": 0xffffff, "green": 0x008000, "red": 0xff0000, "yellow": 0xffff00}
BUTTON_ENABLED = 0x333333
ENOUGH = 20  # pixels of a colour; the edges of letters in other colours have fewer


class Display:
    """A virtual display of the size of the screen. start() returns the value for DISPLAY."""

    def __init__(self):
        self._server = None
        self._memory = None
        self._pixels = 0  # where they begin

    def start(self):
        FOLDER.mkdir()
        self._server, name = start_display(WIDTH, HEIGHT, "-fbdir", str(FOLDER))
        with open(FOLDER / "Xvfb_screen0", "rb") as file:
            self._memory = mmap.mmap(file.fileno(), 0, prot=mmap.PROT_READ)
        header = struct.unpack(">25I", self._memory[:100])  # an X window dump
        self._pixels = header[0] + 12 * header[19]
        assert (header[4], header[5], header[11], header[12]) == (WIDTH, HEIGHT, 8 * PIXEL, WIDTH * PIXEL), header
        return name

    def frame(self):
        return Frame(self._memory[self._pixels:self._pixels + WIDTH * HEIGHT * PIXEL])

    def close(self):
        if self._server:
            self._server.terminate()
            self._server.wait()


class Frame:
    """What the display showed at a moment."""

    def __init__(self, pixels):
        self.pixels = pixels

    def __eq__(self, other):
        return isinstance(other, Frame) and self.pixels == other.pixels

    def part(self, place):
        left, top, right, bottom = place
        starts = ((row * WIDTH + left) * PIXEL for row in range(top, bottom))
        return b"".join(self.pixels[start:start + (right - left) * PIXEL] for start in starts)

    def has(self, colour, place):
        part = array.array("I", self.part(place))
        return part.count(colour) + part.count(colour | 0xff000000) >= ENOUGH

    @property
    def is_blank(self):
        return self.pixels == self.pixels[:PIXEL] * (WIDTH * HEIGHT)

    @property
    def is_whole(self):
        return self.has(COLOURS["white"], BOTTOM)

    @property
    def tips(self):
        """The colour of the two tips; empty when there are none."""
        return next((name for name, colour in COLOURS.items() if self.has(colour, TIPS)), "")

    @property
    def is_success(self):
        return self.has(COLOURS["green"], SUCCESS)

    @property
    def has_button(self):
        return self.has(BUTTON_ENABLED, BUTTON)

    def save(self, path):
        """Writes a PNG file."""
        rgb = bytearray(WIDTH * HEIGHT * 3)
        for channel in range(3):
            rgb[channel::3] = self.pixels[2 - channel::PIXEL]
        line = WIDTH * 3
        rows = b"".join(b"\0" + rgb[start:start + line] for start in range(0, len(rgb), line))
        chunks = ((b"IHDR", struct.pack(">2I5B", WIDTH, HEIGHT, 8, 2, 0, 0, 0)), (b"IDAT", zlib.compress(rows)),
                  (b"IEND", b""))
        pathlib.Path(path).write_bytes(b"\x89PNG\r\n\x1a\n" + b"".join(
            struct.pack(">I", len(data)) + name + data + struct.pack(">I", zlib.crc32(name + data))
            for name, data in chunks))
