"""The page: the facts as a reader in a hurry wants them, put into the template page.html."""

import base64
import collections
import datetime
import itertools
import pathlib
import shlex

import jinja2
from markupsafe import Markup

from . import timeline
from .shown import marked, plain

HERE = pathlib.Path(__file__).parent
PNG = b"\x89PNG\r\n\x1a\n"
MOST_PICTURE = 8_000_000  # bytes
MOST_NAME = 300  # characters; a file name has 255 bytes at most
MOST_FINDINGS, MOST_ERRORS = 15, 50  # that are not folded
MOST_ORDER = 24
MOST_ROWS = 60  # of the table of packages; a longer one scrolls
MOST_LINE = 500  # characters of a line of the console or the transcript
MOST_FOLDED = 1_000_000  # of all its lines, as HTML

STATUS = {"installed": ("good", "installed"), "failed": ("bad", "failed"), "not tried": ("idle", "not tried")}
KINDS = {"folder": "Rehearsal of the folder", "stick": "Rehearsal of the stick"}
LEVELS = {"error": ("bad", "Error"), "warning": ("warn", "Warning")}


def count(number, one, many=None):
    return f"{number:,} {one if number == 1 else many or one + 's'}"


def size(number):
    """A number of bytes, short."""
    if number is None:
        return "–"
    if number < 1000:
        return count(number, "byte")
    for unit in ("kB", "MB", "GB", "TB"):
        number /= 1000
        if number < 999.5:
            break
    return f"{number:.1f} {unit}" if number < 99.95 else f"{number:.0f} {unit}"


def time(seconds):
    """A duration, short."""
    if seconds is None:
        return "–"
    if seconds < 59.95:
        return f"{seconds:.2g} s" if seconds < 0.1 else f"{seconds:.1f} s"
    minutes, rest = divmod(round(seconds), 60)
    hours, minutes_left = divmod(minutes, 60)
    return f"{hours} h {minutes_left:02} min" if hours else f"{minutes} min {rest:02} s"


def axis_time(seconds):
    """A time on an axis."""
    if seconds >= 3600:
        return f"{seconds / 3600:g} h"
    return f"{seconds / 60:g} min" if seconds >= 60 else f"{seconds:.3g} s"


def moment(text):
    """A date and time for people; as it stands if it is none."""
    try:
        return datetime.datetime.strptime(text, "%Y-%m-%dT%H:%M:%SZ").strftime("%-d %B %Y, %H:%M UTC")
    except ValueError:
        return text


def command(facts):
    """The words of the command line that makes the same rehearsal, as the shell takes them."""
    words = ["scripts/rehearse", facts["source"]]
    for option, value in facts["options"].items():
        for one in value if isinstance(value, list) else [value]:
            if one is not None and one is not False:
                words += [option] if one is True else [option, str(one)]
    return [shlex.quote(word) for word in words]


def embedded(folder, picture):
    """The address of the picture as a part of the page, or "" without a sound PNG below the folder."""
    try:
        path = (folder / picture["file"]).resolve()
        if path.is_relative_to(folder.resolve()) and path.is_file() and path.stat().st_size <= MOST_PICTURE:
            content = path.read_bytes()
            if content.startswith(PNG):
                return Markup("data:image/png;base64," + base64.b64encode(content).decode("ascii"))
    except (OSError, ValueError):
        pass
    return ""


class Budget:
    """A number of characters from which texts are taken."""

    def __init__(self, characters):
        self._left = characters

    def takes(self, text):
        self._left -= len(text)
        return self._left >= 0


