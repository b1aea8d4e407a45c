"""Makes the page of a recording; scripts/draw-recording calls it."""

from rehearsal.interrupt import end_without_traceback

end_without_traceback()

import argparse
import json
import pathlib
import subprocess
import sys

from . import page
from .events import event_of


class Fault(Exception):
    """What is wrong, as a sentence."""


def events_in(process):
    for number, line in enumerate(process.stdout):
        yield event_of(number, json.loads(line))


def draw(boardtap, recording):
    """The page as text. Raises Fault."""
    try:
        process = subprocess.Popen([boardtap, f"--read={recording}", "--events=-"], stdin=subprocess.DEVNULL,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    except (OSError, ValueError) as error:
        raise Fault(f"cannot run {boardtap}: {error}") from error
    with process:
        first = process.stdout.readline()
        text = page.as_html(recording.name, json.loads(first), events_in(process)) if first else ""
        told = process.stderr.read().decode(errors="replace").strip()
    # 1: something in the recording is malformed, which the page shows.
    if process.returncode not in (0, 1) or not first:
        raise Fault(told.removeprefix("boardtap: ") or f"{boardtap} ended with {process.returncode}")
    return text


def main():
    parser = argparse.ArgumentParser(prog="scripts/draw-recording", add_help=False)
    parser.add_argument("recording", type=pathlib.Path)
    parser.add_argument("page", type=pathlib.Path, nargs="?")
    parser.add_argument("--build", type=pathlib.Path, required=True)
    arguments = parser.parse_args()
    target = arguments.page or pathlib.Path(arguments.recording.name + ".html")
    try:
        if target.exists() and target.samefile(arguments.recording):
            raise Fault(f"{target} is the recording, which the page would replace")
        text = draw(arguments.build / "simulator/boardtap", arguments.recording)
        target.write_text(text, encoding="utf-8", errors="replace")
    except Fault as fault:
        print(f"draw-recording: {fault}", file=sys.stderr)
        return 2
    except OSError as error:
        print(f"draw-recording: cannot write {target}: {error.strerror}", file=sys.stderr)
        return 2
    print(target)
    return 0


if __name__ == "__main__":
    sys.exit(main())
