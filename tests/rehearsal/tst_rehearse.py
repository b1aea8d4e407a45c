"""The command scripts/rehearse: exit statuses, wrong use, signals, and what it leaves behind.

The programs are those of the build tree in the variable BUILD.
"""

import calendar
import contextlib
import json
import os
import pty
import re
import signal
import subprocess
import sys
import time
import unittest.mock

import sets
from facts import left_behind, output, private_environment, same
from machine.paths import PROJECT
from machine.watch import WAIT_S, await_

sys.path.append(str(PROJECT))

from rehearsal.host import Machine

COMMAND = PROJECT / "scripts/rehearse"
BUILD = os.environ["BUILD"]
QUICK = ("--board-version", "V3")  # no firmware is sent to such a board
GOOD = {"10-base.ipk": {"name": "base"}, "20-more.ipk": {"name": "more"}}


def make(folder, put=None):
    """A folder of packages, as a row of sets.toml has them."""
    return sets.Set("set", put or GOOD, "success", {}).build(folder).source


def command(folder, *words):
    return [COMMAND, "--build", BUILD, "--report", folder / "report", *words]


def rehearse(folder, *words, status=0):
    """Runs the command, which has to end with the status. Returns what it says."""
    return output(*command(folder, *words), status=status, environment=private_environment(folder))


def report(folder):
    return json.loads((folder / "report/rehearsal.json").read_text(encoding="ascii"))


def goodUpdateEndsWith0(folder):
    said = rehearse(folder, make(folder), *QUICK)
    assert "SUCCESS: 2 of 2 packages installed, 0 errors" in said, said
    facts = report(folder)
    same(("success", ["10-base.ipk", "20-more.ipk"]), (facts["verdict"], facts["order"]))
    same(["installed"] * 2, [package["status"] for package in facts["packages"]])
    assert all(package["seconds"] > 0 for package in facts["packages"]), facts["packages"]
    assert facts["pictures"] and all((folder / "report" / picture["file"]).is_file() for picture in facts["pictures"])
    same([], left_behind(folder))


def failedUpdateEndsWith1(folder):
    source = make(folder, {"10-base.ipk": {"name": "base"}, "20-bad.ipk": {"name": "bad", "scripts": {"postinst": "exit 3"}},
                           "30-more.ipk": {"name": "more"}})
    said = rehearse(folder, source, *QUICK, status=1)
    assert "FAILURE: 1 of 3 packages installed" in said, said
    facts = report(folder)
    same(["installed", "failed", "not tried"], [package["status"] for package in facts["packages"]])
    assert any(one["level"] == "error" and one["package"] == "20-bad.ipk" and "postinst ended with status 3" in one["text"]
               for one in facts["findings"]), facts["findings"]
    assert "Update Fail" in facts["cause"]["seen"], facts["cause"]


def errorFindingAloneEndsWith1(folder):
    source = make(folder, {"10-base.ipk": {"name": "base", "scripts": {"postinst": "[ -n '' ] && killall update-assistant || true"}}})
    rehearse(folder, source, *QUICK, status=1)
    facts = report(folder)
    same("success", facts["verdict"])
    assert any(one["level"] == "error" for one in facts["findings"]), facts["findings"]


def wrongUseEndsWith2(folder):
    source = make(folder)
    (folder / "file").touch()
    for words, why in (
            ([], "FOLDER"), ([folder / "none"], "is not a folder"), ([folder / "file"], "is not a folder"),
            ([source, "--magic"], "--magic"), ([source, source], "unrecognized"),
            ([source, "--installed", folder / "none"], "is not a folder"),
            ([source, "--fault", "bogus"], "bogus"), ([source, "--fault", "silent@nowhere"], "nowhere"),
            ([source, "--board-version", "x" * 20], "19"), ([source, "--no-board", "--real-pace"], "--no-board"),
            ([source, "--room", "/usr=1000"], "/usr"), ([source, "--room", "/=many"], "DIR=BYTES"),
            ([source, "--architecture", "a b"], "architecture"), ([source, "--limit", "0"], "seconds"),
            ([source, "--opkg", "apt"], "apt"), ([source, "--junit", folder / "none/out.xml"], "--junit"),
            ([source, "--report", folder / "file"], "--report")):
        said = rehearse(folder, *words, status=2)
        assert why in said and said.count("\n") == 1 and "Traceback" not in said, (words, said)
    assert not (folder / "report/index.html").exists()


def reportThatCannotBeWrittenIsWrongUse(folder):
    said = rehearse(folder, make(folder), "--report", "/proc/report", status=2)
    assert "/proc/report cannot be written" in said, said


def helpNeedsNothing(_):
    said = output(COMMAND, "--help", environment={"PATH": "/usr/bin:/bin"})
    for option in ("--installed", "--stick", "--fault", "--room", "--report", "Exit status"):
        assert option in said, said


