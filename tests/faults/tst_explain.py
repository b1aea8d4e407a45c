"""What a console tells, by the rows of the fault table. The consoles are those of a run of the table."""

import json
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time

from facts import output, same

PROJECT = pathlib.Path(__file__).resolve().parents[2]
COMMAND = PROJECT / "scripts/explain"
STAMPS = ("2026-03-01T08:15:{:02}.250+01:00 ", "[{:5}.125000] ", "Mar  1 08:15:{:02} machine update-assistant[431]: ",
          "08:15:{:02} > ")
KERNEL_LINE = "[  131.204417] usb 1-1: new high-speed USB device number 4 using ci_hdrc"
BOOT_LOG = ["U-Boot 2018.03", "[    0.000000] Booting Linux on physical CPU 0x0",
            "[    1.120000] mmc0: error -110 whilst initialising SD card", "[  OK  ] Started Update.",
            "[FAILED] Failed to start Network Time Synchronization.", "machine login: root"]
TELLING = re.compile(r"\[(?:YModem|info|error|NAK|CA)\]|Filename: |Filesize: |ERROR: |qml: result: ")

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from explain import Knowledge, explain, report
from explain.explanation import PHASES

KNOWN = Knowledge.load()


def consoles():
    """(row, lines) of each row that leaves something on the console."""
    folder = pathlib.Path(os.environ["FAULT_MACHINES"])
    for row in KNOWN.rows:
        text = (folder / row.name.replace("/", "-") / "program.log").read_text(encoding="utf-8", errors="replace")
        lines = [line for line in text.splitlines() if not line.startswith("probe: ")]
        if lines:
            yield row, lines


def names(explanation):
    return [row.name for row in explanation.runs[-1].rows] if explanation.runs else []


def text_of(lines):
    return "".join(line + "\n" for line in lines)


def explained(lines):
    return explain(text_of(lines), KNOWN)


def check(failures):
    assert not failures, f"{len(failures)} consoles:\n" + "\n".join(failures)


def everyRowExplainsItsConsole(_folder):
    failures, alike = [], {}
    for row, lines in consoles():
        found = explained(lines)
        alike.setdefault(len(names(found)), []).append(row.name)
        if row.name not in names(found):
            failures.append(f"{row.name}: {found.verdict}, {names(found)[:4]}")
        if row.is_faultless and found.status != 0:
            failures.append(f"{row.name}: {found.verdict}")
        if row.advice not in ("done", "harmless") and row.name in names(found)[:1] and found.status != 1:
            failures.append(f"{row.name}: {found.verdict}")
    for count, rows in sorted(alike.items()):
        print(f"{len(rows)} rows, of which a console cannot tell {count} apart: {', '.join(rows[:3])}")
    check(failures)


def damages(lines):
    for number, stamp in enumerate(STAMPS):
        yield f"stamp {number}", text_of(stamp.format(10 + i % 50) + line for i, line in enumerate(lines))
    yield "line ends", "".join(line + "\r\n" for line in lines)
    yield "boot log", text_of(BOOT_LOG + lines)
    yield "escapes", text_of(f"\x1b]0;title\x07\x1b[1;32m{line[:9]}\x1b[0m{line[9:]}\x1b[K" for line in lines)
    yield "kernel lines", text_of(both for line in lines for both in (line, KERNEL_LINE))
    yield "lines cut by the kernel", text_of(
        f"{line[:7]}{KERNEL_LINE}\n{line[7:]}" if TELLING.match(line) else line for line in lines)
    yield "all", "".join(f"{STAMPS[0].format(7)}\x1b[33m{line}\x1b[m\r\n{KERNEL_LINE}\r\n" for line in BOOT_LOG + lines)


def damagedConsolesAreExplainedAlike(_folder):
    failures = []
    for row, lines in consoles():
        clean = explained(lines)
        for what, text in damages(lines):
            found = explain(text, KNOWN)
            if names(found) != names(clean) or found.verdict != clean.verdict:
                failures.append(f"{row.name}, {what}: {found.verdict}, {names(found)[:4]}")
    check(failures)


