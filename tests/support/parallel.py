"""Runs the rows of a table in parallel and prints their results."""

import asyncio
import fnmatch
import os
import sys


def add_arguments(parser, row, per_core):
    """The arguments that every runner of a table has. Its rows are named `row`."""
    parser.add_argument("names", nargs="*", metavar=row.upper(), help=f"{row}s to run, with * for any text (default: all)")
    parser.add_argument("--jobs", type=int, default=per_core * (os.cpu_count() or 1),
                        help=f"number of {row}s that run at a time (default: %(default)s)")
    parser.add_argument("--only-failures", action="store_true", help=f"print no line for a {row} that passes")


def chosen(rows, names):
    """The rows that the names fit, or all without names. Exits when there is none."""
    found = [row for row in rows if not names or any(fnmatch.fnmatchcase(row.name, name) for name in names)]
    return found or sys.exit(f"there is no {' or '.join(names) or 'row'} in the table")


async def run_all(runs, only_failures=False):
    """Awaits the coroutines and prints the result of each as it comes; of the others, only their number.

    Each returns the title of its row, a text with the differences from it (empty without any), and the seconds
    it took. The exit status is 0 when no row differs, else 1.
    """
    running = [asyncio.create_task(run) for run in runs]
    failed = []
    for done in asyncio.as_completed(running):
        title, found, seconds = await done
        if found:
            failed.append(title)
        if found or not only_failures:
            print(f"{'FAIL' if found else 'ok  '} {seconds:5.1f} s  {title}", flush=True)
        for line in found.splitlines():
            print(f"       {line}")
    print(f"{len(running) - len(failed)} passed, {len(failed)} failed{': ' if failed else ''}{', '.join(failed)}")
    return 1 if failed else 0
