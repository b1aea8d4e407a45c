"""Finds the rows of the fault table that leave such a console."""

import collections

from .console import read
from .known import SOUND

GOOD, FAILED, UNDECIDED, UNKNOWN = "good", "failed", "undecided", "unknown"
STATUS = {GOOD: 0, FAILED: 1, UNDECIDED: 1, UNKNOWN: 2}
FORMAT = 1
MOST_OTHERS = 3  # rows named for another trouble

# How far the program is when a screen is the last one. Each screen of the table has a line here.
PHASES = {
    "": {"none"},
    "status": {"none"},
    "status waiting": {"none"},
    "idle": {"idle"},
    "no package": {"clicked"},
    "installing": {"installing", "installed"},
    "package failed": {"failed"},
    "board failed": {"image", "installed"},
    "board updated": {"image"},
    "updated": {"installed"},
}

# What it costs a row that something of the console is not as it says. The cheapest rows are the causes.
MISSING_TEXT = 4
OTHER_TEXT = 3
LESS_EXACT = 1  # another row has more of a line to the letter
OTHER_PHASE = 6
OTHER_STATUS = 3
OTHER_PLACE = 1  # of the package among the others
CUT = 3  # the row has more at the end
NEVER = 20
PARTS = {"whole": 0, "head": 2, "tail": 2, "inside": 3, "": NEVER}
WITHOUT_CUT_START = 4  # when only a part fits that lacks its beginning, though the console has it


def phases_of(run):
    """How far the program came."""
    if run.results:
        status, index, count = run.results[-1]
        return {"failed"} if status else {"installed"} if index + 1 >= count else {"installing"}
    if run.own:
        return {"installed", "image"}
    if run.kills and not run.has_start:
        return {"none", "installing"}  # the installer of the earlier instance may print on
    if run.begun or run.staged:
        return {"installing"}
    if not run.has_start:
        return {"none"}
    return {"image"} if run.has_image else {"clicked"} if run.clicked else {"idle"}


def results_cost(row, run):
    if not row.results:
        return NEVER if run.results else 0
    row_status, row_index = row.results[-1]
    if not run.results:
        return CUT  # at the front when the program's later lines are there
    status, index, count = run.results[-1]
    is_last = index + 1 >= count
    if status == 0:
        if row_status != 0:
            return NEVER if is_last else CUT
        row_is_last = row.is_complete or row_index + 1 >= row.packages
        return 0 if is_last == row_is_last else NEVER if is_last else CUT
    if row_status == 0:
        return NEVER
    return (OTHER_STATUS if status != row_status else 0) + (OTHER_PLACE if (index > 0) != (row_index > 0) else 0)


def own_cost(row, run, has_end, cache):
    key = id(row.pattern)
    if key not in cache:
        fit = row.pattern.fit(run.own)
        if fit == "whole" and row.pattern.repeats and not has_end:
            fit = "head"  # any of its frames may be the last one here, but not on the line
        cost = PARTS[fit]
        if not run.own and fit != "whole":
            cost = CUT
        if fit in ("tail", "inside") and (run.has_start or run.results):
            cost += WITHOUT_CUT_START
        cache[key] = cost
    return cache[key]


