"""Compares the state of a machine with the expectations of its row."""

import itertools
import os
import re

from machine import HAND_OVER, paths
from machine.packages import INSTALL
from machine.watch import names_in, same_content, text_of

# The upper bounds of the rows allow for a busy processor but not for an emulated one.
SLOWNESS = 2 if os.environ.get("UPDATE_ASSISTANT_EMULATOR") else 1


def differences(row, table, log, steps, is_over=False):
    """Yields a text for each difference from the row. When the row `is_over`, boardsim has stopped, and its
    summary is compared too."""
    machine = steps.machine
    painted = machine.screen.painted
    return itertools.chain(
        _screen_differences(row, table, painted),
        _code_differences(row, table, machine.console, painted),
        _console_differences(row, table, machine.console),
        _process_differences(row, steps),
        _disk_differences(row),
        _board_differences(row, machine.board, is_over),
        _duration_differences(row, log),
        _package_differences(row, machine),
    )


def _same(what, expected, actual):
    if expected != actual:
        yield f"{what}: expected {expected!r}, is {actual!r}"


def _screen_differences(row, table, painted):
    items = painted["items"]
    if not items or not row.screen:
        yield from _same("a screen", bool(row.screen), bool(items))
        return
    expected = table["screens"][row.screen]
    for tip, text in zip(expected.get("ids", ("tip_en", "tip_cn")), expected["tips"]):
        item = items.get(tip, {})
        yield from _same(f"the text of {tip}", text, item.get("text"))
        yield from _same(f"the colour of {tip}", expected["colour"], item.get("color"))
    yield from _same("the success text", expected.get("success"), items.get("successTip", {}).get("text"))
    yield from _same("the button can be pressed", expected.get("button"),
                     items.get("udisk", {}).get("enabled"))
    if row.progress is not None:
        bar = items["progress"]
        yield from _same("the progress", row.progress, [bar["value"], bar["to"]])
    if row.listed is not None:
        yield from _same("the list", row.listed, [texts[0] for texts in painted["rows"]])
    states = [texts[2:4] for texts in painted["rows"]]
    runs = [(*key, len(list(group))) for key, group in itertools.groupby(states, tuple)]
    yield from _same("the states of the list", row.rows, " ".join(run[0] for run in runs))
    for run in runs:
        yield from _same(f"the colour of {run[0]}", table["states"][run[0]], run[1])


def _code_differences(row, table, console, painted):
    expected = row.results
    if isinstance(expected, int):
        expected = [[0, index] for index in range(expected)]
    yield from _same("the results of the installations", expected, console.results)
    starts = [int(code) for line in console.lines
              for code, head in table["start"].items() if line.startswith(head)]
    yield from _same("the result of the start command", [] if row.start is None else [row.start], starts)
    if row.transfer is not None:
        yield from _same("the result of the transfer", row.transfer, painted_result(painted))


def painted_result(painted):
    """The result of the board's update that the screen shows; None before it shows one."""
    text = painted["items"].get("tip_en", {}).get("text", "")
    code = re.search(r"Error Code\[(-?\d+)\]", text)
    if code:
        return int(code[1])
    return 0 if text.startswith("Update Successfully") else None


def pattern(entries, table):
    """A regular expression for output lines. Each entry is one of these:

    TEXT             this output line
    "@NAME"          the output lines of that name in [lines]
    [COUNT, ...]     the other entries, repeated; COUNT is "+", "*", or a number or range: "3", "2,5"
    ["|", ...]       one of the other entries
    """
    parts = []
    for entry in entries:
        if isinstance(entry, list) and entry[0] == "|":
            parts.append(f"(?:{'|'.join(pattern([choice], table) for choice in entry[1:])})")
        elif isinstance(entry, list):
            often = entry[0] if entry[0] in "+*" else f"{{{entry[0]}}}"
            parts.append(f"(?:{pattern(entry[1:], table)}){often}")
        elif entry.startswith("@"):
            parts.append(pattern(table["lines"][entry[1:]], table))
        else:
            parts.append(re.escape(entry) + "\n")
    return "".join(parts)


