"""Makes docs/failures.md from the fault table: page.py writes it, page.py --check compares it."""

import argparse
import pathlib
import sys

import table

PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/failures.md"
COLOURS = {"#ffffff": "white", "#ffff00": "yellow", "#ff0000": "red", "#008000": "green"}
# Beginnings of lines that tell one failure from another; the others come in every update.
TELLING = ("[error]", "[NAK]", "[CA]", "ERROR: ", "select error")

HEAD = """\
# What can go wrong, and what to do

For whoever stands at the machine: find what the screen shows, then what the console says; below it stand
the causes that are known, each with the steps of the update at which it strikes. Every cause is a row of
`tests/faults/table.toml`, which `scripts/faults` runs on the simulated machine; this page is made from the same
rows by `scripts/faults --page`, so change those and not the page.

## Let a command read the console

`scripts/explain` compares what a console printed with the same rows. It says which steps were done, where the
update ended, what the screen shows then, the causes, and what to do. Time stamps, a boot log, escape sequences
and lines of the kernel do no harm, nor does an end that is cut off; of several updates the last one counts.

    scripts/explain console.log
    scripts/explain --screen updated console.log    # when it is known what the screen shows
    scripts/explain --json -                        # standard input; the facts as JSON, see --help
    scripts/explain --one-file explain.pyz          # the command in one file, for a service laptop
    python3 explain.pyz console.log                 # there: Python 3.9 or later, and nothing else

The exit status is 0 after a good update, 1 after a failure or when the console does not tell, and 2 when the
text is none of the program's. A good update and some failures leave the same console: then the report has both.
"""


def sections(data):
    """(screen, advices) in the order of the screens; an advice has the rows that it is for, by what
    the console says."""
    for screen in (*data["screens"], ""):
        advices = {}
        for row in data["rows"]:
            if row.screen == screen and not row.fault.startswith("none"):
                advices.setdefault(row.advice, {}).setdefault(telling_lines(row, data), []).append(row)
        if advices:
            yield screen, advices


def telling_lines(row, data):
    """What on the console tells this failure from others, each line once."""
    own = (line for line in flat(row.console, data) if line.startswith(TELLING))
    return tuple(dict.fromkeys((*own, *row.also)))


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
        return ["## No screen", ""]
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


def code(text):
    fence = "``" if "`" in text else "`"
    return f"{fence}{text}{fence}"


def causes(rows):
    """Each cause once, with the steps at which it has this effect; those meant for one reason together."""
    reasons = {}
    for row in rows:
        reasons.setdefault(row.why, {}).setdefault(row.fault, []).append(row.where)
    for why, faults in sorted(reasons.items(), key=lambda reason: not reason[0]):
        texts = [fault + steps(places) for fault, places in faults.items()]
        if why:
            yield "; ".join(texts) + f". *Meant so: {why}.*"
        else:
            yield from texts


def steps(places):
    named = ", ".join(place for place in dict.fromkeys(places) if place)
    return f" ({named})" if named else ""


def advice_lines(advice, by_console, data):
    yield f"**Do:** {data['advice'][advice]}"
    yield ""
    for lines, rows in by_console.items():
        yield "- " + (" and ".join(map(code, lines)) or "nothing unusual on the console") + ":"
        yield from (f"  - {cause}" for cause in causes(rows))
    yield ""


def page():
    data = table.load()
    lines = [HEAD]
    for screen, advices in sections(data):
        lines += heading(screen, data)
        for advice, by_console in advices.items():
            lines += advice_lines(advice, by_console, data)
    return "\n".join(lines).rstrip("\n") + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--check", action="store_true", help="only say whether the page is up to date")
    if not parser.parse_args().check:
        PAGE.write_text(page(), encoding="utf-8")
        return 0
    if PAGE.read_text(encoding="utf-8") == page():
        return 0
    print("docs/failures.md is not what tests/faults/table.toml makes: run scripts/faults --page", file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main())
