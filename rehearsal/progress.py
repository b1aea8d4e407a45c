"""Shows how far a rehearsal is: a line that changes on a terminal, plain lines elsewhere."""

import shutil
import time

from .options import shown

BAR = 30
LINES_OF_A_TRANSFER = 4  # where there is no terminal


class Progress:
    def __init__(self, stream):
        self._stream = stream
        self._is_terminal = stream.isatty()
        self._started = time.monotonic()
        self._text = ""
        self._said = 0  # quarters of the transfer

    def seconds(self):
        return time.monotonic() - self._started

    def say(self, text):
        """What goes on from now on. The text may be hostile."""
        self._text = shown(text)
        if self._is_terminal:
            self.tick()
        else:
            self.line(f"{self.seconds():6.1f} s  {self._text}")

    def transfer(self, number, count):
        count = max(count, 1)
        number = min(number, count)
        text = f"firmware: block {number} of {count}"
        if self._is_terminal:
            done = BAR * number // count
            self._text = f"{text} [{'#' * done}{'.' * (BAR - done)}]"
            self.tick()
        elif LINES_OF_A_TRANSFER * number // count > self._said or number == 1:
            self._said = LINES_OF_A_TRANSFER * number // count
            self.say(text)

    def tick(self):
        """Draws the line anew, with the time."""
        if self._is_terminal:
            line = f"{self.seconds():6.1f} s  {self._text}"[:shutil.get_terminal_size().columns - 1]
            self._stream.write(f"\r\x1b[K{line}")
            self._stream.flush()

    def line(self, text):
        """A line that stays."""
        self.clear()
        self._stream.write(text + "\n")
        self._stream.flush()

    def clear(self):
        if self._is_terminal:
            self._stream.write("\r\x1b[K")
            self._stream.flush()
