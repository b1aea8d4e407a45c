"""Runs the rows of the fault table in parallel, each on a simulated machine of its own."""

import argparse
import asyncio
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/support"))

import table
from parallel import add_arguments, chosen, run_all

# A row mostly waits for the serial line, so many machines run at a time; emulated programs need the processor.
MACHINES_PER_CORE = 4 if os.environ.get("UPDATE_ASSISTANT_EMULATOR") else 12
STARTS_PER_CORE = 2  # a start needs the processor; more of them would make the machines that run late
STARTED = b"started\n"  # the first line of run_row.py, when the program shows its screen


def parse_arguments():
    parser = argparse.ArgumentParser(prog="scripts/faults", description=__doc__)
    add_arguments(parser, "row", MACHINES_PER_CORE)
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/dev",
                        help="build tree of the program (default: build/dev, which is built first)")
    parser.add_argument("--list", action="store_true", help="list the rows without running them")
    parser.add_argument("--keep", type=pathlib.Path, metavar="DIR",
                        help="keep the state of each machine (console, screen, transcript) in DIR")
    parser.add_argument("--tap", action="store_true",
                        help="put boardtap between the program and the board: the outcome must be the same, and the "
                        "bytes; then only the rows with a board run, unless rows are named")
    parser.add_argument("--opkg", choices=("stand-in", "real"), default="stand-in",
                        help="package manager: the stand-in (default), or the opkg on the PATH or in the variable OPKG; "
                        "then only the rows in which it installs run, unless rows are named")
    parser.epilog = "scripts/faults --page runs no row; it generates docs/failures.md from the table."
    return parser.parse_args()


def solver_of(opkg):
    """The solver of the real opkg, for run_row.py; nothing for the stand-in."""
    if opkg != "real":
        return []
    version = subprocess.run([PROJECT / "sandbox/run", "--opkg", "real", "sh", "-c", '"$SANDBOX_REAL_OPKG" --version'],
                             stdout=subprocess.PIPE, text=True, check=False)
    if version.returncode:
        sys.exit(version.returncode)
    return ["libsolv" if "libsolv" in version.stdout else "internal"]


def chosen_rows(names, opkg, tap):
    rows = table.load()["rows"]
    if tap and not names:
        rows = [row for row in rows if row.board != "none"]
    if opkg == "real" and not names:
        rows = [row for row in rows if row.area != "board" and row.results]
    return chosen(rows, names)


async def run_row(row, arguments, packages, starts):
    """Returns the title of the row, and a text with the differences from it (empty without any)."""
    build = arguments.build.resolve()
    state = []
    if arguments.keep:
        folder = arguments.keep / row.name.replace("/", "-")
        shutil.rmtree(folder, ignore_errors=True)  # from an earlier run
        state = ["--state", folder]
    await starts.acquire()
    machine = await asyncio.create_subprocess_exec(
        PROJECT / "sandbox/run", *state, *row.machine, "--opkg", arguments.opkg, "--show", build, "--show", packages, "--",
        "/usr/bin/python3", "-B", PROJECT / "tests/faults/run_row.py", build, packages, row.name,
        *arguments.solver, *(["--tap"] if arguments.tap else []),
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        first = await machine.stdout.readline()
        starts.release()
        output = (first.removeprefix(STARTED) + await machine.stdout.read()).decode(errors="replace")
        status = await machine.wait()
    except asyncio.CancelledError:
        if machine.returncode is None:
            machine.kill()  # ends everything that runs on the machine
        await machine.communicate()
        raise
    return f"{row.area:10} {row.name}", (output or f"the machine ended with {status}\n") if status else ""


async def run_rows(rows, arguments, packages):
    """Runs the rows, the longest first, and prints the result of each. Returns the exit status."""
    starts = asyncio.Semaphore(STARTS_PER_CORE * (os.cpu_count() or 1))
    longest_first = sorted(rows, key=lambda row: -row.limit)
    return await run_all(longest_first, lambda row: run_row(row, arguments, packages, starts), arguments)


def main():
    arguments = parse_arguments()
    rows = chosen_rows(arguments.names, arguments.opkg, arguments.tap)
    arguments.solver = solver_of(arguments.opkg)
    if arguments.list:
        for row in rows:
            print(f"{row.area:10} {row.name:40} {row.fault}")
        return 0
    with tempfile.TemporaryDirectory() as packages:
        # The firmware is three blocks, the last one not full.
        subprocess.run([PROJECT / "sandbox/packages", "--faulty", "--firmware-size", "2500", packages], check=True)
        (pathlib.Path(packages) / "pid").write_text("9999999")  # no process has this id; read-only on the machine
        return asyncio.run(run_rows(rows, arguments, packages))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