def cuts(row, lines):
    """Consoles whose beginning is lost, or whose end, but none of what tells the cause."""
    telling = [i for i, line in enumerate(lines) if TELLING.match(line) or any(text in line for text in row.also)]
    results = [i for i in telling if lines[i].startswith("qml: result: ")]
    if any(TELLING.match(lines[i]) for i in telling):
        yield "before the first line that tells", lines[telling[0]:]
        yield "in the line before", [lines[telling[0] - 1][5:], *lines[telling[0]:]]
        yield "after the last line that tells", lines[:telling[-1] + 1]
    if len(results) > 1 and not row.also:
        yield "before the last result", lines[results[-1]:]
    own = [i for i in telling if i > results[-1]] if results else []
    if len(own) > 3 and not row.also:
        yield "amid the control board's update", lines[own[len(own) // 2]:]


def consolesThatAreCutOffAreExplained(_folder):
    failures = []
    for row, lines in consoles():
        for what, rest in cuts(row, lines):
            found = explained(rest)
            if row.name not in names(found):
                failures.append(f"{row.name}, cut {what}: {found.verdict}, {names(found)[:4]}")
    check(failures)


def lastRunGivesTheVerdict(_folder):
    all_consoles = dict((row.name, lines) for row, lines in consoles())
    before = {name: names(explained(all_consoles[name]))
              for name in ("nothing-wrong", "preinst-fails", "stick-missing", "nak@block:middle")}
    failures = []
    for name, lines in all_consoles.items():
        clean = explained(lines)
        for earlier, rows in before.items():
            found = explained(all_consoles[earlier] + lines)
            if names(found) != names(clean) or found.verdict != clean.verdict or len(found.runs) < 2:
                failures.append(f"{name} after {earlier}: {found.verdict}, {len(found.runs)}, {names(found)[:4]}")
            elif rows != [row.name for row in found.runs[0].rows]:
                failures.append(f"{earlier} before {name}: {[row.name for row in found.runs[0].rows][:4]}")
    check(failures)


# What needs no run of the table.

def entries(*names_of_lines):
    """The lines that the table has under such names."""
    for name in names_of_lines:
        for entry in KNOWN.data["lines"][name]:
            yield from entries(entry[1:]) if entry.startswith("@") else (entry,)


START = ["sys_line:ls /tmp/ota/*.ipk", "qml: ota================= true", *["sys_line:ls /tmp/ota/*.ipk"] * 2]
GOOD = [*START, "qml: result: 0    index: 0  ipkList.length: 1", *entries("to end", "from end")]


def failing(*lines, index=0, count=1):
    return [*START, *lines, f"qml: result: 65280    index: {index}  ipkList.length: {count}"]


def call(*arguments, status, text="", environment=None):
    done = subprocess.run([COMMAND, *arguments], input=text.encode(), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          env=environment, timeout=60, check=False)
    assert done.returncode == status, f"{done.returncode}, {done.stderr.decode()}"
    return done.stdout.decode(), done.stderr.decode()


def exitStatusTellsTheVerdict(folder):
    console = folder / "console.log"
    console.write_text(text_of(GOOD))
    said, _ = call(console, status=0)
    assert said.startswith("GOOD") and KNOWN.screens["updated"]["tips"][1] in said, said
    call("-", text=text_of(GOOD), status=0)
    for cause in [*GOOD[:10]], failing("preinst: no"):
        call("-", text=text_of(cause), status=1)
    for text in "", "a text of something else\n[  OK  ] Started.\nNo space left on device\n", "\0\xff\x1b[":
        call("-", text=text, status=2)


def theCommandsOwnFaultsAreOneSentence(folder):
    for arguments in (["/no/such/file"], [folder], ["/proc/self/mem"], ["/no\x1b[2J"], ["--one-file", "/no/such/folder/x"]):
        said, complaint = call(*arguments, status=2)
        assert not said and complaint.count("\n") == 1 and "\x1b" not in complaint, complaint
    for arguments in [], ["--no-such-option"], ["--screen", "none", "-"], ["-", "--one-file", "x"]:
        _, complaint = call(*arguments, status=2)
        assert "Traceback" not in complaint, complaint
    said, _ = call("--help", status=0)
    assert "exit status" in said and "--json" in said


def jsonHasTheFactsOfTheReport(_folder):
    said, _ = call("--json", "-", text=text_of(failing("Installing drink-recipes (2.0) on root", "preinst: no",
                                                       "Warning: the grinder is loose")), status=1)
    facts = json.loads(said)
    same(["format", "verdict", "status", "dropped_runs", "runs"], list(facts))
    same((1, "failed", 1, 0), (facts["format"], facts["verdict"], facts["status"], facts["dropped_runs"]))
    run, = facts["runs"]
    same(["verdict", "first_line", "last_line", "ended_at", "steps", "screens", "may_go_on", "cause_is_known", "causes", "others",
          "unknown", "more_unknown"], list(run))
    assert run["steps"][-1] == "package 1 of 1 (drink-recipes): failed, exit status 255", run["steps"]
    same("package failed", run["screens"][0]["name"])
    assert "preinst-fails" in run["causes"][0]["faults"][0]["rows"]
    same([{"line": 7, "times": 1, "text": "Warning: the grinder is loose"}], run["unknown"])


def otherPackagesAndSizesAreExplainedAlike(_folder):
    """The rows have three blocks and packages of the examples."""
    blocks = 300
    ack, = entries("ack")
    lines = [*entries("to start-frame")]
    lines[lines.index("Filesize: 2500(9C4H)")] = "Filesize: 307000(4AF38H)"
    for block in range(1, blocks + 1):
        lines += [ack, f"[YModem]: send the data package ({block}/{blocks})."]
    start = [*START, *(f"qml: result: 0    index: {index}  ipkList.length: 7" for index in range(7))]
    good = explained([*start, *lines, ack, *entries("eot", "from eot")])
    same("good", good.verdict)
    assert "nothing-wrong" in names(good)
    refused = explained([*start, *lines[:-200], *entries("nak")])
    assert "nak@block:middle" in names(refused) and refused.status == 1, names(refused)
    assert "block 200 of 300" in report(refused)
    row = next(row for row in KNOWN.rows if row.name == "staged-package-vanishes")
    other = [text.replace("20.ipk", "77-milk.ipk") for text in row.also]
    assert row.name in names(explained([*START, "qml: result: 0    index: 0  ipkList.length: 9", *other,
                                        f"qml: result: {row.results[-1][0]}    index: 1  ipkList.length: 9"]))


def aNewRowIsExplainedAtOnce(_folder):
    """A green success over a broken file, as a row tells it, is no good update."""
    data = json.loads(json.dumps(KNOWN.data))
    nothing_wrong = next(row for row in data["rows"] if row["name"] == "nothing-wrong")
    warning = "Beans missing (errno=99)"
    data["rows"].append(nothing_wrong | {"name": "green-over-a-broken-file", "fault": "no room for a file",
                                         "advice": "make room", "also": [warning]})
    lines = [*GOOD[:4], f"Warning when grinding './usr/bin/x': {warning}", *GOOD[4:]]
    same("good", explained(lines).verdict)
    assert warning in report(explained(lines)), "a warning that nobody knows is shown"
    found = explain(text_of(lines), Knowledge(data))
    same(("failed", ["green-over-a-broken-file"]), (found.verdict, names(found)))
    assert "./usr/bin/x" not in report(found)
    without = explain(text_of(GOOD), Knowledge(data))
    assert without.verdict == "good" and "green-over-a-broken-file" not in names(without), names(without)


def whatNobodyKnowsIsShown(_folder):
    found = explained(failing("grinder: cannot turn", "[YModem]: what is this"))
    told = report(found)
    same("failed", found.verdict)
    assert "does not show a cause that is known" in told and KNOWN.screens["package failed"]["tips"][0] in told, told
    assert "line 5: grinder: cannot turn" in told and "line 6: [YModem]: what is this" in told, told
    assert "nobody knows" not in report(explained(GOOD))


def twoFailuresAreBothTold(_folder):
    first, second = "preinst: no", "prerm: no"
    other = next(row.also[0] for row in KNOWN.rows if row.screen == "board updated" and row.also)
    told = " ".join(report(explained(failing(first, second, other))).split())
    for text in first, second, other:
        faults = {row.fault for row in KNOWN.rows if text in row.also}
        assert any(fault in told for fault in faults), told
    later = " ".join(report(explained([*failing(first), *GOOD[:10]])).split())
    assert "Earlier runs:" in later and "the preinst fails" in later and "first data block" in later, later


def everyScreenHasItsPhase(_folder):
    """A new screen needs a line in PHASES of explanation.py, or its rows fit every console."""
    same({"", *KNOWN.screens}, set(PHASES))


def anUpgradeThatWasCutOffIsToldUntilItIsRepeated(_folder):
    """The package manager says at each call which packages have lost their list."""
    def lost(name):
        return f" * pkg_get_installed_files: Failed to open //var/lib/opkg/info/{name}.list: No such file or directory."

    def update(*packages, lost_ones):
        lines = [*START]
        for index, name in enumerate(packages):
            lines += [*map(lost, lost_ones), f"Upgrading {name} from 1.0 to 2.0 on root.",
                      f"qml: result: 0    index: {index}  ipkList.length: {len(packages)}"]
            lost_ones = [other for other in lost_ones if other != name]
        return explained([*lines, *GOOD[5:]])

    row = "upgrade-cut-off-then-firmware"
    for packages, lost_ones in (("milk",), ("beans",)), (("milk", "cups"), ("beans",)), (("milk",), ("milk", "beans")):
        found = update(*packages, lost_ones=lost_ones)
        same(("failed", row), (found.verdict, names(found)[0]))
    for packages in ("beans",), ("milk", "beans"), ("beans", "milk"):
        found = update(*packages, lost_ones=["beans"])
        assert found.verdict == "good" and row not in names(found), names(found)


def listingsTellHowFarItCame(_folder):
    staged, stick, image = ("sys_line:ls " + place for place in ("/tmp/ota/*.ipk", "/mnt/nand_disk/update_ipk/*.ipk",
                                                                 "/mnt/update_ipk/*.bin"))
    idle = [staged, stick, "qml: ota================= false"]
    clicked = [*idle, staged, stick, image]
    no_image = "ls: cannot access '/mnt/update_ipk/*.bin': No such file or directory"
    for lines, screens in ((idle, ["idle"]), (clicked, ["board updated"]), ([*clicked, no_image], ["no package"]),
                           ([*clicked, no_image, staged], ["installing"]), (START[:2], ["installing"]), (START, ["installing"])):
        same(screens, explained(lines).runs[-1].screens)


def theScreenTellsWhatTheConsoleDoesNot(_folder):
    handed_over = START + ["qml: result: 0    index: 0  ipkList.length: 1"]
    same("undecided", explained(handed_over).verdict)
    for word in "cannot", "can't":  # the program's last command; both are in use
        same("good", explained([*handed_over, f"rm: {word} remove '/root/mcu/*': No such file or directory"]).verdict)
    same("good", explain(text_of(handed_over), KNOWN, screen="updated").verdict)
    same("failed", explain(text_of(handed_over), KNOWN, screen="installing").verdict)


def nothingOfTheInputReachesTheTerminal(_folder):
    bad = "\x1b]0;owned\x07\x1b[2J\x9b31m\x07\x08\u202e\u2066"
    said, complaint = call("-", text=text_of(failing(
        f"Installing {bad}milk{bad} (1) on root", f"error: {bad} and \x1bPq{bad}\x1b\\", "cannot \x1b[", *[f"error {i}{bad}" for i in range(50)])),
        status=1)
    assert all(c.isprintable() or c == "\n" for c in said), ascii(said)
    same("", complaint)
    assert "owned" not in said and "more lines" in said and len(said) < 6000, said


def hugeInputIsBounded(_folder):
    """In memory, and in time, for a pipe of any content."""
    limits = """
import resource, subprocess, sys
status = subprocess.run(sys.argv[1:], stdout=subprocess.PIPE).returncode
print(status, resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss // 1024)
"""
    good = text_of(GOOD).replace("\n", "\\n")
    for make, expected in (("head -c 1G /dev/zero", 2), ("head -c 100M /dev/urandom", 2),
                           (f"yes '{KERNEL_LINE}' | head -c 200M; printf '{good}'; head -c 100M /dev/zero", 0),
                           (f"yes 'enter kill' | head -c 2M; yes '{GOOD[-1]}' | head -c 2M; "
                            f"seq -f 'error %.0f' 100000; printf '{good}'", 0)):
        begun = time.monotonic()
        said = output(sys.executable, "-c", limits, "sh", "-c", f"({make}) | {COMMAND} -")
        status, peak_mib = map(int, said.split())
        print(f"{make[:40]}: {peak_mib} MiB, {time.monotonic() - begun:.1f} s")
        assert peak_mib < 60, peak_mib
        same(expected, status)


def oneFileRunsElsewhere(folder):
    one, again = folder / "one", folder / "sub"
    call("--one-file", one, status=0)
    os.umask(0o077)
    call("--one-file", again, status=0, environment={"TZ": "Asia/Tokyo"})
    same(one.read_bytes(), again.read_bytes())
    elsewhere = folder / "elsewhere"
    elsewhere.mkdir()
    (elsewhere / "console.log").write_text(text_of(GOOD[:10]))
    here, _ = call(elsewhere / "console.log", status=1)
    for python in interpreters():
        print(python)
        done = subprocess.run([python, "-I", one, "console.log"], cwd=elsewhere, env={}, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, check=False)
        same((1, here), (done.returncode, done.stdout.decode()))
    assert str(PROJECT).encode() not in one.read_bytes()


def interpreters():
    """The oldest Python that is supported, where it is there, and the one of the system."""
    yield sys.executable
    oldest = shutil.which("python3.9")
    if oldest and subprocess.run([oldest, "-c", ""], stderr=subprocess.DEVNULL, check=False).returncode == 0:
        yield oldest


def controlCEndsQuietly(_folder):
    reading = subprocess.Popen([COMMAND, "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    for _ in range(4):  # fills the pipe, so that it is being read
        reading.stdin.write(text_of(GOOD).encode() * 1000)
        reading.stdin.flush()
    reading.send_signal(signal.SIGINT)
    said = reading.stdout.read()
    same((130, b""), (reading.wait(), said))
