"""Replays recordings of the serial line to the unchanged program, each on a simulated machine of its own."""

import argparse
import asyncio
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

FOLDER = pathlib.Path(__file__).resolve().parent
PROJECT = FOLDER.parents[1]


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("recordings", nargs="*", type=pathlib.Path, metavar="FILE",
                        help="recordings (default: every file *.recording in this folder)")
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/dev", help="default: build/dev")
    parser.add_argument("--pace", choices=("recorded", "fast"), default="recorded", help="default: recorded")
    parser.add_argument("--jobs", type=int, default=8 * (os.cpu_count() or 1),
                        help="number of machines that run at a time (default: %(default)s)")
    parser.add_argument("--keep", type=pathlib.Path, metavar="DIR", help="keep the state of each machine in DIR")
    return parser.parse_args()


async def replay(file, arguments, packages, machines):
    """Returns the file and a text that is empty when the program sent what is recorded."""
    build, file = arguments.build.resolve(), file.resolve()
    state = []
    if arguments.keep:
        shutil.rmtree(arguments.keep / file.stem, ignore_errors=True)  # from an earlier run
        state = ["--state", arguments.keep / file.stem]
    async with machines:
        machine = await asyncio.create_subprocess_exec(
            PROJECT / "sandbox/run", *state, "--show", build, "--show", packages, "--show", file, "--",
            "/usr/bin/python3", "-B", FOLDER / "replay_one.py", build, packages, file, arguments.pace,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        output, _ = await machine.communicate()
    found = output.decode(errors="replace") or f"the machine ended with {machine.returncode}\n"
    return file, found if machine.returncode else ""


async def replay_all(files, arguments, packages):
    """Prints the result of each. Returns the number of failures."""
    machines = asyncio.Semaphore(arguments.jobs)
    failed = 0
    for done in asyncio.as_completed([replay(file, arguments, packages, machines) for file in files]):
        file, found = await done
        failed += bool(found)
        print(f"{'FAIL' if found else 'ok  '} {file.stem}", flush=True)
        for line in found.splitlines():
            print(f"     {line}")
    return failed


def main():
    arguments = parse_arguments()
    files = arguments.recordings or sorted(FOLDER.glob("*.recording"))
    with tempfile.TemporaryDirectory() as packages:
        subprocess.run([PROJECT / "sandbox/packages", packages], check=True)
        failed = asyncio.run(replay_all(files, arguments, packages))
    print(f"{len(files) - failed} passed, {failed} failed")
    return 1 if failed or not files else 0


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