def junitIsWritten(folder):
    rehearse(folder, make(folder), *QUICK, "--junit", folder / "out.xml")
    assert "<testsuite" in (folder / "out.xml").read_text(encoding="utf-8")


def previousReleaseIsThereAndItsFirmwareIsNot(folder):
    old = sets.Set("old", {"10-base.ipk": {"name": "base", "version": "0.9", "firmware": 100}}, "success", {}).build(folder / "old")
    new = make(folder, {"10-base.ipk": {"name": "base", "scripts": {"preinst": "! [ -e /root/mcu/UpdataSystem.bin ]"}}})
    rehearse(folder, new, *QUICK, "--installed", old.source)
    same(["0.9"], [package["previous"] for package in report(folder)["packages"]])


def previousReleaseThatFailsIsSaid(folder):
    old = sets.Set("old", {"10-bad.ipk": {"name": "bad", "scripts": {"postinst": "exit 1"}}}, "success", {}).build(folder / "old")
    said = rehearse(folder, make(folder), *QUICK, "--installed", old.source, status=1)
    assert "The previous release cannot be installed" in said, said
    same({"not tried"}, {package["status"] for package in report(folder)["packages"]})


def scriptsSeeNeitherNetworkNorFiles(folder):
    (folder / "secret").write_text("secret", encoding="ascii")
    tests = " && ".join((
        f"! [ -e {folder}/secret ]", "! [ -e /etc/shadow ]", "! [ -e /home ]", f"! [ -e {PROJECT}/src ]",
        "[ -z \"${SECRET-}\" ]", "[ $(ls /sys/class/net 2>/dev/null | wc -l) -le 1 ]", "[ $(wc -l </proc/net/route) -le 1 ]"))
    source = make(folder, {"10-base.ipk": {"name": "base", "scripts": {"postinst": tests}}})
    os.environ["SECRET"] = "secret"
    rehearse(folder, source, *QUICK)


def linkedPackagesAreInstalled(folder):
    pool = make(folder / "pool")
    source = folder / "linked"
    source.mkdir()
    for file in pool.iterdir():
        (source / file.name).symlink_to(file)
    (source / "30-secret.ipk").symlink_to("/etc/passwd")  # no package: nothing of it reaches the machine
    rehearse(folder, source, *QUICK, status=1)
    same(["installed", "installed", "failed"], [package["status"] for package in report(folder)["packages"]])


def hangingScriptIsGivenUp(folder):
    source = make(folder, {"10-base.ipk": {"name": "base", "scripts": {"postinst": "sleep 1000"}}})
    said = rehearse(folder, source, *QUICK, "--limit", "2", status=1)
    assert "did not come within 2 s" in said and "10-base.ipk" in said, said
    same([], left_behind(folder))


def silentBoardIsGivenUp(folder):
    said = rehearse(folder, make(folder), "--fault", "silent@version", "--limit", "8", status=1)
    assert "the program waits for the control board" in said, said


def scriptThatEndsEverythingIsAFailure(folder):
    source = make(folder, {"10-base.ipk": {"name": "base", "scripts": {"postinst": "kill -9 -1"}}})
    said = rehearse(folder, source, *QUICK, status=1)
    assert "Everything that ran on the machine was ended while 10-base.ipk was being installed" in said, said
    same([], left_behind(folder))


def logsThatLeadOutAreNotRead(folder):
    (folder / "secret").write_text("secret of the host\n", encoding="ascii")
    script = "\n".join(f"ln -sf {folder}/secret /run/machine/{name}" for name in
                       ("program.log", "board.log", "records.jsonl", "received.bin"))
    rehearse(folder, make(folder, {"10-base.ipk": {"name": "base", "scripts": {"postinst": script}}}), *QUICK, "--limit", "3",
             status=1)
    for file in (folder / "report").rglob("*"):
        assert not file.is_file() or b"secret of the host" not in file.read_bytes(), file


def hostileNamesAreShownHarmlessly(folder):
    source = make(folder, {"10-\x1b[2Jbase.ipk": {"name": "base"}, "20-\u202emore.ipk": {"name": "more"}})
    said = rehearse(folder, source, *QUICK, status=1)
    assert "\x1b" not in said and "\u202e" not in said and "\\x1b[2Jbase" in said, said


def plainLinesWhereThereIsNoTerminal(folder):
    said = rehearse(folder, make(folder), *QUICK)
    assert "\r" not in said and "\x1b" not in said, said
    lines = re.findall(r"^ *\d+\.\d s  (.*)$", said, re.MULTILINE)
    for line in ("inspecting the packages", "package 1 of 2: 10-base.ipk", "package 2 of 2: 20-more.ipk", "control board"):
        assert lines.count(line) == 1, said


