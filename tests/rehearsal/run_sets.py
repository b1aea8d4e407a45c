"""Rehearses the update sets of sets.toml in parallel, each on a simulated machine of its own, and compares findings and
verdicts."""

import argparse
import asyncio
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/support"))

import sets
from parallel import add_arguments, chosen, run_all

# A set mostly waits for the serial line; emulated programs need the processor.
MACHINES_PER_CORE = 2 if os.environ.get("UPDATE_ASSISTANT_EMULATOR") else 6
LIMIT_S = 20  # of --limit: longer than any wait of the program
LONGEST_S = 150


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    add_arguments(parser, "set", MACHINES_PER_CORE)
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/dev", help="build tree of the program")
    parser.add_argument("--keep", type=pathlib.Path, metavar="DIR", help="keep the sets and their reports in DIR")
    return parser.parse_args()


async def rehearse(row, arguments, folder):
    """Returns the title of the set, and a text with the differences from it (empty without any)."""
    title = f"{row.verdict:8} {row.name}"
    shutil.rmtree(folder / row.name, ignore_errors=True)  # of a run that the host held up
    built = row.build(folder / row.name)
    report = folder / row.name / "report"
    process = await asyncio.create_subprocess_exec(
        PROJECT / "scripts/rehearse", built.source, *built.arguments, "--build", arguments.build.resolve(),
        "--report", report, "--limit", str(LIMIT_S), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT)
    try:
        output, _ = await asyncio.wait_for(process.communicate(), LONGEST_S)
    except BaseException as error:
        if process.returncode is None:
            process.terminate()
        await process.wait()
        if not isinstance(error, TimeoutError):
            raise
        return title, f"it does not end within {LONGEST_S} s\n"
    found = list(differences(row, process.returncode, report))
    return title, "\n".join([*found, output.decode(errors="replace")]) if found else ""


def differences(row, status, report):
    try:
        facts = json.loads((report / "rehearsal.json").read_text(encoding="ascii"))
    except (OSError, ValueError) as error:
        yield f"no report: {error}"
        return
    if facts["verdict"] != row.verdict:
        yield f"the verdict: expected {row.verdict}, is {facts['verdict']}"
    missing, more = compared(row.findings, facts["findings"])
    yield from (f"missing: {finding}" for finding in missing)
    blamed = {one["package"] for one in more if one["level"] == "error"}
    if row.verdict == "failure" and facts["pictures"]:  # it ran
        expected = {package for level, package, _ in row.findings if level == "error"} or {""}
        expected = expected if row.at_fault is None else {row.at_fault}
        if not blamed or blamed - expected:
            yield f"the package at fault: expected {expected}, is {blamed}"
        more = [one for one in more if one["level"] != "error"]
    yield from (f"beside those expected: {one['level']}: {one['package']}: {one['text']}" for one in more)
    has_error = any(finding["level"] == "error" for finding in facts["findings"])
    if row.verdict == "failure" and not has_error:
        yield "no error finding names what failed"
    expected = 0 if row.verdict == "success" and not has_error else 1
    if status != expected:
        yield f"the exit status: expected {expected}, is {status}"


def compared(expected, found):
    """The expected findings that are not there, and those that are there beside them."""
    found, missing = list(found), []
    for level, package, text in expected:
        match = next((one for one in found if (one["level"], one["package"]) == (level, package) and text in one["text"]), None)
        if match:
            found.remove(match)
        else:
            missing.append((level, package, text))
    return missing, found


async def rehearse_all(rows, arguments, folder):
    """Prints the result of each set. Returns the exit status."""
    return await run_all(rows, lambda row: rehearse(row, arguments, folder), arguments)


def main():
    arguments = parse_arguments()
    rows = chosen(sets.load(), arguments.names)
    with tempfile.TemporaryDirectory(prefix="sets.", dir=os.environ.get("TMPDIR") or "/var/tmp") as folder:
        if arguments.keep:
            shutil.rmtree(arguments.keep, ignore_errors=True)
            arguments.keep.mkdir(parents=True)
        return asyncio.run(rehearse_all(rows, arguments, arguments.keep or pathlib.Path(folder)))


if __name__ == "__main__":
    try:
        sys.exit(main())
    except KeyboardInterrupt:
        sys.exit(130)