def bounded(lines):
    """The lines as HTML, the first and the last of them if they are too much for the page."""
    shown = [marked(line, kept="\t", most=MOST_LINE) for line in lines]
    if sum(map(len, shown)) <= MOST_FOLDED:
        return shown
    head, tail = ([*itertools.takewhile(Budget(MOST_FOLDED // 2).takes, part)] for part in (shown, reversed(shown)))
    return [*head, f"[{count(len(shown) - len(head) - len(tail), 'line')} left out here]", *reversed(tail)]


def grouped(findings):
    """The findings, errors first, with those of the same text as one that has several packages."""
    groups = {}
    for finding in sorted(findings, key=lambda finding: finding["level"] != "error"):
        key = finding["level"], finding["text"], finding["do"]
        groups.setdefault(key, []).append(finding["package"])
    return [{"tone": LEVELS.get(level, LEVELS["warning"])[0], "word": LEVELS.get(level, LEVELS["warning"])[1],
             "text": text, "do": do, "packages": list(dict.fromkeys(filter(None, packages)))}
            for (level, text, do), packages in groups.items()]


class Verdict:
    """The first lines of the page: tone, headline, what it means, and what to do."""

    def __init__(self, facts):
        levels = collections.Counter(finding["level"] for finding in facts["findings"])
        self.errors, self.warnings = levels["error"], levels["warning"]
        self._facts = facts
        self._failed = [package["file"] for package in facts["packages"] if package["status"] == "failed"]
        self.is_success = facts["verdict"] == "success"
        self.tone = "good" if self.is_success and not self.errors else "bad"

    @property
    def headline(self):
        if self.tone == "good":
            return "This update works"
        if self.is_success:
            return "This update would fail in the field"
        return "This update fails" if self._facts["packages"] else "There is nothing to install"

    @property
    def meaning(self):
        if self.tone == "good":
            return "The rehearsal ended in success" + (
                f", with {count(self.warnings, 'warning')}." if self.warnings else
                ", and nothing was found that would fail in the field.")
        if self.is_success:
            found = "1 error was" if self.errors == 1 else f"{self.errors:,} errors were"
            return f"The rehearsal itself ended in success, but {found} found."
        if self._failed:
            return Markup('It ends at <bdi class="name" dir="ltr">{}</bdi>.').format(marked(self._failed[0], most=MOST_NAME, is_name=True))
        if not self._facts["packages"]:
            return "No package was found where the program looks for packages."
        if not self._facts["timeline"]:
            return "It was not run, because of what was found."
        return "The rehearsal did not end in success."

    @property
    def do(self):
        if self.tone == "good":
            warnings = "warning" if self.warnings == 1 else "warnings"
            return f"Read the {warnings} before the update goes to a machine." if self.warnings else \
                "Nothing needs to change."
        # What the builder changes. What the failure manual says is for the technician.
        errors = [finding for finding in self._facts["findings"] if finding["level"] == "error" and finding["do"]]
        errors.sort(key=lambda finding: finding["package"] not in self._failed)
        known = errors + [cause for cause in [self._facts["cause"]] if cause and cause["do"]]
        if known:
            return known[0]["do"]
        return "Read the findings and the console below." if self._facts["packages"] else \
            "Bring packages, with names that end in .ipk."

    @property
    def figures(self):
        """The update in numbers, as pairs (what, how much)."""
        facts = self._facts
        packages = facts["packages"]
        installed = sum(package["status"] == "installed" for package in packages)
        firmware = facts["firmware"]
        return [
            ("Packages installed", f"{installed} of {len(packages)}" if packages else "none"),
            ("Size of the packages", size(sum(package["size"] or 0 for package in packages))),
            ("Control board firmware", size(firmware["size"]) if firmware else "none"),
            ("Transfer on a real line", time(firmware["seconds"]) if firmware else "none"),
            ("The rehearsal took", time(facts["seconds"])),
        ]


def view(facts, folder):
    """What the template shows, from whole facts."""
    packages = facts["packages"]
    statuses = collections.Counter(package["status"] for package in packages)
    findings = grouped(facts["findings"])
    errors = sum(entry["tone"] == "bad" for entry in findings)
    unfolded = max(MOST_FINDINGS, min(MOST_ERRORS, errors))
    return {
        "facts": facts,
        "verdict": Verdict(facts),
        "source": facts["source"],
        "kind": KINDS.get(facts["kind"], "Rehearsal of an update"),
        "title": plain(facts["source"], 120),
        "findings": findings[:unfolded],
        "more_findings": findings[unfolded:],
        "statuses": [(statuses[status], *words) for status, words in STATUS.items() if statuses[status]],
        "first_failed": next((number for number, package in enumerate(packages, 1)
                              if package["status"] == "failed"), None),
        "is_long": len(packages) > MOST_ROWS,
        "most_order": MOST_ORDER,
        "pictures": [{**picture, "address": embedded(folder, picture)} for picture in facts["pictures"]],
        "drawing": timeline.lanes(facts["timeline"], [package["file"] for package in packages], axis_time),
        "folded": [("console", "Console", "What the program and its commands printed",
                    "Nothing was printed.", facts["console"], bounded(facts["console"])),
                   ("transcript", "Transcript of the serial line", "What went over the serial line",
                    "Nothing went over the serial line.", facts["transcript"], bounded(facts["transcript"]))],
        "command": command(facts),
    }


def environment():
    """For the templates of all pages. Each text that the template shows is escaped and made visible, without the template asking for it."""
    made = jinja2.Environment(
        loader=jinja2.FileSystemLoader(HERE), autoescape=True, undefined=jinja2.StrictUndefined,
        trim_blocks=True, lstrip_blocks=True,
        finalize=lambda value: marked(value) if isinstance(value, str) and not isinstance(value, Markup) else value)
    made.filters |= {
        "size": size, "time": time, "moment": moment, "count": count,
        # For attributes and for text in a drawing, which take no elements.
        "plain": lambda text: Markup.escape(plain(text)),
        "name": lambda text, most: marked(text, most=most, is_name=True),
    }
    made.globals |= {"STATUS": STATUS, "MOST_NAME": MOST_NAME, "states": timeline.STATES, "columns": timeline.COLUMNS,
                            "style": ""}
    return made


def as_html(facts, folder):
    """The page as a str. The pictures lie in the folder."""
    return environment().get_template("page.html").render(view(facts, pathlib.Path(folder)))
