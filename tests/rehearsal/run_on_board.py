"""Rehearses update sets on the emulated ARM board: with its own system, and with a root file system that is not ours.

    scripts/board-root && scripts/board-root --with-assistant
    python3 tests/rehearsal/run_on_board.py [ROW...]

It is no test of the CI: each row takes minutes.
"""

import json
import pathlib
import subprocess
import sys

PROJECT = pathlib.Path(__file__).resolve().parents[2]
RESULTS = PROJECT / "build/on-board"
ROOTS = PROJECT / "build/board-root"
INSTALLED = ["installed"] * 4

# name: folder below the example packages, root file system, further options, exit status, verdict, statuses of the packages
ROWS = {
    "own-system": ("good", None, [], 0, "success", INSTALLED),
    "previous-release": ("good", None, ["--installed", "downgrade"], 0, "success", INSTALLED),
    "failing-script": ("failing", None, [], 1, "failure", ["failed"]),
    "cut-short": ("broken", None, [], 1, "failure", ["failed"]),
    "silent-board": ("good", None, ["--fault", "silent@version", "--limit", "60"], 1, "failure", INSTALLED),
    "no-board": ("good", None, ["--no-board"], 1, "failure", INSTALLED),
    "debian": ("good", "debian.tar", [], 0, "success", INSTALLED),
    "debian-with-assistant": ("good", "debian-with-assistant.tar", [], 0, "success", INSTALLED),
    "debian-failing-script": ("failing", "debian.tar", [], 1, "failure", ["failed"]),
}


def rehearse(name, folder, root, options, packages):
    options = [packages / option if option == "downgrade" else option for option in options]
    if root:
        options += ["--root", ROOTS / root]
    results = RESULTS / name
    results.mkdir(parents=True, exist_ok=True)
    with open(results / "output", "wb") as output:
        call = subprocess.run(
            list(map(str, [PROJECT / "scripts/rehearse", packages / folder, "--on", "board", "--report", results, *options])),
            stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT, check=False)
    try:
        return call.returncode, json.loads((results / "rehearsal.json").read_text(encoding="utf-8"))
    except (OSError, ValueError):
        return call.returncode, {"verdict": None, "packages": []}


def main(names):
    packages = RESULTS / "packages"
    if not packages.exists():
        subprocess.run([PROJECT / "sandbox/packages", packages], check=True)
    failures = 0
    for name in names or ROWS:
        folder, root, options, *expected = ROWS[name]
        status, facts = rehearse(name, folder, root, options, packages)
        found = [status, facts["verdict"], [package["status"] for package in facts["packages"]]]
        print(f"{'ok' if found == expected else 'FAILED':7} {name}"
              + ("" if found == expected else f": {found}, see {RESULTS / name}"), flush=True)
        failures += found != expected
    print(f"{len(names or ROWS) - failures} passed, {failures} failed")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