class Explained:
    """One run of the program with the rows that leave such a console."""

    def __init__(self, run, knowledge, screen):
        self.run = run
        self._known = knowledge
        costs, owns, faultless = {}, {}, NEVER
        self.phases = phases_of(run)
        self._found = {text for found, _ in run.texts for text in found}
        for row in knowledge.rows:
            if screen is not None and row.screen != screen:
                continue
            cost = results_cost(row, run) + own_cost(row, run, self._has_end, owns)
            if cost < NEVER:
                cost += OTHER_PHASE * PHASES[row.screen].isdisjoint(self.phases)
                cost += MISSING_TEXT * sum(text not in self._found for text in row.also)
                cost += OTHER_TEXT * len(list(self._other_texts(row)))
                cost += LESS_EXACT * sum(exact not in row.also and any(text in exact for text in found.intersection(row.also))
                                         for found, exact in run.texts)
                if row.is_faultless:
                    faultless = min(faultless, cost)
                # Whether an earlier instance was ended, and how often, says the least.
                if run.kills or run.has_start:
                    cost += (row.kills != run.kills) + (bool(row.kills) != bool(run.kills))
                costs[row] = cost
        least = min(costs.values(), default=NEVER)
        self.rows = [row for row, cost in costs.items() if cost == least]
        self._may_be_faultless = faultless <= least
        self.rows.sort(key=lambda row: (min((knowledge.rows_with[text] for text in row.also if text in self._found),
                                            default=len(knowledge.rows)), not row.is_sound))
        self.is_known = bool(self.rows) and not any(
            text not in self._found for text in self.rows[0].also) and least < OTHER_PHASE
        if not self.is_known:
            remedies = collections.Counter(row.advice for row in self.rows)
            self.rows.sort(key=lambda row: -remedies[row.advice])
        self.verdict = self._verdict()

    def _other_texts(self, row):
        """The texts of other rows, and their lines, that this one does not explain. Those of a sound row come in
        any update, but once all packages have their result they tell which screen comes."""
        for (found, exact), line in self.run.texts.items():
            if not found.isdisjoint(row.also):
                continue
            screens = [self._known.sound_screens[text] for text in found]
            is_late = line > self.run.last_result_line > 0
            if not all(screens) or is_late and not any(row.screen in names for names in screens):
                yield exact or max(found, key=len), line

    def _verdict(self):
        if self.phases == {"idle"}:
            return UNDECIDED  # nobody has pressed the button, for whatever reason
        if self.phases == {"failed"}:
            return FAILED
        sound = [self._is_good(row) for row in self.rows]
        if not any(sound):
            is_open = not self.rows or any(row.is_sound for row in self.rows)
            return UNDECIDED if is_open else FAILED
        is_good = len(self.screens) == 1 and (all(sound) or self._may_be_faultless)
        return GOOD if is_good and self._has_end else UNDECIDED

    def _is_good(self, row):
        screen = self._known.screens.get(row.screen)
        return row.is_sound and screen is not None and screen["colour"] == self._known.good_colour

    @property
    def _has_end(self):
        """Whether the console shows the end of what the program prints in an update."""
        if self.run.own:
            return self._last_place == self._known.places["end"]
        return self.phases <= {"installed", "image"}

    @property
    def screens(self):
        if self.rows:
            return list(dict.fromkeys(row.screen for row in self.rows))
        return [screen for screen, phases in PHASES.items() if phases == self.phases and screen in self._known.screens]

    @property
    def steps(self):
        """What was done, in order."""
        return list(self._steps())

    def _steps(self):
        run = self.run
        if run.kills:
            yield "an earlier instance was ended"
        if run.has_start:
            yield "started: " + ("packages were staged" if run.staged else "no package was staged, the button was awaited")
        if run.clicked:
            yield "the button was pressed"
        yield from self._package_steps()
        for place in self._known.places_of(run.own):
            block = f", block {run.block[0]} of {run.block[1]} was the last" if run.block and "data" in place else ""
            yield f"control board: {place}{block if place == self._last_place else ''}"

    def _package_steps(self):
        run = self.run
        for status, index, count in run.results:
            name = run.packages.get(index)
            named = f" ({name})" if name else ""
            yield f"package {index + 1} of {count}{named}: " + ("installed" if status == 0 else f"failed, {ending(status)}")
        if run.current or run.begun and not run.results:
            yield f"package {run.current or 1}: begun, its end is not on the console"

    @property
    def _last_place(self):
        return next(reversed(self._known.places_of(self.run.own)), "")

    @property
    def ended_at(self):
        """The last thing that the console shows of this run."""
        if self._last_place:
            return f"the control board's {self._last_place}"
        return next(reversed(self.steps), "the start")

    @property
    def causes(self):
        """By screen and advice: the faults, each with its steps and the reason why it is meant so."""
        causes = {}
        for screen in self.screens:
            for row in (row for row in self.rows if row.screen == screen):
                faults = causes.setdefault((screen, row.advice), {})
                fault = faults.setdefault((row.fault, row.why), {"steps": [], "rows": []})
                if row.name not in fault["rows"]:  # a row may be there with either solver
                    fault["rows"].append(row.name)
                if row.where and row.where not in fault["steps"]:
                    fault["steps"].append(row.where)
        return [{"screen": screen, "do": self._known.advice[advice], "good": advice in SOUND,
                 "faults": [{"fault": fault, "why": why, **rest} for (fault, why), rest in faults.items()]}
                for (screen, advice), faults in causes.items()]

    @property
    def others(self):
        """Texts of other faults that the causes do not explain, with these faults."""
        explained = {text for row in self.rows for text in row.also}
        for text, line in self._other_texts(self.rows[0] if self.rows else self._known.rows[0]):
            rows = [row for row in self._known.rows if text in row.also]
            if text in explained or any(row.is_sound for row in rows):
                continue
            rows.sort(key=lambda row: row.screen not in self.screens)
            yield {"text": text, "line": line, "faults": list(dict.fromkeys(row.fault for row in rows))[:MOST_OTHERS],
                   "do": self._known.advice[rows[0].advice]}

    def facts(self):
        run = self.run
        screens = [{"name": name, **{key: self._known.screens[name][key] for key in ("colour", "tips", "success")
                                     if key in self._known.screens[name]}} if name else {"name": ""}
                   for name in self.screens]
        return {
            "verdict": self.verdict,
            "first_line": run.first_line,
            "last_line": run.last_line,
            "ended_at": self.ended_at,
            "steps": self.steps,
            "screens": screens,
            "may_go_on": not self._has_end and bool(self.phases & {"installed", "image", "installing"}),
            "cause_is_known": self.is_known,
            "causes": self.causes,
            "others": list(self.others),
            "unknown": [{"line": line, "times": times, "text": text} for text, (line, times) in run.unknown.items()],
            "more_unknown": run.more_unknown,
        }


class Explanation:
    """What a console says: the last run of the program gives the verdict."""

    def __init__(self, console, knowledge, screen=None):
        last = len(console.runs) - 1
        self.runs = [Explained(run, knowledge, screen if number == last else None)
                     for number, run in enumerate(console.runs)]
        self.dropped_runs = console.dropped_runs

    @property
    def verdict(self):
        return self.runs[-1].verdict if self.runs else UNKNOWN

    @property
    def status(self):
        return STATUS[self.verdict]

    def facts(self):
        """All of it, as plain data. `format` grows when a name changes its meaning or goes."""
        return {
            "format": FORMAT,
            "verdict": self.verdict,
            "status": self.status,
            "dropped_runs": self.dropped_runs,
            "runs": [explained.facts() for explained in self.runs],
        }


def ending(status):
    """How a command ended, from the status that the program prints."""
    return f"exit status {status >> 8}" if status & 127 == 0 else f"ended by signal {status & 127}"


def explain(source, knowledge, screen=None, progress=None):
    """The Explanation of a console: a text, bytes, or a binary file. `screen`, a key of the table's
    [screens], is what the screen is known to show; `progress` is called with the bytes read so far."""
    return Explanation(read(source, knowledge, progress), knowledge, screen)
