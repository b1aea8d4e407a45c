"""Runs the rows of a table in parallel and prints their results."""

import asyncio


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
