"""What is known: the rows of the fault table, as far as a console shows anything of them."""

import json
import pkgutil
import re

# Where a row keeps what a console, a screen or a reader has of it.
FIELDS = ("name", "fault", "where", "why", "advice", "screen", "progress", "results", "console", "also",
          "staged", "stick", "installed")
INSIDE = "known.json"  # the same in the copy that is one file
SOUND = ("done", "harmless")  # advice of the rows that end well
KILL = "enter kill"
OWN_FOLDERS = ("dev", "mnt", "root", "tmp")  # of the program's fixed paths
# The steps of the control board's update ([places]), by the lines ([lines]) that show them.
PLACES = {
    "start-command": ("start0", "start-1", "start-2", "start-3"),
    "start-frame": ("start-frame",),
    "block:first": ("data1",),
    "block:middle": ("data2",),
    "block:last": ("data3",),
    "eot": ("eot",),
    "end": ("end",),
}

# Numbers in the program's lines that differ from update to update. A transfer has a first block, a last
# one, and any number between.
SIZE = re.compile(r"^Filesize: \d+\([0-9A-F]+H\)$")
LENGTH = re.compile(r"\(len = -?\d+\)")
BLOCK = re.compile(r"^(\[YModem\]: send the data package )\((\d+)/(\d+)\)\.$")


def canonical(line):
    """The line with the numbers that the rows of the table have."""
    block = BLOCK.match(line)
    if block:
        number, count = int(block[2]), int(block[3])
        if count > 3:
            number, count = 1 if number == 1 else 3 if number == count else 2, 3
        return f"{block[1]}({number}/{count})."
    if "(len = " in line:
        line = LENGTH.sub("(len = #)", line)
    return "Filesize: #" if SIZE.match(line) else line


class Pattern:
    """The lines of a row's console as an automaton, which also takes a part of them."""

    def __init__(self, entries, lines):
        self._lines = lines
        self._empty = [[]]  # state: states reached without a line
        self._steps = [{}]  # state: {line: states}
        self.repeats = False  # any number of some lines is taken
        self._end = self._add_all(entries, 0)

    def _new(self):
        self._empty.append([])
        self._steps.append({})
        return len(self._empty) - 1

    def _add_all(self, entries, state):
        for entry in entries:
            state = self._add(entry, state)
        return state

    def _add(self, entry, state):
        if isinstance(entry, str):
            if entry.startswith("@"):
                return self._add_all(self._lines[entry[1:]], state)
            end = self._new()
            self._steps[state].setdefault(canonical(entry), []).append(end)
            return end
        often, *rest = entry
        if often == "|":
            end = self._new()
            for choice in rest:
                self._empty[self._add(choice, state)].append(end)
            return end
        if often in "+*":
            self.repeats = True
            begin, end = self._new(), self._new()
            self._empty[state].append(begin)
            last = self._add_all(rest, begin)
            self._empty[last] += [begin, end]
            if often == "*":
                self._empty[begin].append(end)
            return end
        least, _, most = often.partition(",")
        ends = []
        for number in range(int(most or least) + 1):
            if number >= int(least):
                ends.append(state)
            if number < int(most or least):
                state = self._add_all(rest, state)
        end = self._new()
        for one in ends:
            self._empty[one].append(end)
        return end

    def _closed(self, states):
        reached, waiting = set(states), list(states)
        while waiting:
            for state in self._empty[waiting.pop()]:
                if state not in reached:
                    reached.add(state)
                    waiting.append(state)
        return reached

    def _takes(self, lines, states):
        """Whether the lines lead on from the states, and whether to the end."""
        states = self._closed(states)
        for line in lines:
            states = self._closed({to for state in states for to in self._steps[state].get(line, ())})
            if not states:
                return False, False
        return True, self._end in states

    def fit(self, lines):
        """"whole", or the part that the lines are: "head", "tail", "inside"; "" when they are none."""
        if not hasattr(lines, "__len__"):
            lines = list(lines)
        leads_on, ends = self._takes(lines, {0})
        if ends:
            return "whole"
        if leads_on:
            return "head"
        leads_on, ends = self._takes(lines, set(range(len(self._steps))))
        return "tail" if ends else "inside" if leads_on else ""

    @property
    def own_lines(self):
        return {line for steps in self._steps for line in steps}


