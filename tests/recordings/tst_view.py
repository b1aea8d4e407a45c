"""boardtap --view: on the screen of a terminal (tmux), on a bare pseudo-terminal, and without one."""

import binascii
import os
import pathlib
import pty
import re
import select
import shlex
import shutil
import signal
import subprocess
import termios
import time
import tty
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ["BUILD"]) / "simulator"
RECORDING = PROJECT / "tests/recordings/boardsim-update.recording"
NAK_RECORDING = PROJECT / "tests/recordings/boardsim-nak-block-middle.recording"
WAIT_S = 60  # longer than anything takes without a hang
HEAD = "serial line recording 1\nspeed: 115200\nboardtap: 1\n"
QUERY = bytes.fromhex("e71eff0000000000000000000f003700000100000000087100000000dde7")
START = bytes.fromhex("e712ff0000000000000000001300000024e7")
ACK, NAK, EOT, REQUEST = b"\x06", b"\x15", b"\x04", b"C"


def await_(what, condition):
    limit = time.monotonic() + WAIT_S
    while not (found := condition()):
        assert time.monotonic() < limit, what() if callable(what) else what
        time.sleep(0.02)
    return found


class Terminal:
    """A shell in a terminal of tmux. Use it in a `with` statement."""

    def __init__(self, folder, width=80, height=24):
        if not shutil.which("tmux"):
            raise unittest.SkipTest("tmux is not installed")
        self._socket = folder / "tmux"
        self._size = ["-x", str(width), "-y", str(height)]

    def _call(self, *words):
        return subprocess.run(["tmux", "-S", self._socket, "-f", "/dev/null", *words], stdout=subprocess.PIPE,
                              check=True, timeout=WAIT_S).stdout.decode()

    def __enter__(self):
        self._call("new-session", "-d", *self._size, "env", "PS1=prompt ", "LC_ALL=C.UTF-8", "bash", "--noprofile", "--norc")
        self.await_text("prompt")
        return self

    def __exit__(self, *_):
        self._call("kill-server")

    @property
    def text(self):
        return self._call("capture-pane", "-p")

    @property
    def modes(self):
        """Second screen, cursor, wrapping: 1 is on."""
        return self._call("display", "-p", "#{alternate_on} #{cursor_flag} #{wrap_flag}").strip()

    def type(self, text):
        self._call("send-keys", "-l", text)
        self._call("send-keys", "Enter")

    def press(self, key):
        self._call("send-keys", key)

    def resize(self, width, height):
        self._call("resize-window", "-x", str(width), "-y", str(height))

    def await_text(self, *texts):
        await_(lambda: f"{texts} not on the screen:\n{self.text}", lambda: all(text in self.text for text in texts))

    def await_modes(self, modes):
        await_(lambda: f"{modes} is {self.modes}:\n{self.text}", lambda: self.modes == modes)


def call(*words):
    return " ".join(shlex.quote(str(word)) for word in words)


class Program:
    """A program in the background, ended by SIGTERM."""

    def __init__(self, *words, **options):
        self.process = subprocess.Popen([str(word) for word in words], stdin=subprocess.DEVNULL, **options)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait(WAIT_S)


def board(folder, *options):
    program = Program(BUILD / "boardsim", "--link", folder / "board", "--boot-delay", 50, *options, stdout=subprocess.DEVNULL)
    await_("the board does not start", (folder / "board").exists)
    return program


def block(number, payload):
    return bytes([1 if len(payload) == 128 else 2, number % 256, 255 - number % 256]) + payload + \
        binascii.crc_hqx(payload, 0).to_bytes(2, "big")


class Line:
    """The program's end of the serial line."""

    def __init__(self, path):
        await_(f"{path} is missing", path.exists)
        self._descriptor = os.open(path, os.O_RDWR | os.O_NOCTTY)
        tty.setraw(self._descriptor)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.close(self._descriptor)

    def ask(self, frame, end):
        """Sends the frame and reads up to `end`, or as many bytes."""
        os.write(self._descriptor, frame)
        reply = b""
        while len(reply) < end if isinstance(end, int) else not reply.endswith(end):
            assert select.select([self._descriptor], [], [], WAIT_S)[0], reply
            reply += os.read(self._descriptor, 100)
        return reply

    def begin(self, size):
        assert self.ask(QUERY, 36)
        self.ask(START, REQUEST)
        header = b"firmware.bin\0" + f"{size:x}".encode()
        self.ask(block(0, header.ljust(128, b"\0")), ACK + REQUEST)

    def blocks(self, first, last, refused=()):
        for number in range(first, last + 1):
            self.ask(block(number, bytes(1024)), NAK if number in refused else ACK)

    def end(self):
        self.ask(block(9, b"\x1a" * 1024), ACK)
        self.ask(EOT, ACK + REQUEST)
        self.ask(block(0, bytes(128)), ACK)


