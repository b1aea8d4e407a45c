"""The command scripts/check-board: exit statuses, what it sends, wrong use, signals, and what it leaves behind.

The programs are those of the build tree in the variable BUILD.
"""

import contextlib
import fcntl
import json
import os
import pathlib
import pty
import re
import signal
import subprocess
import sys
import time
import tty
import unittest

from facts import left_behind, output, private_environment, same
from machine.paths import PROJECT
from machine.watch import WAIT_S, await_, text_of

sys.path.append(str(PROJECT))

from boardcheck import requirements
from boardcheck.judgement import NOT_MET, Judgement
from boardcheck.line import Event, Exchange

COMMAND = PROJECT / "scripts/check-board"
BUILD = pathlib.Path(os.environ["BUILD"])
NOBODY = 65534


@contextlib.contextmanager
def board(folder, *options):
    """A simulated board. Gives its device; the summary is in the folder at the end."""
    process = subprocess.Popen(
        [BUILD / "simulator/boardsim", "--link", folder / "board", "--summary", folder / "summary", "--image", folder / "image",
         "--control-repeat", "10", *options], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
    try:
        assert process.stdout.readline().startswith("ready ")
        yield folder / "board"
    finally:
        process.terminate()
        process.communicate()


def command(folder, *words):
    return [COMMAND, "--build", BUILD, "--recording", folder / "recording", *words]


def ask(folder, *words, status=0):
    """Runs the command, which has to end with the status. Returns what it says."""
    return output(*command(folder, *words), status=status, environment=private_environment(folder))


def build_with_tap(folder, script):
    """A build tree with another boardtap."""
    build = folder / "build"
    (build / "simulator").mkdir(parents=True)
    (build / "tests").symlink_to(BUILD / "tests")
    tap = build / "simulator/boardtap"
    tap.write_text(script)
    tap.chmod(0o755)
    return build


def summary(folder):
    return json.loads(text_of(folder / "summary"))


def fitBoardEndsWith0(folder):
    with board(folder) as device:
        said = ask(folder, device)
    assert "Nothing on the board is changed" in said.splitlines()[0] and "FIT as far as seen" in said, said
    same([], left_behind(folder, "boardsim"))
    read = output(BUILD / "simulator/boardtap", "--read", folder / "recording", "--hex", "short")
    for frame in ("-> version query", "<- version answer", "-> V3 handshake", "-> V4 handshake"):
        assert frame in read, read


def nothingIsChangedWithoutFirmware(folder):
    with board(folder) as device:
        facts = json.loads(subprocess.run(command(folder, device, "--json"), stdout=subprocess.PIPE, check=True).stdout)
    sent = summary(folder)
    same((1, 1, 1, 0, [], []), tuple(sent[name] for name in ("versionQueries", "handshakesV3", "handshakesV4", "startCommands",
                                                             "transfers", "violations")))
    seen = {one["step"] for one in facts["requirements"] if one["status"] != "not seen"}
    same({"serial line", "version query", "handshakes"}, seen)
    same((True, None, {"before": "V4.1.3", "after": ""}), (facts["fit"], facts["firmware"], facts["version"]))


def firmwareArrives(folder):
    firmware = folder / "a firmware.bin"
    firmware.write_bytes(os.urandom(3000))
    with board(folder) as device:
        said = ask(folder, device, "--firmware", firmware)
    assert said.startswith(f"REPLACES THE FIRMWARE of the board at {device} with {firmware} (3000 bytes)"), said
    same(firmware.read_bytes(), (folder / "image").read_bytes())
    same((2, 1, []), tuple(summary(folder)[name] for name in ("versionQueries", "startCommands", "violations")))
    assert re.search(r"^FIT$", said, re.MULTILINE), said


def boardWithoutV4GetsNoFirmware(folder):
    (folder / "firmware").write_bytes(b"firmware")
    with board(folder, "--version-text", "V3.9") as device:
        said = ask(folder, device, "--firmware", folder / "firmware", status=1)
    same(0, summary(folder)["startCommands"])
    assert "NOT FIT: version-v4" in said and 'the text is "V3.9"' in said and "/root/Hmi" in said, said


def silentBoardEndsWith1(folder):
    with board(folder, "--fault", "silent@version") as device:
        said = ask(folder, device, "--limit", "1", status=1)
    assert "NOT FIT: the board is silent. Check its cable, its power and the device.\n" in said, said
    assert "docs/failures.md#installing, rows silent@version" in said, said


def boardThatTalksWithoutAnEndIsGivenUp(folder):
    """It never replies to the query."""
    ours, theirs = pty.openpty()
    tty.setraw(theirs)
    process = subprocess.Popen(command(folder, os.ttyname(theirs), "--limit", "1"), stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, env=private_environment(folder), text=True)
    try:
        same(30, len(os.read(ours, 4096)))
        until = time.monotonic() + WAIT_S
        while process.poll() is None and time.monotonic() < until:
            os.write(ours, b".")
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(2)  # the program reads each for a second only
        same(1, process.poll())
    finally:
        process.terminate()
        said, _ = process.communicate()
        os.close(ours)
        os.close(theirs)
    assert "NOT FIT: version-size" in said, said


def tapThatFailsIsNoVerdict(folder):
    """Its transcript ends where the disk is full."""
    build = build_with_tap(folder, f'#!/bin/bash\nulimit -f 1\ntrap "" XFSZ\nexec {BUILD}/simulator/boardtap "$@"\n')
    with board(folder) as device:
        said = ask(folder, device, "--build", build, status=2)
    assert re.search(r"^check-board: cannot write .*: File too large", said, re.MULTILINE) and "FIT" not in said, said
    same([], left_behind(folder, "boardsim"))


def killedCheckLeavesNothing(folder):
    """What it could not remove itself goes with the next one."""
    with board(folder, "--fault", "silent@version") as device:
        process = subprocess.Popen(command(folder, device), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, env=private_environment(folder))
        await_("the query", lambda: "-> e7 1e" in text_of(folder / "recording"), process=process)
        process.kill()
        process.wait()
        work, = (folder / "tmp").iterdir()
        await_("the end of its processes", lambda: left_behind(folder, "boardsim") == [str(work)])
    with board(folder) as device:
        ask(folder, device)
        same([str(work)], left_behind(folder, "boardsim"))  # it may have just been made
        os.utime(work, (0, 0))
        ask(folder, device)
    same([], left_behind(folder, "boardsim"))


def wrongUseEndsWith2(folder):
    (folder / "empty").touch()
    (folder / "firmware").write_bytes(b"firmware")
    os.mkfifo(folder / "fifo")
    with board(folder) as device:
        for words, why in (
                ([], "DEVICE"), ([device, device], "unrecognized"), ([device, "--magic"], "--magic"),
                ([device, "--limit", "0"], "seconds"), ([device, "--firmware", folder / "none"], "cannot be read"),
                ([device, "--firmware", folder / "empty"], "is empty"), ([device, "--firmware", folder], "is no file"),
                ([device, "--firmware", folder / "fifo"], "is no file"), ([device, "--firmware", "/dev/zero"], "is no file"),
                ([device, "--firmware", folder / "firmware", "--recording", folder / "firmware"], "is the firmware"),
                ([device, "--recording", "/proc/none/recording"], "cannot be written"),
                ([folder / "none"], "there is no device"), ([folder], "is no serial device"),
                ([folder / "empty"], "is no serial device"), (["/dev/null"], "is no serial device")):
            said = output(COMMAND, "--build", BUILD, "--recording", folder / "recording", *words, status=2)
            assert why in said and said.count("\n") == 1 and "Traceback" not in said, (words, said)
    same(b"firmware", (folder / "firmware").read_bytes())
    same(0, summary(folder)["versionQueries"])


def deviceWithoutRightsIsSaid(folder):
    if os.geteuid():
        raise unittest.SkipTest("only root can become a user without rights")
    with board(folder) as device:
        os.chmod(device, 0o600)
        os.chmod(folder, 0o755)
        said = output("setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups", "/usr/bin/python3", "-B", "-c",
                      "import sys; sys.path.insert(0, sys.argv.pop()); from boardcheck import options\n"
                      "try:\n    options.device(sys.argv[1]).__enter__()\n"
                      "except options.WrongUse as error:\n    print(error)", device, PROJECT)
    same(f"no right to open {device}: become a member of its group, or root\n", said)


def busyDeviceIsSaid(folder):
    with board(folder) as device:
        with open(device, "rb", buffering=0) as mine:
            said = ask(folder, device, status=2)
            assert re.fullmatch(rf"check-board: {device} is busy: \S+ \(process {os.getpid()}\) has it open \(try --help\)\n",
                                said), said
            fcntl.flock(mine, fcntl.LOCK_EX)
            assert "is busy: another program has locked it" in ask(folder, device, status=2)
        ask(folder, device)
    same(1, summary(folder)["versionQueries"])


def textOfTheBoardIsShownHarmlessly(folder):
    """A version text that a terminal would obey, from a board that is a file descriptor of this test."""
    ours, theirs = pty.openpty()
    tty.setraw(theirs)
    reply = bytearray(36)
    reply[16:23] = b"V4\x1b[2J\xe9"
    process = subprocess.Popen(command(folder, os.ttyname(theirs), "--limit", "1"), stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, env=private_environment(folder), text=True)
    try:
        same(30, len(os.read(ours, 4096)))
        os.write(ours, reply)
        said, _ = process.communicate(timeout=WAIT_S)
    finally:
        process.kill()
        os.close(ours)
        os.close(theirs)
    assert "\x1b" not in said and r'"V4\x1b[2Jé"' in said, said


def progressIsPlainWithoutTerminal(folder):
    with board(folder) as device:
        said = ask(folder, device)
    assert "\r" not in said and "\x1b" not in said, said
    lines = re.findall(r"^ *\d+\.\d s  (.*)$", said, re.MULTILINE)
    same(["version query", "handshakes"], lines)


def terminalHasOneLineThatChanges(folder):
    controller, terminal = pty.openpty()
    with board(folder) as device:
        process = subprocess.Popen(command(folder, device), stdin=subprocess.DEVNULL, stdout=terminal, stderr=terminal)
        os.close(terminal)
        said = b""
        with contextlib.suppress(OSError):  # the terminal is closed
            while piece := os.read(controller, 4096):
                said += piece
        same(0, process.wait(WAIT_S))
    assert re.search(rb"\r\x1b\[K +\d+\.\d s  version query", said), said


def ctrlCLeavesNothing(folder):
    with board(folder, "--fault", "silent@version") as device:
        for number in (signal.SIGINT, signal.SIGTERM):
            (folder / "recording").write_text("")
            with open(folder / "said", "w", encoding="utf-8") as said:
                process = subprocess.Popen(command(folder, device), stdin=subprocess.DEVNULL, stdout=said, stderr=said,
                                           env=private_environment(folder))
            await_("the query", lambda: "-> e7 1e" in text_of(folder / "recording"), process=process)
            process.send_signal(number)
            same(130, process.wait(WAIT_S))
            await_("the end of everything", lambda: not left_behind(folder, "boardsim"))
            said = text_of(folder / "said")
            assert "Traceback" not in said and said.endswith("check-board: ended\n"), said


def holds_back_interrupt(process):
    """Whether it is a Python that has the signal blocked, or has a handler of its own."""
    status = text_of(f"/proc/{process.pid}/status")
    masks = re.findall(r"^Sig(?:Blk|Cgt):\t(\w+)", status, re.MULTILINE)
    return "python3" in status and any(int(mask, 16) >> signal.SIGINT - 1 & 1 for mask in masks)


def ctrlCWhilePythonStartsIsQuiet(folder):
    with board(folder, "--fault", "silent@version") as device:
        process = subprocess.Popen(command(folder, device), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, env=private_environment(folder))
        while process.poll() is None and not holds_back_interrupt(process):
            pass  # a pause would miss the start
        process.send_signal(signal.SIGINT)
        said, _ = process.communicate(timeout=WAIT_S)
        assert process.returncode in (-signal.SIGINT, 130) and b"Traceback" not in said, (process.returncode, said)


def signalBeforeTheLineIsReadyLeavesNothing(folder):
    tap = f"import pathlib, time\npathlib.Path('{folder}/started').touch()\ntime.sleep(1000)\n"
    build = build_with_tap(folder, f"#!/usr/bin/python3\n{tap}")
    with board(folder) as device:
        process = subprocess.Popen(command(folder, device, "--build", build), stdin=subprocess.DEVNULL,
                                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=private_environment(folder))
        await_("the tap", (folder / "started").exists, process=process)
        process.send_signal(signal.SIGINT)
        same(130, process.wait(WAIT_S))
        await_("the end of everything", lambda: not left_behind(folder, "boardsim"))


def controlBytesAreToldFromText(_):
    """Text of the board that names them is no refusal."""
    judgement = Judgement(requirements.load())
    frames = [Event(1, "->", "start frame: x"), Event(2, "<-", 'console text "NAK CA"', 10)]
    judgement.transfer(Exchange(frames, {"transfer": "0"}))
    same({"control-first"}, not_met(judgement))


def busyHostIsNotTheBoard(_):
    """The program reads a reply that came in time too late, and a late one still in its stretched time."""
    for seconds, expected in ((0.01, set()), (1.8, {"start-pace"})):
        judgement = Judgement(requirements.load())
        frames = [Event(1, "->", "update start command"), Event(1 + seconds, "<-", "start command answer", 18)]
        judgement.start(Exchange(frames, {"start-command": "-2"}))
        same(expected, not_met(judgement))
    for seconds, expected in ((10, set()), (16, {"frame-reply"})):
        judgement = Judgement(requirements.load())
        frames = [Event(1, "->", "start frame: x"), Event(1 + seconds, "<-", "ACK and 'C'", 2), Event(30, "->", "EOT"),
                  Event(30, "<-", "ACK and 'C'", 2), Event(30, "->", "end frame"), Event(30, "<-", "ACK", 1)]
        judgement.transfer(Exchange(frames, {"transfer": "0"}))
        same(expected, not_met(judgement))


def not_met(judgement):
    return {name for name, one in judgement.findings.items() if one.status == NOT_MET}


def helpNeedsNothing(_):
    said = output(COMMAND, "--help", environment={"PATH": "/usr/bin:/bin"})
    for option in ("--firmware", "--limit", "--recording", "--json", "Exit status"):
        assert option in said, said
