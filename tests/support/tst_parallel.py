"""The runner of tables: which rows run again."""

import argparse
import asyncio
import contextlib
import io
from unittest import mock

import parallel
from facts import same

HELD_UP_S = 0.5


def run(differences, pause):
    """Runs rows one at a time on a host that held each up for so long. `differences` has, by row, what each of its runs
    finds. Returns the exit status, the rows in the order of their runs, and what was printed."""
    order, left = [], {row: iter(found) for row, found in differences.items()}

    async def run_row(row):
        order.append(row)
        return row, next(left[row])

    arguments = argparse.Namespace(jobs=1, only_failures=False)
    with mock.patch.object(parallel.Heart, "longest_pause", return_value=pause), \
            contextlib.redirect_stdout(io.StringIO()) as said:
        status = asyncio.run(parallel.run_all(list(differences), run_row, arguments))
    return status, order, said.getvalue()


def heldUpRowRunsAgainAfterTheOthers(_):
    status, order, said = run({"one": ["late", ""], "two": [""]}, HELD_UP_S)
    same((0, "one"), (status, order[2]))
    same({"one", "two"}, set(order[:2]))
    assert "again  one: the host stood still for 0.5 s" in said and said.endswith("2 passed, 0 failed\n"), said


def rowThatKeepsDifferingFails(_):
    status, order, said = run({"one": ["late"] * parallel.RUNS}, HELD_UP_S)
    same((1, ["one"] * parallel.RUNS), (status, order))
    assert said.endswith("0 passed, 1 failed: one\n"), said


def rowThatDiffersOnACalmHostFailsAtOnce(_):
    status, order, said = run({"one": ["wrong"]}, 0)
    same((1, ["one"]), (status, order))
    assert "again" not in said and "       wrong" in said, said


def pauseOfTheHostIsSeen(_):
    """The clock says when the beats come."""
    heart = parallel.Heart()
    beats = iter([10, 10.03, 10.5, 10.53])
    with mock.patch.object(parallel.time, "monotonic", side_effect=beats), mock.patch.object(parallel.time, "sleep"), \
            contextlib.suppress(RuntimeError, StopIteration):
        heart.run()
    same((0.47, 0), (round(heart.longest_pause(10.1), 3), heart.longest_pause(10.5)))