def terminalHasOneLineThatChanges(folder):
    source = make(folder, {"40-firmware.ipk": {"name": "firmware", "firmware": 3000}})
    controller, terminal = pty.openpty()
    process = subprocess.Popen(list(map(str, command(folder, source))), stdin=subprocess.DEVNULL, stdout=terminal,
                               stderr=terminal, env=private_environment(folder))
    os.close(terminal)
    said = b""
    with contextlib.suppress(OSError):  # the terminal is closed
        while piece := os.read(controller, 4096):
            said += piece
    same(0, process.wait(WAIT_S))
    assert b"\r\x1b[K" in said and re.search(rb"block 3 of 3 \[#{30}\]", said), said


def ctrlCLeavesNothing(folder):
    source = make(folder, {"10-base.ipk": {"name": "base", "scripts": {"postinst": "sleep 1000"}}})
    for number in (signal.SIGINT, signal.SIGTERM):
        with open(folder / "said", "w", encoding="utf-8") as said:
            process = subprocess.Popen(list(map(str, command(folder, source))), stdin=subprocess.DEVNULL, stdout=said,
                                       stderr=said, env=private_environment(folder))
        await_("the package", lambda: "package 1 of 1" in (folder / "said").read_text(encoding="utf-8"), process=process)
        process.send_signal(number)
        same(130, process.wait(WAIT_S))
        await_("the end of everything", lambda: not left_behind(folder))
        assert "Traceback" not in (folder / "said").read_text(encoding="utf-8")


def machineThatHasJustBegunEndsAsAWhole(folder):
    """A child does not yet end with its parent."""
    script = folder / "run"
    script.write_text(f"#!/bin/bash\nbash -c 'echo {{}}; exec -a {folder} sleep 1000' &\nwait\n")
    script.chmod(0o755)
    limits = {"limit": 1, "board_limit": 1, "limits": {}}
    os.environ |= private_environment(folder)
    with unittest.mock.patch("rehearsal.host.SANDBOX", script), Machine(folder, 0) as machine:
        same({}, next(filter(lambda event: event is not None, machine.run(limits, [], "stand-in"))))
    await_("the end of everything", lambda: not left_behind(folder))


def twoAtATimeDoNotMix(folder):
    """Also into the same report folder: the last one remains whole."""
    sources = [make(folder / name, {f"10-{name}.ipk": {"name": name}}) for name in ("one", "two")]
    running = [subprocess.Popen(list(map(str, command(folder, source, *QUICK))), stdin=subprocess.DEVNULL,
                                stdout=subprocess.DEVNULL, env=private_environment(folder)) for source in sources]
    same([0, 0], [process.wait(WAIT_S) for process in running])
    facts = report(folder)
    assert facts["order"][0] in ("10-one.ipk", "10-two.ipk")
    same(["installed"], [package["status"] for package in facts["packages"]])
    same(str(folder / facts["order"][0][3:6] / "source"), facts["source"])
    same([], left_behind(folder))


def sourceIsNotChanged(folder):
    source = make(folder)
    before = {path.name: (path.read_bytes(), path.stat().st_mtime_ns) for path in source.iterdir()}
    rehearse(folder, source, "--stick", *QUICK)
    same(before, {path.name: (path.read_bytes(), path.stat().st_mtime_ns) for path in source.iterdir()})


def onlyPicturesOfTheLastReportGo(folder):
    pictures = folder / "report/pictures"
    pictures.mkdir(parents=True)
    for name in "old.png", "holiday.png", "../keep.png":
        (pictures / name).write_text("a picture")
    listed = [{"file": "pictures/old.png"}, {"file": "pictures/../keep.png"}, {"file": ".."}, {"file": "/etc/hostname"}]
    (folder / "report/rehearsal.json").write_text(json.dumps({"pictures": listed}))
    rehearse(folder, make(folder), *QUICK)
    same([False, True, True], [(pictures / name).exists() for name in ("old.png", "holiday.png", "../keep.png")])


def timeLineHasTheLanes(folder):
    source = make(folder, {"40-firmware.ipk": {"name": "firmware", "firmware": 3000}})
    rehearse(folder, source)
    facts = report(folder)
    lanes = {bar["lane"] for bar in facts["timeline"]}
    same({"packages", "serial line", "screen"}, lanes)
    transfer = next(bar for bar in facts["timeline"] if bar["lane"] == "serial line" and bar["blocks"])
    same(["ok"] * 3, [reply for _, reply in transfer["blocks"]])
    for bar in facts["timeline"]:
        assert 0 <= bar["from"] <= bar["to"] <= facts["seconds"], bar
    started = time.strptime(facts["started"], "%Y-%m-%dT%H:%M:%SZ")
    assert abs(time.time() - calendar.timegm(started)) < 600, facts["started"]
