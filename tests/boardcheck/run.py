"""Runs scripts/check-board on the simulated board with each fault of faults.toml, in parallel, and compares the
requirements that are not met."""

import argparse
import asyncio
import fnmatch
import json
import pathlib
import subprocess
import sys
import tempfile
import tomllib
from dataclasses import dataclass, field

FOLDER = pathlib.Path(__file__).resolve().parent
PROJECT = FOLDER.parents[1]
sys.path[:0] = [str(PROJECT), str(PROJECT / "tests/support"), str(PROJECT / "tests/faults")]

import table
from boardcheck import requirements
from boardcheck.judgement import NOT_MET
from parallel import add_arguments, chosen, run_all

CHECKS_PER_CORE = 4  # a check mostly waits for the serial line, but starts several machines
LONGEST_S = 150
FIRMWARE_SIZE = 2500  # three blocks, the last one not full
# As for the fault table: no `C` comes before the reply to the start command has been read, nor a second one with it.
TIMING = ["--control-repeat", "10", "--boot-delay", "2500", "--request-interval", "3000"]


@dataclass
class Case:
    """One fault: the board, and what the check says of it."""

    name: str
    board: list
    breaks: set
    run: bool = True
    limit: int = 8
    has_firmware: bool = True
    advice: str = field(default="", compare=False)


class DataError(Exception):
    """The data contradicts itself."""


def load():
    """The cases, in the order of faults.toml."""
    with open(FOLDER / "faults.toml", "rb") as file:
        entries = tomllib.load(file)["entry"]
    rows = [row for row in table.load()["rows"] if row.area == "board"]
    needed = {one.name: one.needed for one in requirements.load()}
    cases, taken = [], {}
    for entry in entries:
        breaks = entry.get("breaks", [])
        if not set(breaks) <= set(needed) or len(breaks) != 1 and "why" not in entry:
            raise DataError(f"{entry}: an unknown requirement, or no reason for none or several")
        about = {"breaks": set(breaks), "run": entry.get("run", True), "limit": entry.get("limit", 8),
                 "has_firmware": entry.get("without") != "firmware"}
        more = entry.get("board", [])
        cases += [Case(fault, ["--fault", fault, *more], **about) for fault in entry.get("faults", [])]
        for pattern in entry.get("rows", []):
            found = [row for row in rows if fnmatch.fnmatchcase(row.name, pattern) and row.name not in taken]
            if not found:
                raise DataError(f"{pattern}: no row is left for it")
            taken |= {row.name: row for row in found}
            cases += [Case(row.name, [*row.board, *more] if row.board != "none" else [], **about) for row in found]
    check_complete(cases, rows, taken, needed)
    return cases


def check_complete(cases, rows, taken, needed):
    """Each row is taken, each requirement is broken, and what the program needs is what fails in the fault table."""
    left = [row.name for row in rows if row.name not in taken]
    if left:
        raise DataError(f"no entry has the rows {', '.join(left)}")
    broken = set().union(*(case.breaks for case in cases))
    proved = {one.name for one in requirements.load() if not one.unseen}
    if broken != proved:
        raise DataError(f"broken by a fault, or seen, but not both: {', '.join(sorted(broken ^ proved))}")
    for case in cases:
        row = taken.get(case.name)
        # The update may succeed, and the board fall silent after it; the main application may take the board over.
        if not row or not case.run or row.handed_over or "application" in case.breaks:
            continue
        if (row.advice in table.SOUND) == any(needed[name] for name in case.breaks):
            raise DataError(f"{row.name}: the fault table says \"{row.advice}\", but it breaks {case.breaks or 'nothing'}")