# On the screen

def liveTransferIsDrawn(folder):
    with board(folder, "--fault", "nak@block:6"), Terminal(folder) as terminal:
        terminal.type(call(BUILD / "boardtap", "--device", folder / "board", "--link", folder / "line", "--view", "-"))
        terminal.await_text("transfer   none yet", "last       nothing yet")
        assert terminal.modes == "1 0 0", terminal.modes
        with Line(folder / "line") as line:
            line.begin(8 * 1024)
            terminal.await_text('board      "V4.1.3"', 'file       "firmware.bin", 8192 bytes', "] 0 %", "blocks     0 of 9")
            line.blocks(1, 4)
            terminal.await_text("transfer   running", "] 44 %", "blocks     4 of 9, ", " a second", "refused    none")
            bar = re.search(r"\[(#+)(\.+)\]", terminal.text)
            assert len(bar[1]) == 26 and len(bar[2]) == 34, bar
            terminal.await_text("nothing for 2 s, after <- ACK")
            assert re.search(r"about \d+ s left", terminal.text), terminal.text
            line.blocks(5, 8, refused=(6,))
            terminal.await_text("] 88 %", "refused    1, the last: NAK to block 6 of 9, 1024 bytes of data")
            line.end()
            terminal.await_text("transfer   complete", "] 100 %", "blocks     9 of 9", "malformed  none")
            assert "left" not in terminal.text, terminal.text
        terminal.press("C-c")
        terminal.await_modes("0 1 1")
        terminal.await_text("prompt", "ready /dev/pts/", "board: end of the watch", "transfer   complete")


def endOfTheDiskIsSeen(folder):
    recording = folder / "the.recording"
    with board(folder), Terminal(folder, width=200) as terminal:
        tap = call(BUILD / "boardtap", "--device", folder / "board", "--link", folder / "line", "--view", "-", "--record", recording)
        terminal.type(f"(trap '' XFSZ; ulimit -f 4; exec {tap}); echo status $?")
        fault = f"cannot write {recording}: File too large; the line goes on"
        with Line(folder / "line") as line:
            line.begin(8 * 1024)
            terminal.await_text("blocks     0 of 9")
            assert fault not in terminal.text, terminal.text
            line.blocks(1, 8)
            terminal.await_text(f"failed     {fault}", "blocks     8 of 9")
        terminal.press("C-c")
        terminal.await_text(f"board: end of the watch\nfailed     {fault}", "status 3")
        terminal.await_modes("0 1 1")


def growingRecordingIsFollowed(folder):
    recording = folder / "the.recording"
    with board(folder), Terminal(folder) as terminal:
        with Program(BUILD / "boardtap", "--device", folder / "board", "--link", folder / "line", "--record", recording,
                     stdout=subprocess.DEVNULL), Line(folder / "line") as line:
            terminal.type(call(BUILD / "boardtap", "--view", recording) + "; echo status $?")
            line.begin(8 * 1024)
            terminal.await_text("transfer   running", "blocks     0 of 9")
            line.blocks(1, 5)
            terminal.await_text("blocks     5 of 9", "] 55 %")
            terminal.await_text("nothing for 3 s, after <- ACK")
            assert terminal.modes == "1 0 0", terminal.modes
        # The tap has ended, and so the view.
        terminal.await_text("the.recording: end of the recording", "transfer   not complete", "status 0")
        terminal.await_modes("0 1 1")


