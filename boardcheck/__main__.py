"""The command scripts/check-board: asks a board what the program will ask, and says which requirements it meets."""

from rehearsal.interrupt import end_without_traceback

end_without_traceback()

import contextlib
import hashlib
import json
import os
import pathlib
import re
import sys
import textwrap
import time

PROJECT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(PROJECT), str(PROJECT / "tests/faults")]

from boardcheck import options, requirements
from boardcheck.judgement import MET, NOT_MET, NOT_SEEN, Judgement, goes_on, version_text, was_sent
from boardcheck.line import Line, Tap
from rehearsal import host
from rehearsal.host import HostError, Interrupt, ended_by_signals
from rehearsal.options import WRONG_USE, WrongUse, shown
from rehearsal.progress import Progress

FIT, NOT_FIT, INTERRUPTED = 0, 1, 130
PROGRAM_END_S = 15  # longer than the program waits for a silent board in a transfer
WAITING_S = 3  # after a reply, until the program is known to wait on
TRY_S = 5  # for each query to a new application
FEW_REPLIES = 3  # that may come after a frame
LEAST_TRIES = 2  # however long a machine takes to start: what is left of the transfer may spoil the first
MACHINE_S = 120  # for the start of the simulated machine, and for its end by itself
MOST_REMARKS = 8
BLOCK = re.compile(r"block (\d+) of (\d+),")


def main():
    sys.stdout.reconfigure(errors="backslashreplace")
    try:
        given = options.parse(sys.argv[1:])
        with ended_by_signals():
            options.check(given)
            return check(given)
    except WrongUse as error:
        return options.say_wrong(error)
    except HostError as error:
        print(f"check-board: {shown(error)}", file=sys.stderr)
        return WRONG_USE
    except Interrupt:
        print("\ncheck-board: ended", file=sys.stderr)
        return INTERRUPTED


def check(given):
    given.build = given.build.resolve()
    rows = requirements.load()
    firmware = firmware_facts(given.firmware)
    stream = sys.stderr if given.json else sys.stdout
    print(intention(given), file=stream, flush=True)
    started = time.time()
    with options.device(given.device), work_folder() as folder, \
            Tap(given.build, given.device, given.recording, folder) as tap:
        asked = Check(given, tap, folder, Progress(stream), Judgement(rows))
        asked.run()
    facts = facts_of(given, firmware, rows, asked, started)
    if given.json:
        print(json.dumps(facts, indent=2))
    else:
        print_table(facts)
    return FIT if facts["fit"] else NOT_FIT


def intention(given):
    if not given.firmware:
        return (f"Asks the board at {shown(given.device)} for its version and for handshakes. Nothing on the board is changed; "
                "the transfer is not seen without --firmware.")
    return (f"REPLACES THE FIRMWARE of the board at {shown(given.device)} with {shown(given.firmware)} "
            f"({given.firmware.stat().st_size} bytes).")


def firmware_facts(path):
    """As it is before the check."""
    if not path:
        return None
    with open(path, "rb") as file:
        return {"file": str(path), "size": os.fstat(file.fileno()).st_size,
                "sha256": hashlib.file_digest(file, "sha256").hexdigest()}


@contextlib.contextmanager
def work_folder():
    folder = host.work_folder("check-board")
    try:
        yield folder
    finally:
        host.remove(folder)


