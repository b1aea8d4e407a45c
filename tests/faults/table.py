"""The fault table: reads table.toml and turns it into complete rows."""

import copy
import pathlib
import tomllib
from dataclasses import dataclass, field

TABLE = pathlib.Path(__file__).with_name("table.toml")
SOUND = ("done", "harmless")  # advice of the rows after which there is nothing to do
BROKEN = ("broken in green", "repeat the earlier update")  # advice of the rows whose success is none


@dataclass
class Row:
    """One fault: the state of the machine, the steps, and the complete expected outcome."""

    name: str
    area: str
    fault: str  # the fault, as docs/failures.md names it
    advice: str  # key of [advice]: the remedy
    where: str = ""  # the step of the update at which it occurs
    why: str = ""  # the reason, if the outcome is surprising but intended
    tries: str = ""  # key of [advice]: the remedy that the steps of this row try, with success

    machine: list = field(default_factory=list)  # options of sandbox/run
    staged: list = field(default_factory=list)  # package files in /tmp/ota
    stick: list = field(default_factory=list)  # package files on the storage stick
    board: list | str = "none"  # options of boardsim; "none": no board
    arguments: list = field(default_factory=list)  # of the program
    before: str = ""  # Python lines that run before the start of the program; they call steps of steps.py
    click: bool = False  # press the button
    during: str = ""  # Python lines that run after the start of the program, and after the click

    screen: str = ""  # key of [screens]: the last painted screen; empty: nothing was painted
    progress: list | None = None  # value and maximum of the progress bar
    listed: list | None = None  # the names in the package list
    rows: str = ""  # states in the package list; equal neighbours are named once: "ok wait"
    results: list | int = field(default_factory=list)  # [status, index] of each installation, or the number of good ones
    start: int | None = None  # result of the start command; None: it was not sent
    transfer: int | None = None  # result of the transfer; None: there was none
    console: list = field(default_factory=list)  # output lines of the program, see pattern() in verdict.py
    also: list = field(default_factory=list)  # other printed text, from the program or its commands
    libsolv: dict = field(default_factory=dict)  # what differs with an opkg that has the solver libsolv
    installed: list = field(default_factory=list)  # packages in the database, "NAME VERSION"
    copied: list | None = None  # package files copied from the stick; /tmp/ota holds these and `staged` only
    calls: int | None = None  # number of calls of the package manager
    asked: list | None = None  # the arguments of its calls to install
    handed_over: int = 0  # number of calls of the main application
    image: str = "none"  # what the board received: "none", "whole", "part"
    firmware: str = "/usr/share/machine/firmware/UpdataSystem.bin"  # the whole image
    board_outcome: str = "ok"  # the `outcome` in the summary of boardsim
    struck: bool = True  # boardsim made each of its faults
    disk: dict = field(default_factory=dict)  # path: what exists there, see disk_state() in verdict.py
    running: bool = True  # the program still runs
    status: int | None = None  # exit status for which `during` waited; 128 + number after a signal, as in a shell
    seconds: dict = field(default_factory=dict)  # from (the last such output line before `to`), to, at_least, at_most
    holds: float = 0.3  # seconds for which the outcome must not change
    limit: int = 60  # seconds until the row fails

    @property
    def final_screen(self):
        """Key of the screen that the user sees at the end; empty if the program has ended."""
        return self.screen if self.running else ""


class TableError(Exception):
    """The table contradicts itself."""


def load(path=TABLE):
    """Returns the whole table: the shared parts unchanged, and `rows` as a list of Row."""
    with open(path, "rb") as file:
        table = tomllib.load(file)
    table["rows"] = [_make_row(raw, table) for raw in _expanded(table)]
    names = [row.name for row in table["rows"]]
    twice = {name for name in names if names.count(name) > 1}
    if twice:
        raise TableError(f"more than one row is named {', '.join(sorted(twice))}")
    _check_tries(table)
    return table


def _check_tries(table):
    """A remedy for packages must have been tried, with success."""
    for row in table["rows"]:
        if row.tries and (row.tries not in table["advice"] or row.advice != "done"):
            raise TableError(f"{row.name}: tries {row.tries}, which is no advice or does not end in the success")
    tried = {row.tries for row in table["rows"]}
    for row in table["rows"]:
        if (row.area == "packages" or row.advice in BROKEN) and row.advice not in (*SOUND, *tried):
            raise TableError(f"{row.name}: no row tries the advice {row.advice}")


def _expanded(table):
    """The rows in [[row]], then a row for each fault of the board at each step."""
    yield from table.get("row", [])
    for kind, group in table.get("board", {}).items():
        for entry in group["rows"]:
            places = entry["at"] if isinstance(entry["at"], list) else [entry["at"]]
            for place in places:
                yield _board_row(kind, group, entry, place, table["places"])


def _board_row(kind, group, entry, place, places):
    own = {key: value for key, value in entry.items() if key not in ("with", "named")}
    given = f"{kind}={entry['with']}@{place}" if "with" in entry else f"{kind}@{place}"
    return {
        "area": "board",
        "fault": group["means"],
        "where": places[place],
        **own,
        "name": f"{given} {entry['named']}" if "named" in entry else given,
        "at": place,
        "board": ["--fault", given, *_at(place, group.get("board", []) + entry.get("board", []))],
    }


def _outcome(name, place, table):
    """The values of an outcome: inherited ones, its own, and those for the place. Later ones win."""
    values = dict(table["outcomes"][name])
    there = values.pop("at", {}).get(place, {})
    like = values.pop("like", None)
    return (_outcome(like, place, table) if like else {}) | values | there


def _at(place, entries):
    """The entries, with {at} replaced by the place."""
    return [entry.replace("{at}", place) if isinstance(entry, str) else _at(place, entry)
            for entry in entries]


def _make_row(raw, table):
    outcome = raw.pop("outcome", None)
    place = raw.pop("at", "")
    values = copy.deepcopy(table["areas"].get(raw.get("area"), {}))
    if outcome is not None:
        values |= copy.deepcopy(_outcome(outcome, place, table))
    values |= raw
    values["console"] = _at(place, values.get("console", []))
    try:
        row = Row(**values)
    except TypeError as error:
        raise TableError(f"{raw.get('name')}: {error}") from error
    if row.advice not in table["advice"]:
        raise TableError(f"{row.name}: there is no advice {row.advice}")
    if row.screen and row.screen not in table["screens"]:
        raise TableError(f"{row.name}: there is no screen {row.screen}")
    _check_advice(row, table["advice"][row.advice])
    return row


def _check_advice(row, text):
    """The remedy must be possible."""
    if not row.running and "button" in text:
        raise TableError(f"{row.name}: the program has ended, but the advice is to press the button")
    if "read-only" in row.fault and "for writing" not in text:
        raise TableError(f"{row.name}: the advice does not mount the read-only file system for writing")