def standardInputIsFollowed(folder):
    lines = NAK_RECORDING.read_text().splitlines(keepends=True)
    middle = next(number for number, line in enumerate(lines) if line.startswith("# block 1 of 3")) + 9  # within the block
    os.mkfifo(folder / "pipe")
    with Terminal(folder) as terminal:
        terminal.type(call("cat", folder / "pipe") + " | " + call(BUILD / "boardtap", "--view", "-") + "; echo status $?")
        with open(folder / "pipe", "w") as pipe:
            pipe.write("".join(lines[:middle]))
            pipe.flush()
            terminal.await_text("standard input", "blocks     0 of 3", "nothing for 2 s, after <- ACK and 'C'")
            pipe.write("".join(lines[middle:]))
            pipe.flush()
            terminal.await_text("refused    1, the last: NAK to block 2 of 3", "blocks     2 of 3", "malformed  none")
        terminal.await_text("standard input: end of the recording", "status 0")


def endedRecordingIsShownAtOnce(folder):
    with Terminal(folder) as terminal:
        terminal.type(call(BUILD / "boardtap", "--view", RECORDING) + "; echo status $?")
        terminal.await_text("transfer   complete", "blocks     3 of 3", "status 0")
        terminal.await_modes("0 1 1")


def terminalIsLeftWhileItIsStopped(folder):
    os.mkfifo(folder / "pipe")
    with Terminal(folder) as terminal:
        terminal.type(call(BUILD / "boardtap", "--view", folder / "pipe"))
        with open(folder / "pipe", "w") as pipe:
            pipe.write(HEAD)
            pipe.flush()
            terminal.await_modes("1 0 0")
            terminal.press("C-z")
            terminal.await_modes("0 1 1")
            terminal.await_text("Stopped")
            terminal.type("fg")
            terminal.await_modes("1 0 0")
            terminal.press("C-\\")
            terminal.await_modes("0 1 1")
            terminal.await_text("not watched any more")


def anySizeIsDrawn(folder):
    os.mkfifo(folder / "pipe")
    with Terminal(folder) as terminal:
        terminal.type(call(BUILD / "boardtap", "--view", folder / "pipe"))
        with open(folder / "pipe", "w") as pipe:
            pipe.write(NAK_RECORDING.read_text())
            pipe.flush()
            terminal.await_text("refused    1, the last: NAK to block 2 of 3, 1024 bytes of data")
            for width, height, expected in ((30, 24, "refused    1, the last: NAK to\n"), (12, 5, "\n[##..] 66 %\n"),
                                            (1, 1, "/"), (200, 40, "1024 bytes of data")):
                terminal.resize(width, height)
                terminal.await_text(expected, str(folder / "pipe")[:width])
                shown = [line for line in terminal.text.splitlines() if line]
                assert len(shown) == min(height, 10), (width, height, shown)
            terminal.press("C-c")


# Byte by byte

def hostileTextIsNotObeyed(folder):
    text = b"\x1b]0;own\x07\x9b2J\x1b[31m"
    reply = bytearray(36)
    reply[0], reply[1], reply[35] = 0xE7, 36, 0xE7
    reply[16:16 + len(text)] = text
    reply[34] = sum(reply[1:34]) & 0xFF
    recording = folder / "\x1b[31mname"
    recording.write_text(HEAD + f"1.000 -> {QUERY.hex(' ')}\n1.001 <- {reply.hex(' ')}\n2.000 <- " +
                         b"console \x1b[2J\x08\r\n".hex(" ") + "\n")
    plain = subprocess.run([BUILD / "boardtap", "--view", recording], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           check=True, timeout=WAIT_S).stdout
    assert b'board "?]0;own??2J?[31m' in plain, plain
    assert not re.search(rb"[^\n -~]", plain), plain

    controller, terminal = pty.openpty()
    with subprocess.Popen([BUILD / "boardtap", "--view", recording], stdin=subprocess.DEVNULL, stdout=terminal,
                          env=os.environ | {"TERM": "xterm", "LC_ALL": "C.UTF-8"}) as process:
        os.close(terminal)
        drawn = b""
        try:
            while data := os.read(controller, 1 << 16):
                drawn += data
        except OSError:
            pass  # the other end is closed
        os.close(controller)
    assert process.returncode == 0
    assert b"?]0;own??2J?[31m" in drawn and b"\x1b[?1049h" in drawn, drawn
    rest = re.sub(rb"\x1b\[(\?1049[hl]|\?25[hl]|\?7[hl]|H|K|J)", b"", drawn)
    assert not re.search(rb"[^\r\n -~]", rest), rest


