"""Runs the rows of the fault table in parallel, each on a simulated machine of its own."""

import argparse
import asyncio
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/support"))

import table
from parallel import add_arguments, chosen, run_all

# A row mostly waits for the serial line, so many machines run at a time; emulated programs need the processor.
MACHINES_PER_CORE = 4 if os.environ.get("UPDATE_ASSISTANT_EMULATOR") else 12
AGAIN_PER_CORE = 2  # machines whose row runs again
STARTS_PER_CORE = 2  # a start needs the processor; more of them would make the machines that run late
RUNS = 3  # of a row, when its machine stood still: the host had no time for it, which says nothing about the row
HELD_UP = 75  # the exit status of run_row.py for that
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


class Host:
    """What the rows share."""

    def __init__(self, rows, jobs):
        cores = os.cpu_count() or 1
        self.machines = asyncio.Semaphore(jobs)
        self.starts = asyncio.Semaphore(STARTS_PER_CORE * cores)
        self.again = asyncio.Semaphore(AGAIN_PER_CORE * cores)
        self.all_ran = asyncio.Event()
        self._left = rows

    def row_ran(self):
        self._left -= 1
        if not self._left:
            self.all_ran.set()


async def run_row(row, arguments, packages, host):
    """Returns the title of the row, a text with the differences from it (empty without any), and the seconds it took."""
    title = f"{row.area:10} {row.name}"
    async with host.machines:
        status, output, seconds = await run_machine(row, arguments, packages, host.starts)
    host.row_ran()
    for _ in range(RUNS - 1):
        if status != HELD_UP:
            break
        print(f"again  {title}: {output.splitlines()[-1]}", flush=True)
        await host.all_ran.wait()  # then the host has more time for it
        async with host.again:
            status, output, seconds = await run_machine(row, arguments, packages, host.starts)
    return title, (output or f"the machine ended with {status}\n") if status else "", seconds


async def run_machine(row, arguments, packages, starts):
    """Returns the exit status of the machine, its output, and the seconds it took."""
    build = arguments.build.resolve()
    state = []
    if arguments.keep:
        folder = arguments.keep / row.name.replace("/", "-")
        shutil.rmtree(folder, ignore_errors=True)  # from an earlier run
        state = ["--state", folder]
    await starts.acquire()
    started = time.monotonic()
    machine = await asyncio.create_subprocess_exec(
        PROJECT / "sandbox/run", *state, *row.machine, "--opkg", arguments.opkg, "--show", build, "--show", packages, "--",
        "/usr/bin/python3", "-B", PROJECT / "tests/faults/run_row.py", build, packages, row.name,
        *arguments.solver, *(["--tap"] if arguments.tap else []),
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    try:
        first = await machine.stdout.readline()
        starts.release()
        output = first.removeprefix(STARTED) + await machine.stdout.read()
        return await machine.wait(), output.decode(errors="replace"), time.monotonic() - started
    except asyncio.CancelledError:
        if machine.returncode is None:
            machine.kill()  # ends everything that runs on the machine
        await machine.communicate()
        raise


async def run_rows(rows, arguments, packages):
    """Runs the rows, the longest first, and prints the result of each. Returns the exit status."""
    host = Host(len(rows), arguments.jobs)
    longest_first = sorted(rows, key=lambda row: -row.limit)
    return await run_all([run_row(row, arguments, packages, host) for row in longest_first],
                         arguments.only_failures)


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
