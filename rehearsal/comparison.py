"""Compares what happened with what should have, and fills the facts of the report."""

import dataclasses
import datetime
import json
import os
import pathlib
import platform
import re
import shutil
import subprocess

from explain import Knowledge, explain

from . import console
from .options import given as given_options
from .options import shown

PROJECT = pathlib.Path(__file__).resolve().parents[1]
MOST_CAUSES = 6
NOT_EXTRACTED = "Warning when extracting archive entry"
MANAGER = (" * ", "Warning ", "Not ")  # how its messages begin
MOST_ROWS = 40
LONGEST_TEXT = 300
SIZE_OF_RECORDS = 16 << 20



@dataclasses.dataclass(frozen=True)
class Outcome:
    """What the update ended with, when it was no success: words of the finding, and what to change."""

    text: str
    do: str
    row: str = ""  # of the fault table, if the console cannot tell it
    seen: str = ""


NO_SIGN = "Look for what keeps the control board from its replies."
OUTCOMES = {
    "package failed": Outcome("{file} is not installed: the package manager ended with {status}, and the update ended there.",
                              "Correct the package. The console says what the package manager did not like."),
    "program ended": Outcome("The program ended ({ending}) while the rehearsal waited for {awaited}.",
                             "Look for what ends the program: a script must not.", seen="There is no screen any more."),
    "machine ended": Outcome("Everything that ran on the machine was ended while {during}.",
                             "Look for what ends the program: a script must not.", seen="There is no screen any more."),
    "limit": Outcome("The update was given up: {awaited} did not come within {limit} s.",
                     "Let no script wait for ever. If it only is slow, use --limit.", row="installer-never-ends"),
    "idle": Outcome("The program has found no package to install, and waits for its button.",
                    "Put packages into the folder, with names that end in .ipk."),
    "no package": Outcome("The program has found no package on the stick.",
                          "Put packages into the folder update_ipk of the stick, with names that end in .ipk."),
    "board failed": Outcome("The update of the control board failed.", "Look at the transcript of the serial line."),
    "no board": Outcome("The serial line of the control board does not open. The program shows neither success nor failure.",
                        NO_SIGN),
    "board waits": Outcome("All packages are installed, but then nothing came for {board_limit:.0f} s: the program waits for "
                           "the control board.", NO_SIGN),
}
# Screens of the fault table, by the colour of the tips and whether the large success text is there.
SCREENS = {("green", True): ["updated"], ("green", False): ["board updated"], ("yellow", False): ["no package"],
           ("white", False): ["installing"], ("", False): ["idle"], ("red", False): ["package failed", "board failed"]}