def stoppedTerminalDoesNotStopTheLine(folder):
    controller, terminal = pty.openpty()
    with board(folder), Program(BUILD / "boardtap", "--device", folder / "board", "--link", folder / "line", "--view", "-",
                                stdout=terminal, env=os.environ | {"TERM": "xterm"}) as tap:
        with Line(folder / "line") as line:
            await_("no picture", lambda: b"nothing yet" in os.read(controller, 1 << 16))
            termios.tcflow(terminal, termios.TCOOFF)
            limit = time.monotonic() + 1  # some pictures long
            while time.monotonic() < limit:
                assert len(line.ask(QUERY, 36)) == 36
            termios.tcflow(terminal, termios.TCOON)
            await_("no further picture", lambda: b'board      "V4.1.3"' in os.read(controller, 1 << 16))
        tap.process.send_signal(signal.SIGTERM)
        shown = b""
        while b"end of the watch" not in shown:
            shown += os.read(controller, 1 << 16)
        assert shown.index(b"\x1b[?1049l") < shown.index(b"end of the watch"), shown
    os.close(terminal)
    os.close(controller)


# Without a terminal

def plainLinesWithoutATerminal(folder):
    del folder
    for environment in ({}, {"TERM": "dumb"}):
        found = subprocess.run([BUILD / "boardtap", "--view", NAK_RECORDING], stdin=subprocess.DEVNULL,
                               stdout=subprocess.PIPE, env=os.environ | environment, check=True, timeout=WAIT_S).stdout
        lines = [line[10:] for line in found.decode().splitlines()]
        assert lines == [
            'board "V4.1.3"', "board enters its boot loader", 'transfer of "UpdataSystem.bin", 2500 bytes',
            "blocks: 1 of 3 (33 %)", lines[4], "refused: NAK to block 2 of 3, 1024 bytes of data", "transfer: not complete",
            "end of the recording"], lines
        assert re.fullmatch(r"blocks: 2 of 3, \d+ a second, about 1 s left \(66 %\)", lines[4]), lines[4]


def statusTellsOfViolations(folder):
    recording = folder / "bad.recording"
    recording.write_text(HEAD + f"1.000 -> {QUERY[:-1].hex(' ')} e6\n")
    found = subprocess.run([BUILD / "boardtap", "--view", recording], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                           check=False, timeout=WAIT_S)
    assert found.returncode == 1, found
    assert b"    1.000 malformed: foot is 0xe6, not 0xe7\n" in found.stdout, found.stdout


def faultsAreOneSentence(folder):
    broken = folder / "broken.recording"
    broken.write_text(HEAD + "1.000 -> e7\nnonsense\n")
    empty = folder / "empty.recording"
    empty.touch()
    for file, text in (
            (folder / "missing", f"cannot read {folder}/missing: No such file or directory"),
            (folder, f"{folder} is no recording"),
            (broken, f'{broken}: line 5: "nonsense" is no time like 1.234'),
            (empty, f'{empty}: line 1: no recording: it begins with "", not with "serial line recording 1"'),
            ("/dev/null", '/dev/null: line 1: no recording: it begins with "", not with "serial line recording 1"')):
        found = subprocess.run([BUILD / "boardtap", "--view", file], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                               stderr=subprocess.PIPE, check=False, timeout=WAIT_S)
        assert (found.returncode, found.stderr.decode()) == (3, f"boardtap: {text}\n"), found


def lostTranscriptIsAFault(folder):
    del folder
    found = subprocess.run([BUILD / "boardtap", "--view", RECORDING, "--transcript", "/dev/full"], stdin=subprocess.DEVNULL,
                           stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, check=False, timeout=WAIT_S)
    assert (found.returncode, found.stderr) == (3, b"boardtap: cannot write /dev/full: No space left on device\n"), found


def recordingThatBeginsAgainIsAFault(folder):
    recording = folder / "the.recording"
    with board(folder), Program(BUILD / "boardtap", "--device", folder / "board", "--link", folder / "line", "--record",
                                recording, stdout=subprocess.DEVNULL), Line(folder / "line") as line:
        line.ask(QUERY, 36)
        view = subprocess.Popen([BUILD / "boardtap", "--view", recording], stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        await_("no line", lambda: b'board "V4.1.3"' in view.stdout.readline())
        os.truncate(recording, 0)
        _, told = view.communicate(timeout=WAIT_S)
        assert (view.returncode, told.decode()) == (3, f"boardtap: {recording} has been begun again\n"), told
