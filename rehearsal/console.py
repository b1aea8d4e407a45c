"""Reads the console of a rehearsal: what it says of each package, and what no good update prints."""

import collections
import re

from explain.console import LINE, blocks_of, cleaned
from explain.known import canonical

MOST_LINES = 2000  # of the first ones and of the last ones that are kept
MOST_TEXTS = 5  # of a package
RESULT = re.compile(r"^qml: result: (-?\d+)\s+index: (\d+) ")
SCRIPT = re.compile(r'package "([^"]+)" (\w+) script returned status (-?\d+)')
# What the program, its commands and the package manager print in an update that goes well.
GOOD = re.compile("|".join((
    r"sys_line:ls ", r"ls: cannot access '(?:/tmp/ota|/mnt/nand_disk/update_ipk)/\*\.ipk'",
    r"ls: cannot access '/mnt/update_ipk/\*\.bin'", r"qml: (?:ota=+|result:) ",
    r"(?:Installing|Upgrading|Downgrading|Reinstalling) \S+ .*(?:on root\.|root\.\.\.)$", r"Configuring \S+\.$",
    # dpkg behind the name opkg, and a BusyBox system
    r"Selecting previously unselected package |\(Reading database |Preparing to unpack |Unpacking |Setting up ",
    r"dpkg: warning: downgrading ", r"ls: /(?:(?:tmp/ota|mnt/nand_disk/update_ipk)/\*\.ipk|mnt/update_ipk/\*\.bin): No such file",
    r"QStandardPaths: XDG_RUNTIME_DIR not set",
    r"Removing obsolete file ", r" \* remove_obsolesced_files: unlinking  failed: No such file or directory\.$",
    r" \* opkg_install_pkg: Failed to determine obsolete files from previously installed \S+$", r"(?:mkdir|rm): cannot \w+ .*'/(?:tmp/ota|root/\*\.txt|root/mcu/\*)'")))


class Reading:
    """What the console said. `scripts` has (file index, package, script, status). `unusual` has the texts that no good
    update prints, by file index, and whether a known fault does."""

    def __init__(self):
        self.lines = []
        self.scripts = []
        self.unusual = {}

    def texts(self, index):
        return [text for text, _ in self.unusual.get(index, ())]


class Known:
    """What rows of the fault table print."""

    def __init__(self, knowledge, rows):
        self._own = set().union(*(row.pattern.own_lines for row in rows))
        self._texts = {knowledge.texts[text] for row in rows for text in row.also}

    def has(self, text):
        return canonical(text) in self._own or any(one.search(text) for one in self._texts)


def read(file, knowledge):
    """Reads an open console."""
    reading, index = Reading(), 0
    good = Known(knowledge, [row for row in knowledge.rows if row.is_sound])
    known = Known(knowledge, knowledge.rows)
    kept = Kept()
    for text in lines_of(file):
        kept.add(text)
        result = RESULT.match(text)
        if result:
            index = int(result[2]) + 1
            continue
        script = SCRIPT.search(text)
        if script and len(reading.scripts) < MOST_LINES:
            reading.scripts.append((index, script[1], script[2], int(script[3])))
        texts = reading.unusual.get(index, [])
        if text and len(texts) < MOST_TEXTS and all(text != other for other, _ in texts) and len(
                reading.unusual) < MOST_LINES and not GOOD.match(text) and not good.has(text):
            reading.unusual[index] = [*texts, (text, known.has(text))]
    reading.lines = kept.lines()
    return reading


def lines_of(file):
    """The lines of an open file, each cut, without what a terminal would obey."""
    for block, has_end in blocks_of(file):
        for line in (block.split(b"\n")[:-1] if has_end else [block]):
            yield cleaned(line[:LINE])


class Kept:
    """The first and the last lines of a text."""

    def __init__(self):
        self._first, self._last, self._count = [], collections.deque(maxlen=MOST_LINES), 0

    def add(self, line):
        self._count += 1
        if len(self._first) < MOST_LINES:
            self._first.append(line)
        else:
            self._last.append(line)

    def lines(self):
        left_out = self._count - len(self._first) - len(self._last)
        return [*self._first, *([f"... {left_out} lines are left out here ..."] if left_out else []), *self._last]


def kept_lines(file):
    """Of an open file, or of none."""
    kept = Kept()
    for line in lines_of(file) if file else ():
        kept.add(line)
    return kept.lines()
