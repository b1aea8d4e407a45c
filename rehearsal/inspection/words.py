"""Findings, and how what packages say is shown."""

import collections

Finding = collections.namedtuple("Finding", "level package text do")
LONGEST = 200


def shown(text, longest=LONGEST):
    """The text with nothing that a terminal would obey. Bytes that are no text are written as \\xNN."""
    text = str(text)
    rest = len(text) - longest
    if rest > 0:
        text = text[:longest]
    said = "".join(one if one.isprintable() else _escaped(one) for one in text)
    return f"{said}... ({rest} characters more)" if rest > 0 else said


def _escaped(character):
    number = ord(character)
    if 0xdc80 <= number <= 0xdcff:  # a byte that was no UTF-8
        number -= 0xdc00
    named = {"\n": "\\n", "\t": "\\t", "\r": "\\r"}.get(character)
    return named or (f"\\x{number:02x}" if number < 0x100 else f"\\u{number:04x}")


def some(texts, count=3):
    """The first of many texts, as shown."""
    texts = list(texts)
    more = f" and {len(texts) - count} more" if len(texts) > count else ""
    return ", ".join(shown(text) for text in texts[:count]) + more


def error(package, text, do):
    return Finding("error", package, text, do)


def warning(package, text, do):
    return Finding("warning", package, text, do)
