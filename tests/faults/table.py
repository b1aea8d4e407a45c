"""The fault table: reads table.toml and turns it into rows that say everything themselves."""

import copy
import pathlib
import tomllib
from dataclasses import dataclass, field

TABLE = pathlib.Path(__file__).with_name("table.toml")


@dataclass
class Row:
    """One fault: what the machine is like, what is done to it, and all that must come of it."""

    name: str
    area: str
    fault: str  # what is wrong, for a reader
    advice: str  # key of [advice]: what to do about it
    where: str = ""  # the step that it strikes
    why: str = ""  # why a surprising outcome is meant

    machine: list = field(default_factory=list)  # options of sandbox/run
    staged: list = field(default_factory=list)  # package files in /tmp/ota
    stick: list = field(default_factory=list)  # package files on the storage stick
    board: list | str = "none"  # options of boardsim; "none": no board
    arguments: list = field(default_factory=list)  # of the program
    before: str = ""  # Python lines before the program starts, of what stands in steps.py
    click: bool = False  # press the button
    during: str = ""  # Python lines after that

    screen: str = ""  # key of [screens]: the last one painted; empty: none was
    progress: list | None = None  # value and end of the bar
    listed: list | None = None  # the names in the list of packages
    rows: str = ""  # state of each package on the screen, once for equal neighbours: "ok wait"
    results: list | int = field(default_factory=list)  # [status, index] of each installation; or how many good ones
    start: int | None = None  # result of the start command; None: it was not sent
    transfer: int | None = None  # result of the transfer; None: there was none
    console: list = field(default_factory=list)  # the program's lines, see pattern() in verdict.py
    also: list = field(default_factory=list)  # what else is printed, by it or by its commands
    installed: list = field(default_factory=list)  # packages in the database, "NAME VERSION"
    copied: list | None = None  # package files that came from the stick to /tmp/ota, where no other is
    calls: int | None = None  # how often the package manager was called
    asked: list | None = None  # what it was asked to install each time
    handed_over: int = 0  # how often the main application was called
    image: str = "none"  # what the board got: "none", "whole", "part"
    firmware: str = "/run/machine/root/usr/share/machine/firmware/UpdataSystem.bin"  # what it should get
    board_outcome: str = "ok"  # the board's own verdict
    struck: bool = True  # the board made each of its faults
    disk: dict = field(default_factory=dict)  # path: what is there, see disk_state() in verdict.py
    running: bool = True  # the program still runs
    status: int | None = None  # exit status of the program that `during` has waited for, as a shell has it
    seconds: dict = field(default_factory=dict)  # from (the last such line before), to, at_least, at_most
    holds: float = 0.3  # seconds for which the outcome must stay as it is
    limit: int = 60  # seconds after which the outcome is given up


class TableError(Exception):
    """The table contradicts itself."""


def load(path=TABLE):
    """Returns the whole table: the shared parts as they stand, and `rows` as a list of Row."""
    with open(path, "rb") as file:
        table = tomllib.load(file)
    table["rows"] = [_make_row(raw, table) for raw in _expanded(table)]
    names = [row.name for row in table["rows"]]
    twice = {name for name in names if names.count(name) > 1}
    if twice:
        raise TableError(f"more than one row is named {', '.join(sorted(twice))}")
    return table


def _expanded(table):
    """The rows: those with an area of their own, then the board's faults at their places."""
    yield from table.get("row", [])
    for kind, group in table.get("board", {}).items():
        for line in group["rows"]:
            places = line["at"] if isinstance(line["at"], list) else [line["at"]]
            for place in places:
                yield _board_row(kind, group, line, place, table["places"])


def _board_row(kind, group, line, place, places):
    own = {key: value for key, value in line.items() if key not in ("with", "named")}
    given = f"{kind}={line['with']}@{place}" if "with" in line else f"{kind}@{place}"
    return {
        "area": "line",
        "fault": group["means"],
        "where": places[place],
        **own,
        "name": f"{given} {line['named']}" if "named" in line else given,
        "at": place,
        "board": ["--fault", given, *_at(place, group.get("board", []) + line.get("board", []))],
    }


def _outcome(name, place, table):
    """What comes of a fault at a place: what the outcome is like, its own, and its own there."""
    values = dict(table["outcomes"][name])
    there = values.pop("at", {}).get(place, {})
    like = values.pop("like", None)
    return (_outcome(like, place, table) if like else {}) | values | there


def _at(place, entries):
    """The entries with the place for each {at}."""
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
    return row