def console_of(lines, table):
    """The output lines of the program itself, without its listings of packages."""
    own = re.compile("|".join(table["own_lines"]))
    return [line for line in lines if own.match(line)]


def _console_differences(row, table, console):
    own = "".join(line + "\n" for line in console_of(console.lines, table))
    if not re.fullmatch(pattern(row.console, table), own):
        yield "the console: expected\n" + _indented(row.console) + "\n  is\n" + _indented(own.splitlines())
    for text in row.also:
        if not console.printed(text):
            yield f"not printed: {text}"


def _indented(entries):
    return "\n".join(f"    {entry}" for entry in entries)


def _package_differences(row, machine):
    yield from _same("the installed packages", sorted(row.installed), sorted(machine.packages.installed()))
    calls = machine.calls()
    asked = [call.removeprefix(INSTALL).removeprefix(" ") for call in calls if call.startswith(INSTALL)]
    if row.calls is not None:
        yield from _same("calls of the package manager", row.calls, len(asked))
    if row.asked is not None:
        yield from _same("what the package manager was asked for", row.asked, asked)
    yield from _same("calls of the main application", row.handed_over, calls.count(HAND_OVER))
    copied = row.copied or []
    if row.copied is not None:
        yield from _same("the staged packages", sorted(map(os.path.basename, row.staged + copied)),
                         names_in(paths.STAGED))
    for folder, files in ((paths.STAGED, row.staged + copied), (paths.STICK, row.stick)):
        for file in files:
            copy = folder / os.path.basename(file)
            if str(copy) not in row.disk and not same_content(copy, machine.packages.folder / file):
                yield f"{copy}: differs from what was put there"


def _board_differences(row, board, is_over):
    if row.board == "none":
        return
    summary = board.summary()
    if summary is None:
        if is_over:
            yield "boardsim has written no summary"
        return
    yield from _same("the board's verdict", row.board_outcome, summary["outcome"])
    given = {row.board[i + 1] for i, option in enumerate(row.board) if option == "--fault"}
    if row.struck:
        yield from _same("faults that were made", given, set(summary["faultsMade"]))
    transfers = summary["transfers"]
    received = transfers[-1] if transfers else None
    image = "none"
    if received and received["blocksReceived"] > 0:
        whole = received["outcome"] == "complete" and same_content(paths.RECEIVED, row.firmware)
        image = "whole" if whole else "part"
    yield from _same("the image that the board got", row.image, image)


def disk_state(path):
    """What exists at a path: "absent", "folder", "empty folder", or "file"."""
    if not os.path.lexists(path):
        return "absent"
    if os.path.isdir(path):
        return "folder" if os.listdir(path) else "empty folder"
    return "file"


def _disk_differences(row):
    for path, expected in row.disk.items():
        if expected.startswith("same as "):
            if not same_content(path, expected.removeprefix("same as ")):
                yield f"{path}: expected the {expected}"
        elif expected.startswith("text "):
            yield from _same(path, expected.removeprefix("text "), text_of(path))
        else:
            yield from _same(path, expected, disk_state(path))


def _process_differences(row, steps):
    yield from _same("the program runs", row.running, steps.machine.program.is_running)
    if row.status is not None:
        yield from _same("the program's exit status", row.status, steps.status)


def _duration_differences(row, log):
    if not row.seconds:
        return
    took = log.seconds_between(row.seconds["from"], row.seconds["to"])
    if took is None:
        yield f"no time between {row.seconds['from']!r} and {row.seconds['to']!r}"
        return
    at_least, at_most = row.seconds["at_least"], SLOWNESS * row.seconds["at_most"]
    if not at_least <= took <= at_most:
        yield f"took {took:.1f} s, not {at_least} to {at_most}"