def check_faults(boardsim, cases):
    """Each kind of fault is there at each place where the board can make it."""
    kinds, places, section = [], [], ""
    for line in subprocess.run([boardsim, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout.splitlines():
        if line.startswith(("Faults", "Places")):
            section = line[:6]
        elif section and line.startswith("  "):
            name = line.split()[0].partition("[")[0].partition("=")[0]
            (kinds if section == "Faults" else places).append(name)
    options = [option for case in cases for option in (case.board or [case.name])]
    for kind in kinds:
        for place in places:
            group = "block:*" if place.startswith("block") else place
            if not any(fnmatch.fnmatchcase(option, f"{kind}{value}@{group}") or option == f"*@{place}"
                       for option in options for value in ("", "=*")) and can_make(boardsim, kind, place):
                raise DataError(f"no entry has the fault {kind} at {place}")


def can_make(boardsim, kind, place):
    """Whether the board takes the fault: a summary that cannot be written ends it before it starts."""
    for fault in (f"{kind}@{place}", f"{kind}=1@{place}"):
        said = subprocess.run([boardsim, "--fault", fault, "--summary", "/nowhere/summary"], stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True, check=False).stderr
        if "/nowhere" in said:
            return True
    return False


def first_of_a_kind(cases):
    chosen = {}
    for case in cases:
        kind, _, place = case.name.rpartition("@")
        if not place.startswith(("block:first", "block:last")):
            chosen.setdefault((kind.partition("=")[0], *sorted(case.breaks)) if kind else case.name, case)
    return list(chosen.values())


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    add_arguments(parser, "fault", CHECKS_PER_CORE)
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/dev", help="build tree of the programs")
    parser.add_argument("--all", action="store_true", help="run all of a kind, not only the first that breaks the same, and those at the first and at the last block")
    parser.add_argument("--list", action="store_true", help="list the faults without running them")
    return parser.parse_args()


def titled(case):
    return f"{', '.join(sorted(case.breaks)) or 'nothing':26} {case.name}"


async def check(case, arguments, folder):
    """Returns the title of the case, and a text with the differences from it (empty without any)."""
    with tempfile.TemporaryDirectory(dir=folder) as own:
        own = pathlib.Path(own)
        board = await asyncio.create_subprocess_exec(
            arguments.build / "simulator/boardsim", "--link", own / "board", "--transcript", own / "board.log",
            "--hex", "short", *TIMING, *case.board, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE)
        command = None
        try:
            await board.stdout.readline()
            firmware = ["--firmware", folder / "firmware"] if case.has_firmware else []
            command = await asyncio.create_subprocess_exec(
                PROJECT / "scripts/check-board", own / "board", *firmware, "--build", arguments.build, "--limit",
                str(case.limit), "--recording", own / "recording", "--json", stdin=subprocess.DEVNULL,
                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
            output, errors = await asyncio.wait_for(command.communicate(), LONGEST_S)
            found = list(differences(case, command.returncode, output))
        except TimeoutError:
            errors, found = b"", [f"it does not end within {LONGEST_S} s"]
        finally:
            for process in filter(None, (command, board)):
                if process.returncode is None:
                    process.terminate()
                await process.wait()
        transcript = (own / "board.log").read_text(encoding="utf-8")
    return titled(case), "\n".join([*found, errors.decode(), transcript]) if found else ""


def differences(case, status, output):
    try:
        facts = json.loads(output)
    except ValueError:
        yield f"no result, status {status}"
        return
    broken = {one["name"] for one in facts["requirements"] if one["status"] == NOT_MET}
    if broken != case.breaks:
        yield f"not met: expected {sorted(case.breaks)}, are {sorted(broken)}"
        yield from (f"   {one['name']}: {one['status']} {one['seen']}" for one in facts["requirements"])
    fit = not any(one["needed"] for one in facts["requirements"] if one["name"] in broken)
    if status != (0 if fit else 1) or facts["fit"] != fit:
        yield f"the exit status is {status}, and fit is {facts['fit']}"


async def check_all(cases, arguments, folder):
    """Prints the result of each case, the longest first. Returns the exit status."""
    longest_first = sorted(cases, key=lambda case: -case.has_firmware)
    return await run_all(longest_first, lambda case: check(case, arguments, folder), arguments)


def main():
    arguments = parse_arguments()
    arguments.build = arguments.build.resolve()
    cases = load()
    if arguments.list:
        for case in cases:
            print(titled(case))
        return 0
    check_faults(arguments.build / "simulator/boardsim", cases)
    cases = [case for case in cases if case.run]
    if arguments.names:
        cases = chosen(cases, arguments.names)
    elif not arguments.all:
        cases = first_of_a_kind(cases)
    with tempfile.TemporaryDirectory(prefix="check-board-faults.") as folder:
        folder = pathlib.Path(folder)
        (folder / "firmware").write_bytes(bytes(range(250)) * (FIRMWARE_SIZE // 250))
        return asyncio.run(check_all(cases, arguments, folder))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except DataError as wrong:
        sys.exit(f"faults.toml: {wrong}")
    except KeyboardInterrupt:
        sys.exit(130)