class Check:
    """One check, in the order of the program."""

    def __init__(self, given, tap, folder, progress, judgement):
        self.exchanges = []
        self.judgement = judgement
        self.versions = ["", ""]  # before the transfer and after it
        self._given = given
        self._tap = tap
        self._progress = progress
        self._line = Line(given.build, tap, given.firmware, folder, self._show)
        self._block = ""

    def run(self):
        try:
            self._ask()
        finally:
            self._progress.clear()

    def _ask(self):
        """Asks all, then judges: the last events come when the tap has ended."""
        version = self._call("version query", "version", patience=self._until_reply)
        handshakes, transfer, again = None, None, []
        if goes_on(version) and not self._tap.has_gone:
            handshakes = self._call("handshakes", "handshake-v3", "handshake-v4", patience=self._until_end)
            if self._given.firmware and not self._tap.has_gone:
                transfer = self._call("start command", "start-command", "transfer", patience=self._until_sent)
                again = list(self._ask_again()) if was_sent(transfer) else []
        self._tap.end()
        self._line.settle()

        judge = self.judgement
        judge.line(self.exchanges)
        judge.version(version)
        if handshakes:
            judge.handshakes(handshakes)
        before, after = version_text(version) or "", next(filter(None, map(version_text, again)), "")
        self.versions = [before, after]
        if transfer:
            judge.start(transfer)
            if judge.transfer(transfer) and again and not self._tap.has_gone:
                judge.application(before, after)

    def _ask_again(self):
        """The new application needs time to start, and a query that comes before is lost."""
        until, tries, text = time.monotonic() + self._given.limit, 0, None
        while not text and not self._tap.has_gone and (tries < LEAST_TRIES or time.monotonic() < until):
            exchange = self._call("new application", "version", patience=self._for_a_try)
            text, tries = exchange.results.get("version"), tries + 1
            yield exchange

    def _call(self, what, *names, patience):
        self._progress.say(what)
        self.exchanges.append(self._line.call(*names, patience=lambda events: patience(events) if events else ("", MACHINE_S)))
        return self.exchanges[-1]

    def _for_a_try(self, events):
        return self._heard(events), TRY_S

    def _until_reply(self, events):
        replied = any(event.mark == "<-" for event in events)
        return self._heard(events), WAITING_S if replied else self._given.limit

    def _heard(self, events):
        """A sign of the board, unless it talks without an end."""
        return len(events) if events[-1].seconds - events[0].seconds < self._given.limit else 0

    def _until_end(self, _):
        return 0, PROGRAM_END_S

    def _until_sent(self, events):
        """A board that talks without an end is given up. When it is silent after its replies, the program ends by itself,
        on a busy host late."""
        replies = 0
        for event in events:
            replies = 0 if is_new_frame(event) else replies + (event.mark == "<-")
        frames = sum(map(is_new_frame, events))
        talks = replies >= FEW_REPLIES
        return (frames, min(replies, FEW_REPLIES)), PROGRAM_END_S + self._given.limit if talks else MACHINE_S

    def _show(self, events):
        block = next(filter(None, (BLOCK.match(event.meaning) for event in reversed(events))), None)
        if block and block[0] != self._block:
            self._block = block[0]
            self._progress.transfer(int(block[1]), int(block[2]))
        self._progress.tick()


def is_new_frame(event):
    return event.mark == "->" and not event.meaning.startswith("further")


def facts_of(given, firmware, rows, asked, started):
    sections = requirements.sections()
    findings = asked.judgement.findings
    told = [{"name": row.name, "step": row.step, "needed": row.needed, "status": findings[row.name].status,
             "seen": findings[row.name].seen, "must": row.must, "otherwise": row.otherwise,
             "failures": [{"row": name, "page": f"docs/{sections[name]}"} for name in row.rows]} for row in rows]
    remarks = [f"{event.seconds:.3f} s, {event.meaning}: {fault}" for exchange in asked.exchanges
               for event in exchange.events for fault in event.violations]
    return {
        "fit": not any(one["needed"] and one["status"] == NOT_MET for one in told),
        "device": given.device, "firmware": firmware,
        "version": {"before": asked.versions[0], "after": asked.versions[1]},
        "requirements": told, "malformed": remarks, "recording": str(given.recording),
        "seconds": round(time.time() - started, 1)}


def print_table(facts):
    step = ""
    for one in facts["requirements"]:
        if one["step"] != step:
            step = one["step"]
            print(f"\n{step}")
        mark = {NOT_MET: "NOT MET", NOT_SEEN: "not seen"}.get(one["status"], one["status"])
        print(f"  {mark:9}{one['name']:19}{shown(one['seen'])}".rstrip())
        if one["status"] == NOT_MET:
            print_text("the board must", one["must"])
            print_text("otherwise", one["otherwise"] if one["needed"] else f"{one['otherwise']} Not needed for the update.")
            for page in dict.fromkeys(failure["page"] for failure in one["failures"]):
                named = ", ".join(failure["row"] for failure in one["failures"] if failure["page"] == page)
                print_text("failures", f"{page}, rows {named}")
    if facts["malformed"]:
        print("\nmalformed, whether it matters or not")
        for remark in facts["malformed"][:MOST_REMARKS]:
            print(f"  {shown(remark)}")
        if len(facts["malformed"]) > MOST_REMARKS:
            print(f"  and {len(facts['malformed']) - MOST_REMARKS} more")
    print(f"\n{verdict(facts)}")
    status = {one["name"]: one["status"] for one in facts["requirements"]}
    if status["request"] == MET and status["application"] != MET:
        print("  The board may have only a part of its firmware: switch it off and on, and repeat this with --firmware.")
    print(f"  recording: {shown(facts['recording'])}")


def print_text(name, text):
    print(textwrap.fill(text, 118, initial_indent=f"{'':11}{name}: ", subsequent_indent=" " * 13, break_on_hyphens=False,
                        break_long_words=False))


def verdict(facts):
    if not facts["fit"]:
        broken = [one for one in facts["requirements"] if one["needed"] and one["status"] == NOT_MET]
        if broken[0]["name"] == "version-reply":
            return "NOT FIT: the board is silent. Check its cable, its power and the device."
        return f"NOT FIT: {', '.join(one['name'] for one in broken)}"
    if not facts["firmware"]:
        return "FIT as far as seen: the transfer needs --firmware"
    return "FIT"


if __name__ == "__main__":
    sys.exit(main())
