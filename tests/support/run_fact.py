"""Runs one fact, a function that raises when it does not hold.

With the program of a build tree it runs on the machine that sandbox/run makes, and gets a Machine;
without, a folder of its own. The exit status is 0 or 1, or 77 when the fact is skipped.
"""

import argparse
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


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("script", type=pathlib.Path)
    parser.add_argument("fact", help="name of the function in the script")
    parser.add_argument("program", type=pathlib.Path, nargs="?", help="update-assistant in a build tree")
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    sys.path.insert(0, str(arguments.script.parent))
    fact = getattr(importlib.import_module(arguments.script.stem), arguments.fact)
    try:
        if arguments.program:
            run_on_machine(fact, arguments.program)
        else:
            with tempfile.TemporaryDirectory(prefix="fact.", dir="/tmp") as folder:
                fact(pathlib.Path(folder))
    except unittest.SkipTest as reason:
        print(f"skipped: {reason}")
        return 77
    except Exception:
        traceback.print_exc()
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
