"""The command scripts/explain, also the one of the copy that is one file."""

import argparse
import json
import os
import signal
import sys


def main():
    try:
        return run()
    except KeyboardInterrupt:
        return 130
    except BrokenPipeError:  # whoever reads the report has gone
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 128 + signal.SIGPIPE


EPILOG = """\
The last run of the program on the console gives the verdict; earlier runs get a line each. The console may be cut
off at either end, have time stamps, escape sequences, and the lines of others in between.

exit status:
  0    the update was good
  1    it failed, it did not come to an end, or the console does not tell
  2    no line of the program is in the text, or it cannot be read, or the command line is wrong
  130  ended by Ctrl-C

--json prints an object. Names may be added to it; "format" is 1 until one changes its meaning or goes:
  format, verdict ("good", "failed", "undecided", "unknown"), status (the exit status), dropped_runs (of which
  only the number is known), and runs, the last one last. A run has
  verdict, first_line, last_line, ended_at, steps (texts),
  screens (name, colour, tips, success: what the screen shows after one of the causes),
  may_go_on (the update, when the console is cut off at its end),
  cause_is_known, causes, the likely first: screen (its name), do, good (nothing is wrong then), and
    faults (fault, why, steps, rows),
  others (text, line, faults, do: what the causes do not explain),
  unknown (line, times, text: messages that nobody knows yet), more_unknown (how many more lines there are)

examples:
  scripts/explain console.log
  ssh machine journalctl -b | scripts/explain -
  scripts/explain --screen updated console.log
  scripts/explain --one-file explain    # then on the laptop: python3 explain console.log
"""


def parse_arguments(screens):
    parser = argparse.ArgumentParser(
        prog="explain", epilog=EPILOG, formatter_class=argparse.RawDescriptionHelpFormatter,
        description="Says what a console of the machine tells of an update: what was done, where it ended, "
        "what the screen shows, the known causes, and what to do.")
    parser.add_argument("file", metavar="FILE", nargs="?", help="what the console printed; - is the standard input")
    parser.add_argument("--json", action="store_true", help="print the same facts as JSON")
    parser.add_argument("--screen", choices=screens, metavar="NAME", help="what the screen shows, when that is known: "
                        + ", ".join(filter(None, screens)) + "; '' when there is none")
    parser.add_argument("--one-file", metavar="PATH", help="instead, write this command with all that it knows into "
                        "one file, which runs with Python 3.9 or later and without the project")
    arguments = parser.parse_args()
    if (arguments.file is None) == (arguments.one_file is None):
        parser.error("either a FILE or --one-file is needed")
    return arguments


def run():
    from explain import Knowledge, explain, report
    knowledge = Knowledge.load()
    arguments = parse_arguments([*knowledge.screens, ""])
    try:
        if arguments.one_file is not None:
            from explain.onefile import write
            write(knowledge, arguments.one_file)
            return 0
        if arguments.file == "-":
            explanation = explain(sys.stdin.buffer, knowledge, arguments.screen, progress())
        else:
            with open(arguments.file, "rb") as file:
                explanation = explain(file, knowledge, arguments.screen, progress())
    except OSError as error:
        print(f"explain: {printable(error.filename or arguments.file)}: {error.strerror}", file=sys.stderr)
        return 2
    if arguments.json:
        json.dump(explanation.facts(), sys.stdout, indent=1)
        print()
    else:
        sys.stdout.reconfigure(encoding="utf-8")
        sys.stdout.write(report(explanation))
    sys.stdout.flush()
    return explanation.status


def printable(text):
    return "".join(c if c.isprintable() else "?" for c in str(text))


def progress():
    """What shows on a terminal how much of a long input is read, None elsewhere."""
    if not sys.stderr.isatty():
        return None

    def show(size):
        if size % (16 << 20) < 1 << 20 and size > 16 << 20:
            print(f"\rexplain: {size >> 20} MiB read", end="\r", file=sys.stderr, flush=True)
    return show


if __name__ == "__main__":
    sys.exit(main())