class KnownRow:
    """A row, and what of it can be seen on a console."""

    def __init__(self, values, lines, patterns):
        for name in FIELDS:
            setattr(self, name, values[name])
        entries = list(self.console)
        self.kills = 0
        while entries and entries[0] == KILL:
            self.kills += 1
            del entries[0]
        key = json.dumps(entries)
        if key not in patterns:
            patterns[key] = Pattern(entries, lines)
        self.pattern = patterns[key]
        if isinstance(self.results, int):
            self.results = [[0, index] for index in range(self.results)]
        self.packages = self.progress[1] - 1 if self.progress else 0  # how many there were
        # All of them were installed, those that were left.
        self.is_complete = not self.progress or self.progress[0] == self.progress[1]

    @property
    def is_faultless(self):
        return self.fault.startswith("none")

    @property
    def is_sound(self):
        return self.advice in SOUND


class Knowledge:
    """The fault table, as a console needs it."""

    def __init__(self, data):
        """`data` is what data_of() returns."""
        self.data = data
        patterns = {}
        self.rows = [KnownRow(values, data["lines"], patterns) for values in data["rows"]]
        self.advice = data["advice"]
        self.screens = data["screens"]
        self.places = data["places"]
        self.good_colour = data["good_colour"]
        self.own_lines = set.union({KILL}, *(pattern.own_lines for pattern in patterns.values()))
        # Where such a line begins, whatever stands before it.
        self.own_words = sorted({re.match(r"\[\w+\]|\S+", line)[0] for line in self.own_lines})
        self.own_begin = re.compile("|".join(map(re.escape, self.own_words)))
        self.place_lines = {
            canonical(line): self.places[place]
            for place, names in PLACES.items() for name in names for line in data["lines"][name][-1:]}
        self._example = self._examples()
        self.texts = {text: self._loose(text) for row in self.rows for text in row.also}
        self.rows_with = {text: sum(text in row.also for row in self.rows) for text in self.texts}
        self.sound_screens = {text: {row.screen for row in self.rows if row.is_sound and text in row.also}
                              for text in self.texts}

    @classmethod
    def load(cls):
        """The knowledge that comes with this module: the table beside it, or what is inside of the one file."""
        try:
            inside = pkgutil.get_data(__package__, INSIDE)
        except OSError:
            import table
            return cls(data_of(table.load()))
        return cls(json.loads(inside.decode()))

    def places_of(self, own_lines):
        """The steps of the control board's update that the lines show, in order."""
        return list(dict.fromkeys(self.place_lines[line] for line in own_lines if line in self.place_lines))

    def _examples(self):
        """A regular expression for what a text names of the packages that its row installs: their files, names,
        versions, and what they put anywhere but in the program's own folders; also the numbers that they bring."""
        files = {file.rpartition("/")[2] for row in self.rows for file in row.staged + row.stick}
        parts = [match.groups() for match in (re.match(r"(?:\d+-)?(.+?)_(\d[\d.]*\d)", file) for file in files) if match]
        parts += [line.split() for row in self.rows for line in row.installed]
        names = "|".join(map(re.escape, sorted({name for name, _ in parts}, key=len, reverse=True)))
        versions = "|".join(map(re.escape, sorted({version for _, version in parts if "." in version})))
        return re.compile(
            rf"/tmp/ota/[^\s'\"]+|(?<=['\" ])/(?!(?:{'|'.join(OWN_FOLDERS)})/)[^\s'\",]*"
            rf"|(?<![\w.-])(?:{names})(?:-(?:{versions})\.\w+)?(?![\w-])|(?<![\w.-])(?:{versions})(?![\w-])"
            r"|(?<=[<>=] )[\d.]*\d|(?<= )\d+$")

    def _loose(self, text):
        """A regular expression for a row's text that takes other packages, too."""
        parts, end = [], 0
        for example in self._example.finditer(text):
            parts += [re.escape(text[end:example.start()]), r"[^\s'\"]+"]
            end = example.end()
        return re.compile("".join((*parts, re.escape(text[end:]))))


def data_of(table):
    """What a console needs of the loaded fault table, as plain data."""
    return {
        "rows": [{name: getattr(row, name) for name in FIELDS} | other for row in table["rows"]
                 for other in ({}, *filter(None, [getattr(row, "libsolv", None)]))],  # the row with another solver
        "lines": table["lines"],
        "advice": table["advice"],
        "screens": table["screens"],
        "places": table["places"],
        "good_colour": table["states"]["ok"],
    }