def first_facts(given, inspection, started):
    """What is known before anything runs."""
    firmware = inspection.firmware
    return {
        "format": 1,
        "verdict": "failure",
        "findings": [finding_of(finding) for finding in inspection.findings],
        "order": list(inspection.order),
        "packages": [{"file": package.file, "name": package.name, "version": package.version, "previous": "",
                      "status": "not tried", "architecture": package.architecture, "size": package.size,
                      "installed_size": package.installed_size, "seconds": None} for package in inspection.packages],
        "firmware": firmware and {"package": firmware.package, "size": firmware.size,
                                  "seconds": round(firmware.seconds, 1), "blocks": firmware.blocks},
        "source": str(given.folder),
        "kind": "stick" if given.stick else inspection.kind,
        "options": given_options(given),
        "started": datetime.datetime.fromtimestamp(started, datetime.timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ"),
        "seconds": None, "cause": None, "pictures": [], "timeline": [], "console": [], "transcript": [],
        "versions": versions_of(given),
    }


def finding_of(finding):
    return {name: getattr(finding, name) for name in ("level", "package", "text", "do")}


def compare(facts, run, machine, given, inspection):
    """Adds to the facts what the run showed."""
    Comparison(facts, run, machine, given, inspection).fill()


class Comparison:
    def __init__(self, facts, run, machine, given, inspection):
        self.facts = facts
        self.run = run
        self.machine = machine
        self.given = given
        self.inspection = inspection
        self.knowledge = Knowledge.load()
        self.end = run.end or {"outcome": "machine ended", "results": results_of(run), "before": {}, "after": {},
                               "tips": last_tips(run), "success": False, "awaited": "", "status": None}
        self.records = records_of(machine)
        self.files = {*inspection.order, *(finding.package for finding in inspection.findings)} - {""}
        self.reading = console.Reading()
        self.explanation = None
        self.errors = []

    def fill(self):
        facts, machine = self.facts, self.machine
        failed = self.run.all("previous failed")
        if failed:
            self.tell_previous(failed[0])
            return
        log = machine.text("program.log")
        if log:
            self.reading = console.read(log, self.knowledge)
            log.seek(0)
            self.explanation = self.explained(log)
        facts["console"] = self.reading.lines
        facts["transcript"] = console.kept_lines(machine.text("board.log"))
        facts["pictures"] = self.pictures()
        self.fill_packages()
        self.fill_firmware()
        for staging in self.run.all("staging failed"):
            self.error("", f"The packages cannot be copied to /tmp/ota: {staging['text'][:LONGEST_TEXT].strip()}",
                       "Make the packages smaller, or leave more room in /tmp.")
        for difference in self.differences():
            if difference[0] not in {file for file, _, _ in self.errors}:  # one is enough
                self.errors.append(difference)
                self.error(*difference)
        facts["verdict"] = "failure" if self.errors or self.run.all("staging failed") else "success"
        self.add_warnings()

    def error(self, package, text, do):
        self.facts["findings"].append({"level": "error", "package": package, "text": text, "do": do})

    def tell_previous(self, event):
        self.facts["console"] = console.kept_lines(self.machine.text("previous.log"))
        ending = f"ended with {ending_of_call(event['status'])}" if event["status"] is not None else "did not end"
        self.error(event["file"], f"The previous release cannot be installed: the package manager {ending} at "
                   f"{shown(event['file'])}. The update was not run.", "Let --installed name the packages of a release that "
                   "can be installed, in the order of their names.")

    # ------------------------------------------------------------------ the tables

    def pictures(self):
        there = []
        for event in self.run.all("picture"):
            file = f"pictures/{event['name']}.png"
            picture = self.machine.file(file)
            if picture:
                picture.close()
                there.append({"name": event["name"], "title": event["title"], "at": event["at"], "file": file})
        return there

    def fill_packages(self):
        before = self.end["before"]
        results = {self.file_at(index): status for status, index in self.end["results"]}
        for package in self.facts["packages"]:
            package["previous"] = version_of(before, package["name"])
            if package["name"]:
                before = before | {package["name"]: f"installed {package['version']}"}  # for another file of that name
            result = results.get(package["file"])
            if result is not None:
                package["status"] = "failed" if result else "installed"
            elif package["file"] == self.current():
                package["status"] = "failed"
            record = self.record_of(package["file"])
            if record:
                package["seconds"] = round(record["to"] - record["from"], 3)

    def record_of(self, file):
        return next((record for record in self.records if record["arguments"][-1:] == [f"/tmp/ota/{file}"]), None)

    def current(self):
        """The file that was being installed when the update broke off; empty when none was."""
        return self.file_at(len(self.end["results"])) if self.end["outcome"] in ("limit", "program ended", "machine ended") else ""

    def fill_firmware(self):
        """Firmware that a script writes is seen only now."""
        there = self.end.get("firmware")
        if self.facts["firmware"] or not there:
            return
        from .inspection import program
        package, watched = "", None
        for record in self.records:
            if record["watched"] != watched and record["watched"]:
                package = os.path.basename(record["arguments"][-1])
            watched = record["watched"]
        self.facts["firmware"] = {"package": package, "size": there["size"], "blocks": program.blocks(there["size"]),
                                  "seconds": round(program.transfer_time(there["size"]), 1)}

    # ------------------------------------------------------------------ the differences

    def differences(self):
        """Yields package, text and remedy of what is not as it should be."""
        if self.end["outcome"] != "success":
            yield self.failure()
            return
        yield from self.database_differences()
        for _, package, script, status in self.reading.scripts:
            yield (self.file_of(package), f"The {script} of {shown(package)} ended with status {status}.",
                   "Let each script end with status 0 unless the update must stop.")
        for index in range(len(self.inspection.packages)):
            lost = [text for text in self.reading.texts(index) if text.startswith(NOT_EXTRACTED)]
            if lost:
                yield (self.file_at(index), f"Not everything of {shown(self.file_at(index))} is on the machine, although its "
                       f"installation succeeded: {shown(lost[0])}", "Look at the entry of the archive, and at the room on the disk.")
        yield from self.firmware_differences()
        yield from self.console_differences()
        if self.end.get("board_status") == 1:
            violations = "; ".join(one["text"] for one in self.end.get("violations", [])[:3])
            yield "", f"The control board got what it does not know: {shown(violations)}.", ""

    def database_differences(self):
        expected = {name: (state, "") for name, state in self.end["before"].items()}
        expected |= {package.name: (f"installed {package.version}", package.file) for package in self.inspection.packages
                     if package.name}
        after = self.end["after"]
        for name, (state, file) in expected.items():
            if after.get(name) != state:
                yield (file, f"After the update, the package database has {shown(name)} {after.get(name, 'not at all')}. It should "
                       f"have it {shown(state)}.", "Look for what removes or replaces it: a script, or another package.")
        for name in after.keys() - expected.keys():
            yield "", f"After the update, the package database has {shown(name)}, which no package brings.", ""

    def firmware_differences(self):
        received, expected = self.end.get("received"), self.end.get("firmware")
        packaged = self.inspection.firmware
        if self.end.get("transfer") is None:
            return
        package = self.facts["firmware"]["package"] if self.facts["firmware"] else ""
        if not received:
            yield package, "The screen shows a success, but the control board has not received its firmware as a whole.", \
                self.remedy()
        elif packaged and received["sha256"] != packaged.sha256:
            yield (package, f"The control board has {received['size']} bytes of firmware. They are not the {packaged.size} bytes in "
                   f"{shown(package)}.", "Look for a script that changes the firmware, and for its room on the disk.")
        elif expected and received["sha256"] != expected["sha256"]:
            yield package, "The control board has other firmware than what was in /root/mcu.", self.remedy()

    def console_differences(self):
        """Faults that the console tells of although the screen is green."""
        run = self.last_run()
        if not run:
            return
        if run["causes"] and run["cause_is_known"] and not any(cause["good"] for cause in run["causes"]):
            self.facts["cause"] = self.cause()
            if not self.errors:
                yield "", f"The screen shows the success, but the console tells of a fault: {self.why()}.", self.remedy()
        for other in run["others"]:
            yield (self.blamed(other["text"]), f"The console tells of a fault, \"{shown(other['text'])}\": "
                   f"{'; or '.join(other['faults'])}.", other["do"])

    def blamed(self, text):
        """The package during whose installation the console has a text of the package manager."""
        words = " ".join(text.split()[:2])
        for index, texts in self.reading.unusual.items():
            if any(" ".join(one.split()).startswith(words) and one.startswith(MANAGER) for one, _ in texts):
                return self.file_at(index)
        return ""

    def failure(self):
        end, file = self.end, self.at_fault()
        self.facts["cause"] = self.cause()
        texts = {
            "file": shown(file) or "A package", "awaited": shown(end["awaited"]), "board_limit": self.run.plan["board_limit"],
            "status": ending_of(next((status for status, _ in end["results"] if status), 0)),
            "ending": ending_of_call(end["status"]),
            "limit": self.run.plan["limits"].get(file, self.run.plan["limit"]),
            "during": f"{shown(file)} was being installed" if file else "the update went on",
        }
        outcome = OUTCOMES[end["outcome"]]
        text = outcome.text.format(**texts)
        script = next((one for one in self.reading.scripts if self.file_of(one[1]) == file), None)
        if script:
            text += f" Its {script[2]} ended with status {script[3]}."
        elif end["outcome"] == "package failed":
            said = "; ".join(shown(text)[:LONGEST_TEXT] for text in self.reading.texts(len(end["results"]) - 1))
            text += f" The console says: {said}" if said else ""
        elif end["outcome"] == "board failed" and self.why():
            text += f" The failure manual knows: {self.why()}."
        return file, text, self.remedy() if end["outcome"] == "board failed" and self.remedy() else outcome.do

    def at_fault(self):
        end = self.end
        failed = next((index for status, index in end["results"] if status), None)
        if failed is not None:
            other = next((self.file_of(package) for index, package, _, _ in self.reading.scripts if index == failed), "")
            return other or self.file_at(failed)
        if end["outcome"] == "board failed" and self.facts["firmware"] and not self.given.faults:
            return self.facts["firmware"]["package"]
        return self.current()

    def file_at(self, index):
        """The file that the program installed at this place; empty if it is none of those that were found before."""
        if index < len(self.records):
            called = os.path.basename(self.records[index]["arguments"][-1])
            if called in self.files:
                return called
        order = self.inspection.order
        return order[index] if index < len(order) else ""

    def file_of(self, name):
        """The file with the package of this name."""
        return next((package.file for package in self.inspection.packages if package.name == name), "")

    # ------------------------------------------------------------------ the failure manual

    def explained(self, log):
        names = SCREENS.get((self.end["tips"], self.end["success"]), [None])
        if self.end["tips"] == "red":
            names = ["package failed" if any(status for status, _ in self.end["results"]) else "board failed"]
        if self.end["outcome"] in ("program ended", "machine ended"):
            names = [None]
        return explain(log, self.knowledge, names[0])

    def last_run(self):
        runs = self.explanation.facts()["runs"] if self.explanation else []
        return runs[-1] if runs else None

    def first_cause(self):
        """The likely cause: one that is a fault."""
        run = self.last_run()
        causes = run["causes"] if run else []
        return next((cause for cause in causes if not cause["good"]), None)

    def why(self):
        cause = self.first_cause()
        return "; or ".join(fault["fault"] for fault in cause["faults"][:MOST_CAUSES]) if cause else ""

    def remedy(self):
        cause = self.first_cause()
        return cause["do"] if cause else ""

    def cause(self):
        run, cause = self.last_run(), self.first_cause()
        outcome = OUTCOMES.get(self.end["outcome"])
        row = next((row for row in self.knowledge.rows if outcome and row.name == outcome.row), None)
        if row:
            return {"seen": f"{self.on_screen(row.screen)} {self.ended_at(run)}", "why": with_reason(row.fault, row.why),
                    "do": self.knowledge.advice[row.advice], "rows": [row.name]}
        if not run or not cause:
            return None
        seen = outcome and outcome.seen or self.on_screen(cause["screen"])
        known = "" if run["cause_is_known"] else "The console does not show a cause that is known. These end in the same way: "
        faults = cause["faults"][:MOST_CAUSES]
        why = "; or ".join(with_reason(fault["fault"], fault["why"]) for fault in faults)
        more = len(cause["faults"]) - len(faults)
        return {"seen": f"{seen} {self.ended_at(run)}",
                "why": known + why + (f"; and {more} more" if more > 0 else ""), "do": cause["do"],
                "rows": [row for fault in faults for row in fault["rows"]][:MOST_ROWS]}

    def on_screen(self, name):
        tips = [tip for tip in self.knowledge.screens.get(name, {}).get("tips", []) if tip]
        return f'The screen shows "{tips[0]}".' if tips else "The screen shows no text."

    def ended_at(self, run):
        return f"The update ended at: {run['ended_at']}." if run else ""

    def add_warnings(self):
        """Text that no good update has printed: it may be nothing, but somebody should have read it."""
        blamed = {finding["package"] for finding in self.facts["findings"][len(self.inspection.findings):]}
        ended = len(self.end["results"]) - 1 if self.end["outcome"] == "package failed" else None
        for index, unusual in self.reading.unusual.items():
            if index == ended:
                continue  # the finding of the failure has it
            is_good = self.facts["verdict"] == "success"
            texts = [text for text, is_known in unusual if is_good or not is_known]
            file = self.file_at(index)
            if texts and file not in blamed:
                said = "; ".join(shown(text)[:LONGEST_TEXT] for text in texts)
                self.facts["findings"].append({
                    "level": "warning", "package": file, "text": "The console shows what the program has not been seen to print "
                    f"in a good update{f', while {shown(file)} is installed' if file else ''}: {said}",
                    "do": "Read it. Let scripts print nothing when all is well."})


def with_reason(fault, why):
    return f"{fault} ({why})" if why else fault


def results_of(run):
    return [[event["status"], event["index"]] for event in run.all("result")]


def last_tips(run):
    screens = run.all("screen")
    return screens[-1]["tips"] if screens else ""


def records_of(machine):
    """The calls of the package manager by the program."""
    file = machine.file("records.jsonl")
    if not file:
        return []
    with file:
        lines = file.read(SIZE_OF_RECORDS).splitlines()
    records = []
    for line in lines:
        try:
            record = json.loads(line)
            record["from"] + record["to"], record["watched"], record["arguments"][-1] + ""
        except (ValueError, TypeError, KeyError, IndexError):
            continue  # a script wrote it
        records.append(record)
    return records


def version_of(states, name):
    return states.get(name, "").partition(" ")[2]


def ending_of(status):
    """A status as the program prints it."""
    return f"exit status {status >> 8}" if status & 127 == 0 else f"signal {status & 127}"


def ending_of_call(status):
    """A status as Python has it."""
    if status is None:
        return "its status is not known"
    return f"signal {-status}" if status < 0 else f"exit status {status}"


# ---------------------------------------------------------------------- versions

def versions_of(given):
    return [{"name": name, "version": version} for name, version in _versions(given) if version]


def _versions(given):
    project = re.search(r"^ *VERSION ([\d.]+)", (PROJECT / "CMakeLists.txt").read_text(encoding="utf-8"), re.MULTILINE)
    yield "Update Assistant", project[1] if project else ""
    yield "commit", output("git", "-c", "safe.directory=*", "-C", PROJECT, "describe", "--always", "--dirty")
    if given.opkg == "real":
        yield "opkg", output(os.environ.get("OPKG", "opkg"), "--version")
    else:
        yield "opkg", "stand-in of the sandbox"
    program = (given.build / "src/update-assistant").read_bytes()
    qt = "libqt6core6" if b"libQt6Core.so.6" in program else "libqt5core5a"
    for name, package in (("Qt", qt), ("libarchive", "libarchive13"), ("C library", "libc6"),
                          ("shell", "dash"), ("bubblewrap", "bubblewrap")):
        yield name, output("dpkg-query", "--show", "--showformat=${Version}", package)
    yield "system", platform.freedesktop_os_release().get("PRETTY_NAME", "")
    yield "kernel", platform.release()
    yield "Python", platform.python_version()


def output(*command):
    if not shutil.which(command[0]):
        return ""
    call = subprocess.run(list(map(str, command)), stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                          errors="replace", check=False)
    return call.stdout.splitlines()[0].strip() if call.returncode == 0 and call.stdout else ""
