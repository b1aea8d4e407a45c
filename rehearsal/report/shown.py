"""Text of others made visible: characters that hide, move or end something are written as escapes."""

import itertools
import unicodedata

from markupsafe import Markup, escape

MOST = 1000  # characters that are shown of one text
MOST_MARKS = 2  # accents on one letter; more of them cover the lines above
BLANK = "\u115f\u1160\u2800\u3164\uffa0"  # letters and symbols by their category, but without a shape
SHORT = {" ": r"\x20", "\n": r"\n", "\r": r"\r", "\t": r"\t"}


def escape_of(character):
    """What stands for a character that cannot be shown, or for a byte that is no UTF-8."""
    code = ord(character)
    if 0xDC80 <= code <= 0xDCFF:
        return rf"\x{code - 0xDC00:02x}"
    return SHORT.get(character) or (rf"\x{code:02x}" if code < 0x80 else
                                    rf"\u{code:04x}" if code < 0x10000 else rf"\U{code:08x}")


def _characters(text, kept, is_name):
    """Each character as a pair (what is shown, is_escape)."""
    start, end = 0, len(text)
    if is_name:
        start, end = end - len(text.lstrip(" ")), len(text.rstrip(" "))
    marks = 0
    for place, character in enumerate(text):
        kind = unicodedata.category(character)
        marks = marks + 1 if kind[0] == "M" else 0
        is_plain = (character.isprintable() and character not in BLANK and kind != "Me" and marks <= MOST_MARKS
                    and (character != " " or start <= place < end))
        yield (character, False) if is_plain or character in kept else (escape_of(character), True)


def pieces(text, kept="", most=MOST, is_name=False):
    """The text as pairs (part, is_escape), with what is said of the rest when more than `most` would be shown.

    The characters in `kept` stay as they are. Of a name, blanks at the ends are escaped, too.
    """
    is_trimmed = not is_name or text == text.strip(" ")
    if len(text) <= most and text.isascii() and text.isprintable() and is_trimmed:
        yield text, False  # as nearly all are
        return
    head, length = [], 0
    for number, piece in enumerate(_characters(text, kept, is_name)):
        length += len(piece[0])
        if length > most:
            head.append((f"… {len(text) - number} more characters", True))
            break
        head.append(piece)
    for is_escape, parts in itertools.groupby(head, key=lambda piece: piece[1]):
        yield "".join(part for part, _ in parts), is_escape


def plain(text, most=MOST, is_name=False):
    """The text as a str that any XML or terminal takes."""
    return "".join(part for part, _ in pieces(text, most=most, is_name=is_name))


def marked(text, kept="", most=MOST, is_name=False):
    """The text as HTML in which the escapes are marked, so that they differ from a text that only looks so."""
    return Markup("".join(f'<span class="escape">{escape(part)}</span>' if is_escape else escape(part)
                          for part, is_escape in pieces(text, kept, most, is_name)))
