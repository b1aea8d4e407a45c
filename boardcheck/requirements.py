"""The requirements of the program on a board, with the failures in the failure manual. Run as a program, it makes
docs/board.md from them: requirements.py writes the file, requirements.py --check compares it."""

import argparse
import pathlib
import sys
import tomllib
from dataclasses import dataclass, field

PROJECT = pathlib.Path(__file__).resolve().parents[1]
sys.path.append(str(PROJECT / "tests/faults"))

import table

DATA = pathlib.Path(__file__).with_name("requirements.toml")
PAGE = PROJECT / "docs/board.md"
MANUAL = "failures.md"

HEAD = """\
# What a control board must do

This page lists what the program requires of a control board, and what it does with a board that does otherwise. The
last column has rows of the fault table, which show that; the link leads to the screen in the failure manual. "Not
needed" marks what the update succeeds without. [wire-formats.md](wire-formats.md) describes the frames.

This page is generated; do not edit it. `boardcheck/requirements.toml` has its content, and `scripts/check-board --page`
generates it.

## Ask a board

`scripts/check-board` asks a real board all of this with the requests of the unchanged program, and says for each line
whether the board meets it. Without `--firmware` it changes nothing on the board: it asks for the version and the
handshakes only. The recording is a [file that can be replayed](recordings.md).

    scripts/check-board /dev/ttyUSB0
    scripts/check-board /dev/ttyUSB0 --firmware UpdataSystem.bin    # replaces the firmware of the board
    scripts/check-board /dev/ttyUSB0 --json                         # for a build server

The exit status is 0 if the board is fit, 1 if it is not, and 2 for wrong use or when the check is not possible here.
"""


@dataclass
class Requirement:
    """See requirements.toml."""

    name: str
    step: str
    must: str
    otherwise: str
    rows: list = field(default_factory=list)
    needed: bool = True
    unseen: str = ""


def load():
    with open(DATA, "rb") as file:
        return [Requirement(**row) for row in tomllib.load(file)["requirement"]]


def sections():
    """For each row of the fault table, its section in the failure manual."""
    return {row.name: f"{MANUAL}#{(row.final_screen or 'the program has ended').replace(' ', '-')}"
            for row in table.load()["rows"]}


def page():
    lines, step, places = [HEAD], "", sections()
    for one in load():
        if one.step != step:
            step = one.step
            lines += [*([""] if len(lines) > 1 else []), f"## {step[0].upper()}{step[1:]}", "",
                      "| Name | The board | Otherwise | Rows |", "|---|---|---|---|"]
        name = f"`{one.name}`" if one.needed else f"`{one.name}` (not needed)"
        must = f"{one.must} Not seen on the line: {one.unseen}." if one.unseen else one.must
        rows = ", ".join(f"[`{row}`]({places[row]})" for row in one.rows)
        lines.append(f"| {name} | {must} | {one.otherwise} | {rows} |")
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true", help="only report whether the page is up to date")
    if not parser.parse_args().check:
        PAGE.write_text(page(), encoding="utf-8")
        return 0
    if PAGE.is_file() and PAGE.read_text(encoding="utf-8") == page():
        return 0
    print("docs/board.md differs from boardcheck/requirements.toml: run scripts/check-board --page", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())
