"""Generates docs/failures.md from the fault table: page.py writes the file, page.py --check compares it."""

import argparse
import pathlib
import re
import sys

import table

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/failures.md"
RULES = PAGE.with_name("packages.md")
COLOURS = {"#ffffff": "white", "#ffff00": "yellow", "#ff0000": "red", "#008000": "green"}
# Beginnings of the output lines that distinguish failures; an update without a failure prints the others too.
TELLING = ("[error]", "[NAK]", "[CA]", "ERROR: ", "select error")

HEAD = """\
# Known failures and their remedies

Find the section for what the screen shows, or the last section if the program has ended. Then find the output lines of
the console. The known causes are below them, with the steps of the update at which they occur in parentheses. The
staging folder is `/tmp/ota`.

This page is generated; do not edit it. Each cause is a row of `tests/faults/table.toml`. `scripts/faults` runs
the rows on the simulated machine, and `scripts/faults --page` generates this page from them.

## Let a command read the console

`scripts/explain` compares the console output of a machine with the same rows. It says which steps were done, where the
update ended, what the screen shows then, the causes, and what to do. Time stamps, a boot log, escape sequences, kernel
lines and a missing beginning or end do no harm. Of several updates, the last one counts.

    scripts/explain console.log
    scripts/explain --screen updated console.log    # when it is known what the screen shows
    scripts/explain --json -                        # standard input; the facts as JSON, see --help
    scripts/explain --one-file explain.pyz          # the command in one file, for a service laptop
    python3 explain.pyz console.log                 # there: Python 3.9 or later, and nothing else

The exit status is 0 after a good update, 1 after a failure or if the console does not show how the update ended, and 2
if the text does not come from the program. A good update and some failures print the same: the report then has both.
"""


def sections(data):
    """(screen, advices) in the order of the screens. An advice has its rows, grouped by console output."""
    for screen in (*data["screens"], ""):
        advices = {}
        for row in data["rows"]:
            if row.final_screen == screen and row.advice not in table.BROKEN and not row.fault.startswith("none"):
                advices.setdefault(row.advice, {}).setdefault(telling_lines(row, data), []).append(row)
        if advices:
            yield screen, advices


def telling_lines(row, data):
    """The output lines that distinguish this failure, each once."""
    own = (line for line in flat(row.console, data) if line.startswith(TELLING))
    return tuple(dict.fromkeys((*own, *row.also))), tuple(row.libsolv.get("also", ()))


def flat(entries, data):
    for entry in entries:
        if isinstance(entry, list):
            yield from flat(entry[1:], data)
        elif entry.startswith("@"):
            yield from flat(data["lines"][entry[1:]], data)
        else:
            yield entry


def heading(screen, data):
    if not screen:
        return ["## The program has ended", "",
                "Nothing reacts. The display may still show the last picture of the program.", ""]
    look = data["screens"][screen]
    lines = [f"## {screen[0].upper()}{screen[1:]}", ""]
    english, chinese = look["tips"]
    if english:
        lines += [f"The screen says, in {COLOURS[look['colour']]}:", "",
                  f"> {english}<br>{chinese}", ""]
    else:
        lines += ["The screen gives no information.", ""]
    if "success" in look:
        lines += ["and in large letters:", "", f"> {look['success']}", ""]
    if look.get("button"):
        lines += ["The button can be pressed.", ""]
    return lines


def check_button(screen, advices, data):
    """A button can be pressed only while the program runs."""
    if screen and data["screens"][screen].get("button"):
        for row in (row for by_console in advices.values() for rows in by_console.values() for row in rows):
            if not row.running:
                raise table.TableError(f"{row.name}: the program has ended, but the page says that the button "
                                       "can be pressed")


def code(text):
    longest = max(map(len, re.findall("`+", text)), default=0)
    fence = "`" * (longest + 1)
    return f"{fence}{text}{fence}"


def causes(rows):
    """Each cause once, with its steps. Causes with the same reason are on one output line."""
    reasons = {}
    for row in rows:
        reasons.setdefault(row.why, {}).setdefault(row.fault, []).append(row.where)
    for why, faults in sorted(reasons.items(), key=lambda reason: not reason[0]):
        texts = [fault + steps(places) for fault, places in faults.items()]
        if why:
            yield "; ".join(texts) + f". *Why: {why}.*"
        else:
            yield from texts


def steps(places):
    named = ", ".join(place for place in dict.fromkeys(places) if place)
    return f" ({named})" if named else ""


def advice_lines(advice, by_console, data):
    yield f"**Do:** {data['advice'][advice]}"
    yield ""
    for lines, rows in by_console.items():
        yield f"- {quoted(lines)}:"
        yield from (f"  - {cause}" for cause in causes(rows))
    yield ""


def quoted(lines):
    """The output lines, and those of an opkg with libsolv where they are others."""
    own, libsolv = (" and ".join(map(code, some)) for some in lines)
    return f"{own}, or {libsolv}" if libsolv else own or "nothing unusual on the console"


def broken_in_green(data):
    """The section about a success that the screen shows although files are broken."""
    lines = ["## Green is not proof", "", "The screen shows the success in green in these cases, although a package is "
             "broken. Only the console tells, if anything does.", ""]
    for advice in table.BROKEN:
        by_console = {}
        for row in (row for row in data["rows"] if row.advice == advice):
            by_console.setdefault(telling_lines(row, data), []).append(row)
        lines += advice_lines(advice, by_console, data)
    return [*lines, "What the builder of a package does against it: [packages.md](packages.md#room).", ""]


def page():
    data = table.load()
    lines = [HEAD, *broken_in_green(data)]
    for screen, advices in sections(data):
        check_button(screen, advices, data)
        lines += heading(screen, data)
        for advice, by_console in advices.items():
            lines += advice_lines(advice, by_console, data)
    return "\n".join(lines).rstrip("\n") + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true", help="only report whether the page is up to date")
    if not parser.parse_args().check:
        PAGE.write_text(page(), encoding="utf-8")
        return 0
    names = {row.name for row in table.load()["rows"]}
    unknown = [name for rows in re.findall(r"Rows?:((?:\s+`[^`]+`[,.])+)", RULES.read_text(encoding="utf-8"))
               for name in re.findall("`([^`]+)`", rows) if name not in names]
    if unknown:
        print(f"docs/packages.md names rows that do not exist: {', '.join(unknown)}", file=sys.stderr)
        return 1
    if PAGE.read_text(encoding="utf-8") == page():
        return 0
    print("docs/failures.md differs from tests/faults/table.toml: run scripts/faults --page", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())
