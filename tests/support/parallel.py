"""Runs the rows of a table in parallel and prints their results."""

import asyncio
import fnmatch
import os
import sys
import threading
import time

BEAT_S = 0.02
HELD_UP_S = 0.2  # between two beats; on a busy host they are up to 0.12 s apart
RUNS = 3  # of a row, when the host had no time for it, which says nothing about the row
AGAIN_PER_CORE = 2  # rows that run again


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


class Heart(threading.Thread):
    """Beats, to know for how long the host held up whatever runs on it."""

    def __init__(self):
        super().__init__(daemon=True)
        self._pauses = []  # those longer than HELD_UP_S: their ends and lengths in seconds

    def run(self):
        before = time.monotonic()
        while True:
            time.sleep(BEAT_S)
            now = time.monotonic()
            if now - before > HELD_UP_S:
                self._pauses.append((now, now - before))
            before = now

    def longest_pause(self, since):
        """In seconds; 0 without one that ended after `since`."""
        return max((length for end, length in self._pauses if end > since), default=0)


async def run_all(rows, run, arguments):
    """Runs the rows, arguments.jobs at a time, and prints the result of each as it comes; of those that pass, only
    their number with arguments.only_failures.

    run(row) returns the title of the row, and a text with the differences from it (empty without any). A row that
    differs when the host held it up runs again after all others: the times of the serial line were not kept. The exit
    status is 0 when no row differs, else 1.
    """
    heart = Heart()
    heart.start()

    async def timed(row, jobs):
        async with jobs:
            started = time.monotonic()
            title, found = await run(row)
            return row, title, found, time.monotonic() - started, heart.longest_pause(started)

    count, failed, at_a_time = len(rows), [], arguments.jobs
    for runs_left in reversed(range(RUNS)):
        again, jobs = [], asyncio.Semaphore(at_a_time)
        for done in asyncio.as_completed([timed(row, jobs) for row in rows]):
            row, title, found, seconds, pause = await done
            if found and pause and runs_left:
                print(f"again  {title}: the host stood still for {pause:.1f} s", flush=True)
                again.append(row)
                continue
            if found:
                failed.append(title)
            if found or not arguments.only_failures:
                print(f"{'FAIL' if found else 'ok  '} {seconds:5.1f} s  {title}", flush=True)
            for line in found.splitlines():
                print(f"       {line}")
        rows, at_a_time = again, min(arguments.jobs, AGAIN_PER_CORE * (os.cpu_count() or 1))
    print(f"{count - len(failed)} passed, {len(failed)} failed{': ' if failed else ''}{', '.join(failed)}")
    return 1 if failed else 0
