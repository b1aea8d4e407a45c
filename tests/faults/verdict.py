"""Compares what a machine has come to with what its row says."""

import filecmp
import itertools
import json
import os
import pathlib
import re
import subprocess

STATE = pathlib.Path("/run/machine")
STAGED = "/tmp/ota"
STICK = "/mnt/nand_disk/update_ipk"
INSTALL = "opkg install --force-downgrade --force-reinstall --force-overwrite"
# A row's upper bound leaves room for a busy processor, but not for an emulated one.
SLOWNESS = 2 if os.environ.get("UPDATE_ASSISTANT_EMULATOR") else 1
RESULT_LINE = re.compile(r"^qml: result: (-?\d+)\s+index: (\d+) ")


def differences(row, table, log, source, is_over=False):
    """Yields what is not as the row says, a line each. `source` holds the package files; once the
    row `is_over` the board is off, and its summary counts, too."""
    lines = text_of(STATE / "program.log").splitlines()
    return itertools.chain(
        _screen_differences(row, table),
        _code_differences(row, table, lines),
        _console_differences(row, table, lines),
        _process_differences(row),
        _disk_differences(row),
        _board_differences(row, is_over),
        _duration_differences(row, log),
        _package_differences(row, source),
    )


def text_of(path):
    try:
        return pathlib.Path(path).read_text(encoding="utf-8", errors="replace")
    except OSError:
        return ""


def _same(what, expected, actual):
    if expected != actual:
        yield f"{what}: expected {expected!r}, is {actual!r}"


def last_screen():
    """The last state that was painted, None before the first."""
    painted = text_of(STATE / "screen.log").rpartition("\n")[0].rpartition("\n")[2]
    return json.loads(painted) if painted else None


def _screen_differences(row, table):
    state = last_screen()
    if state is None or not row.screen:
        yield from _same("a screen", bool(row.screen), state is not None)
        return
    items = state["items"]
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
        yield from _same("the list", row.listed, [texts[0] for texts in state["rows"]])
    states = [texts[2:4] for texts in state["rows"]]
    runs = [(*key, len(list(group))) for key, group in itertools.groupby(states, tuple)]
    yield from _same("the states of the list", row.rows, " ".join(run[0] for run in runs))
    for run in runs:
        yield from _same(f"the colour of {run[0]}", table["states"][run[0]], run[1])


def _code_differences(row, table, lines):
    results = [[int(part) for part in match.groups()] for match in map(RESULT_LINE.match, lines) if match]
    expected = row.results
    if isinstance(expected, int):
        expected = [[0, index] for index in range(expected)]
    yield from _same("the results of the installations", expected, results)
    starts = [int(code) for line in lines for code, head in table["start"].items() if line.startswith(head)]
    yield from _same("the result of the start command", [] if row.start is None else [row.start], starts)
    if row.transfer is not None:
        yield from _same("the result of the transfer", row.transfer, painted_result())


def painted_result():
    """The result that the screen tells of the control board, None before it does."""
    state = last_screen()
    text = state["items"]["tip_en"]["text"] if state else ""
    code = re.search(r"Error Code\[(-?\d+)\]", text)
    if code:
        return int(code[1])
    return 0 if text.startswith("Update Successfully") else None


def pattern(entries, table):
    """A regular expression for lines of the console.

    An entry is a line as it stands; "@NAME" for the lines of that name in [lines]; a list that
    begins with how often the rest of it comes: "+", "*", or numbers such as "3" and "2,5"; or one
    that begins with "|" and has one entry of the rest.
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
    """The lines that are the program's own, without its listings of packages."""
    own = re.compile("|".join(table["own_lines"]))
    return [line for line in lines if own.match(line)]


def _console_differences(row, table, lines):
    own = "".join(line + "\n" for line in console_of(lines, table))
    if not re.fullmatch(pattern(row.console, table), own):
        yield "the console: expected\n" + _indented(row.console) + "\n  is\n" + _indented(own.splitlines())
    everything = "\n".join(lines)
    for text in row.also:
        if text not in everything:
            yield f"not printed: {text}"


def _indented(entries):
    return "\n".join(f"    {entry}" for entry in entries)


def installed_packages():
    listing = subprocess.run(
        ["dpkg-query", f"--root={STATE}/root", "--show",
         "--showformat=${db:Status-Status} ${Package} ${Version}\n"],
        capture_output=True, text=True, check=False,
    ).stdout
    return sorted(line.removeprefix("installed ") for line in listing.splitlines()
                  if line.startswith("installed "))


def _package_differences(row, source):
    yield from _same("the installed packages", sorted(row.installed), installed_packages())
    calls = text_of(STATE / "calls.log").splitlines()
    asked = [call.removeprefix(INSTALL).removeprefix(" ") for call in calls if call.startswith(INSTALL)]
    if row.calls is not None:
        yield from _same("calls of the package manager", row.calls, len(asked))
    if row.asked is not None:
        yield from _same("what the package manager was asked for", row.asked, asked)
    yield from _same("calls of the main application", row.handed_over,
                     calls.count("/root/Hmi -path=/root"))
    copied = row.copied or []
    if row.copied is not None:
        yield from _same("the staged packages", sorted(map(os.path.basename, row.staged + copied)),
                         sorted(names_in(STAGED)))
    for folder, files in ((STAGED, row.staged + copied), (STICK, row.stick)):
        for file in files:
            copy = os.path.join(folder, os.path.basename(file))
            if copy not in row.disk and not _same_content(copy, os.path.join(source, file)):
                yield f"{copy}: no longer what was put there"


def names_in(folder):
    try:
        return os.listdir(folder)
    except OSError:
        return []


def _same_content(one, other):
    try:
        return filecmp.cmp(one, other, shallow=False)
    except OSError:
        return False


def _board_differences(row, is_over):
    if row.board == "none":
        return
    try:
        summary = json.loads(text_of(STATE / "board.json"))
    except ValueError:
        if is_over:
            yield "the board has left no summary"
        return
    yield from _same("the board's verdict", row.board_outcome, summary["outcome"])
    given = {row.board[i + 1] for i, option in enumerate(row.board) if option == "--fault"}
    if row.struck:
        yield from _same("faults that were made", given, set(summary["faultsMade"]))
    transfers = summary["transfers"]
    received = transfers[-1] if transfers else None
    image = "none"
    if received and received["blocksReceived"] > 0:
        whole = received["outcome"] == "complete" and _same_content(STATE / "received.bin", row.firmware)
        image = "whole" if whole else "part"
    yield from _same("the image that the board got", row.image, image)


def disk_state(path):
    """What is at a path: "absent", "folder", "empty folder", or "file"."""
    if not os.path.lexists(path):
        return "absent"
    if os.path.isdir(path):
        return "folder" if os.listdir(path) else "empty folder"
    return "file"


def _disk_differences(row):
    for path, expected in row.disk.items():
        if expected.startswith("same as "):
            if not _same_content(path, expected.removeprefix("same as ")):
                yield f"{path}: expected the {expected}"
        elif expected.startswith("text "):
            yield from _same(path, expected.removeprefix("text "), text_of(path))
        else:
            yield from _same(path, expected, disk_state(path))


def is_running(pid):
    state = re.search(r"^State:\t(.)", text_of(f"/proc/{pid}/status"), re.MULTILINE)
    return bool(state) and state[1] not in "ZX"


def _process_differences(row):
    yield from _same("the program runs", row.running, is_running(text_of(STATE / "program.pid").strip()))
    if row.status is not None:
        yield from _same("the program's exit status", str(row.status),
                         text_of(STATE / "program.status").strip())


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
