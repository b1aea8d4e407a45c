"""Runs one fact: run_fact.py SCRIPT FACT [PROGRAM]

A fact is a function of SCRIPT, and raises when it does not hold. With the update assistant of a build
tree it runs on the machine that sandbox/run makes, and gets a Machine; without, a folder of its own.
The exit status is 0 or 1, or 77 when the fact is skipped.
"""

import importlib
import pathlib
import sys
import tempfile
import traceback
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "sandbox"))

from machine import Machine


def run_on_machine(fact, program):
    with Machine(program.parents[1]) as machine:
        try:
            fact(machine)
        except BaseException:
            machine.show_what_happened()
            raise


def main(script, fact, program=None):
    sys.path.insert(0, str(pathlib.Path(script).parent))
    function = getattr(importlib.import_module(pathlib.Path(script).stem), fact)
    try:
        if program:
            run_on_machine(function, pathlib.Path(program))
        else:
            with tempfile.TemporaryDirectory(prefix="fact.", dir="/tmp") as folder:
                function(pathlib.Path(folder))
    except unittest.SkipTest as reason:
        print(f"skipped: {reason}")
        return 77
    except Exception:
        traceback.print_exc()
        return 1
    return 0


if __name__ == "__main__":
    if sys.argv[1:] == ["--help"] or len(sys.argv) not in (3, 4):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
