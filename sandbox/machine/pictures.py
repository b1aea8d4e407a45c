"""What pictures of a screen show, told by ImageMagick."""

import pathlib
import subprocess

WHITE, GREEN, RED, YELLOW = "#ffffff", "#008000", "#ff0000", "#ffff00"

# Where a screen of 1280 by 800 has them; nothing else is ever there.
WHOLE = "1280x800+0+0"
TITLE = "1280x40+0+15"
TIPS = "1240x60+40+115"
SUCCESS = "1280x60+0+225"
STATUS = "1280x100+0+370"
BUTTON = "200x40+540+380"
BUTTON_ENABLED = "#333333"


def signature(picture):
    """The same for two pictures exactly when they show the same."""
    return _output("identify", "-format", "%#", picture)


def has_colour(picture, colour, place):
    """Whether the colour is there: more of it than the coloured edges of another colour's letters have."""
    return _output("convert", picture, "-crop", place, "+repage", "-fill", "black", "+opaque", colour,
                   "-fill", "white", "-opaque", colour, "-format", "%[fx:mean * w * h >= 20]", "info:") == "1"


def settled(take, picture, before=None):
    """Takes a picture by take(path), which tells whether it could. Returns whether the screen shows
    something, twice the same, and something else than the picture before."""
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
