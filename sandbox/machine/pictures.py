"""Examines pictures of a screen with ImageMagick."""

import pathlib
import subprocess

WHITE, GREEN, RED, YELLOW = "#ffffff", "#008000", "#ff0000", "#ffff00"

# The places of the items on a screen of 1280 by 800 pixels. Each screen draws only this item there.
WHOLE = "1280x800+0+0"
TITLE = "1280x40+0+15"
TIPS = "1240x60+40+115"
SUCCESS = "1280x60+0+225"
STATUS = "1280x100+0+370"
BUTTON = "200x40+540+380"
BUTTON_ENABLED = "#333333"


def signature(picture):
    """A text that is equal for two pictures exactly when their pixels are equal."""
    return _output("identify", "-format", "%#", picture)


def has_colour(picture, colour, place):
    """Whether the place has the colour in at least 20 pixels; the edges of letters in other colours have fewer."""
    return _output("convert", picture, "-crop", place, "+repage", "-fill", "black", "+opaque", colour,
                   "-fill", "white", "-opaque", colour, "-format", "%[fx:mean * w * h >= 20]", "info:") == "1"


def settled(take, picture, before=None):
    """Takes two pictures by take(path), which returns whether it succeeded. Returns whether they are equal, have
    more than one colour, and differ from the picture `before`."""
    again = pathlib.Path(picture).with_suffix(".again.png")
    if not take(picture) or not take(again):
        return False
    shown = signature(picture)
    is_settled = shown == signature(again)
    again.unlink()
    return (is_settled and (before is None or shown != signature(before))
            and int(_output("identify", "-format", "%k", picture)) > 1)


def _output(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout
