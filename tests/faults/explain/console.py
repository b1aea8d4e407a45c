"""Reads what a console printed, of any size: keeps what tells of an update, in bounded memory."""

import collections
import io
import itertools
import re

from .known import BLOCK, KILL, canonical

PIECE = 1 << 16  # bytes read at a time
LINE = 1000  # bytes that are kept of a line
MOST = {"begins": 4, "runs": 20, "own": 5000, "results": 2000, "packages": 2000, "texts": 200, "unknown": 10}

ESCAPES = re.compile(r"(?:\x1b\[|\x9b)[0-?]*[ -/]*[@-~]|(?:\x1b[\]PX^_]|[\x90\x98\x9d-\x9f])[^\n\x07\x1b\x9c]*"
                     r"(?:\x07|\x1b\\|\x9c)?|\x1b[ -/]*[0-~]?")
C1 = re.compile("[\x1b\x80-\x9f]")  # where a sequence begins
# What a recorder or the system log puts before each line.
KERNEL = re.compile(r"(?:<\d+>)?\[ *\d+\.\d{3,9}(?: +\d+\.\d+)?\]:? ?")
STAMP = re.compile(
    KERNEL.pattern +
    r"|[\[(]?\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d(?:[.,]\d+)?(?:Z| ?[+-]\d\d:?\d\d)?[\])]?[ :>|-]*"
    r"|[\[(]?\d\d:\d\d:\d\d(?:[.,:]\d+)?[\])]?[ :>|-]*"
    r"|(?:<\d+>)?[A-Z][a-z]{2} [ \d]\d \d\d:\d\d:\d\d \S+ (?:[a-z]\w*\.\w+ )?[\w./-]+(?:\[\d+\])?: ?")
STAMP_BEGINS = frozenset("<[(0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ")
BOOT = re.compile(r"\[ *0\.000000\] (?:Booting |Linux version )")

# The program's other lines.
STAGED = re.compile(r"ota=================\s+(true|false)")
LISTING = re.compile(r"sys_line:ls (\S+)")
NO_IMAGE = re.compile(r"\bls: .*\*\.bin\b")
RESULT = re.compile(r"result:\s+(-?\d+)\s+index:\s+(\d+)\s+ipkList\.length:\s+(\d+)")

# The package manager's lines that name the package it works on.
INSTALLS_WORDS = ("Installing", "Upgrading", "Downgrading", "Reinstalling", "Configuring")
INSTALLS = re.compile(rf"^(?:{'|'.join(INSTALLS_WORDS)}) ([\w.+-]*\w)\b")
# A package whose upgrade was cut off: said by each call until the package is installed again.
CUT_OFF = re.compile(r"pkg_get_installed_files: Failed to open /+var/lib/opkg/info/(\S+)\.list: ")
# What its messages look like, and those of commands. Nothing is concluded from them: they are shown when no
# row has them.
MESSAGE_WORDS = ("rror", "ERROR", "arning", "WARNING", "ailed", "FAILED", "annot", "not found", "Killed",
                 "Segmentation fault", "opkg: ", " * ")

# What of the knowledge a block of lines has: most have little, and only that is looked for in each line.
Present = collections.namedtuple("Present", "own course texts installs messages")

ESCAPES_IN_BYTES = re.compile(rb"\x1b\[[0-?]*[ -/]*[@-~]|\x1b\][^\x07\x1b\n]*\x07?")


class Run:
    """One run of the program, as far as the console shows it."""

    def __init__(self, number):
        self.first_line = self.last_line = number
        self.kills = 0  # how often it was to end an earlier instance
        self.staged = None  # packages were staged when it started; None: its start is not there
        self.clicked = False  # the button was pressed
        self.has_image = False  # an application image was there for it
        self.begun = False  # packages are being installed
        self.own = []  # the program's own lines, canonical; an inner block that follows like the one before is left out
        self.block = None  # the last block that was sent, and how many there are
        self.results = []  # (status, index, number of packages)
        self.last_result_line = 0
        self.packages = {}  # index: name
        self.current = ""  # name of the package whose result is not there yet
        self.texts = {}  # (texts of rows, the longest of them that is there to the letter): their first line
        self.cut_off = {}  # name of a package that an earlier run has left cut off: what `texts` has of it
        self.unknown = {}  # message that no row has: [number of its first line, how often]
        self.more_unknown = 0
        self._inner_block = 0  # place in `own` behind the last block that is neither the first nor the last one

    @property
    def has_start(self):
        return self.staged is not None

    @property
    def has_content(self):
        return bool(self.own or self.results or self.clicked or self.begun)

    def add_own(self, line):
        if len(self.own) >= MOST["own"]:
            return
        self.own.append(line)
        block = BLOCK.match(line)
        if block and (block[2], block[3]) == ("2", "3"):
            answered = self.own[self._inner_block:]
            if self.own[:self._inner_block][-len(answered):] == answered:
                del self.own[self._inner_block:]
            else:
                self._inner_block = len(self.own)

    def add_result(self, status, index, count):
        if len(self.results) >= MOST["results"]:
            del self.results[MOST["results"] // 2]
        self.results.append((status, index, count))
        if self.current and len(self.packages) < MOST["packages"]:
            self.packages[index] = self.current
        if status == 0 and self.current in self.cut_off:
            evidence = self.cut_off.pop(self.current)
            if evidence not in self.cut_off.values():
                self.texts.pop(evidence, None)
        self.current = ""

    def add_unknown(self, text, number):
        if text in self.unknown:
            self.unknown[text][1] += 1
        elif len(self.unknown) < MOST["unknown"]:
            self.unknown[text] = [number, 1]
        else:
            self.more_unknown += 1


class Console:
    """The runs on a console; feed it lines, then close() it."""

    def __init__(self, knowledge):
        self._known = knowledge
        self.runs = []  # the last ones
        self.dropped_runs = 0
        self._fragment = ""  # of a line that the kernel has interrupted
        self._texts = [(_longest_part(loose), loose, text) for text, loose in knowledge.texts.items()]
        self._starting = {text for row in knowledge.rows if row.pattern.fit([]) == "whole" and not row.screen
                          for text in row.also}  # all that some starts print
        self._course_words = ("ota===", "sys_line:", "ipkList.length", "ls: ")
        words = (*knowledge.own_words, *self._course_words, "[    0.000000]", "can't", *(part for part, _, _ in self._texts))
        self._words = [word.encode() for word in words]
        self._message_words = [word.encode() for word in MESSAGE_WORDS + INSTALLS_WORDS]
        self._all = Present(True, True, self._texts, True, MESSAGE_WORDS)
        self._present = self._all  # in the block that is fed
        self._own = {}  # text: what _own_line() has found in it
        self._booted = False
        self._before = {}  # texts of rows that came before a run is seen: its beginning may be lost
        self._dull = set()  # raw lines of which nothing is kept

    def _run(self, number, new=False):
        if new or not self.runs or self._booted:
            if len(self.runs) == MOST["runs"]:
                del self.runs[0]
                self.dropped_runs += 1
            self.runs.append(Run(number))
            self.runs[-1].texts, self._before = self._before, {}
            self._booted = False
        run = self.runs[-1]
        run.last_line = number
        return run

    def may_say_something(self, block):
        """Whether to feed the lines of the block: quickly, since most of a large input says nothing."""
        if self._fragment:
            return True
        if b"\x1b" in block:
            block = ESCAPES_IN_BYTES.sub(b"", block)
        return any(word in block for word in self._words) or bool(self.runs) and any(
            word in block for word in self._message_words)

    def feed_block(self, block, number, is_whole):
        """Lines, without the end of the last one. The last one of all may be a part. `number` is that of the first."""
        text = cleaned(block)
        self._present = Present(
            own=any(word in text for word in self._known.own_words),
            course=any(word in text for word in self._course_words),
            texts=self._texts if "can't" in text else [known for known in self._texts if known[0] in text],
            installs=any(word in text for word in INSTALLS_WORDS),
            messages=[word for word in MESSAGE_WORDS if word in text])
        for number, line in enumerate(text.split("\n"), number):
            if line:
                self._feed_line(printable(line[:LINE]), number, is_whole)

    def _feed_line(self, text, number, is_whole):
        if not self._fragment:
            if text in self._dull:
                return
            if text in self._own and self._take_own(text, number):
                return
        if "0.000000]" in text and BOOT.search(text):
            self._booted = bool(self.runs)
            self._before.clear()
        bare = unstamped(text)
        interruption = "[" in bare and KERNEL.search(bare)
        if self._fragment and not KERNEL.match(text):
            if self._feed(self._fragment + bare, number, False, self._all):
                self._fragment = ""
                return
            self._feed(self._fragment, number, False, self._all)
            self._fragment = ""
        elif interruption and interruption.start() > 0:
            head = bare[:interruption.start()]
            if not self._take_own(head, number):
                self._fragment = head
            return
        is_telling = self._feed(bare, number, is_whole and not KERNEL.match(text), self._present)
        if not is_telling and self.runs and not self._booted:
            if len(self._dull) >= 1000:
                self._dull.clear()
            self._dull.add(text)

    def close(self):
        if self._fragment:
            self._feed(self._fragment, self.runs[-1].last_line if self.runs else 1, False, self._all)

    def _feed(self, text, number, may_be_unknown, present):
        """Takes a clean line. Returns whether it says anything."""
        if present.own and self._take_own(text, number) or present.course and self._take_course(text, number):
            return True
        found, evidence = frozenset(), None
        if present.texts:
            text = text.replace("can't", "cannot")  # as other machines' commands say it
            found = frozenset(row_text for part, loose, row_text in present.texts if part in text and loose.search(text))
            evidence = found, max((row_text for row_text in found if row_text in text), key=len, default="")
        if not found.isdisjoint(self._starting):
            run = self.runs[-1] if self.runs else None
            self._run(number, run is not None and (run.has_start or run.has_content))
        elif not self.runs or self._booted:
            if found and len(self._before) < MOST["texts"]:
                self._before.setdefault(evidence, number)
            return bool(found)
        if found and len(self.runs[-1].texts) < MOST["texts"]:
            run = self._run(number)
            run.texts.setdefault(evidence, number)
            cut_off = CUT_OFF.search(text)
            if cut_off and len(run.cut_off) < MOST["packages"]:
                run.cut_off[cut_off[1][:100]] = evidence
        installs = present.installs and INSTALLS.match(text)
        if installs:
            run = self._run(number)
            run.current, run.begun = installs[1][:100], True
            return True
        if found:
            return True
        is_message = any(word in text for word in present.messages) or present.own and self._known.own_begin.match(text)
        if may_be_unknown and is_message:
            self._run(number).add_unknown(text[:200], number)
            return True
        return False

    def _take_own(self, text, number):
        """A line of the program that the rows have, whatever stands before it."""
        if text not in self._own:
            if len(self._own) >= 1000:
                self._own.clear()
            self._own[text] = self._own_line(text)
        own, block = self._own[text]
        if own is None:
            return False
        if own == KILL:
            run = self.runs[-1] if self.runs else None
            run = self._run(number, run is None or run.has_start or run.has_content)
            run.kills += 1
            return True
        run = self._run(number)
        if block:
            run.block = int(block[2]), int(block[3])
        run.add_own(own)
        return True

    def _own_line(self, text):
        """(canonical line, its match of BLOCK), or (None, None)."""
        for begin in itertools.islice(self._known.own_begin.finditer(text), MOST["begins"]):
            line = text[begin.start():].rstrip()
            own = canonical(line)
            if own in self._known.own_lines:
                return own, BLOCK.match(line)
        return None, None

    def _take_course(self, text, number):
        """What tells how far the program is."""
        staged, listing, result = STAGED.search(text), LISTING.search(text), RESULT.search(text)
        if staged:
            run = self._run(number)
            if run.has_start and (run.staged or run.has_content) or run.results or run.own:
                run.begun = self._begun_before  # the listing was the next run's
                run = self._run(number, new=True)
            if not run.has_start:  # its beginning is not lost
                run.texts = {found: line for found, line in run.texts.items() if line >= run.first_line}
            run.staged = staged[1] == "true"
            self._staged_listings = 0
        elif listing:
            self._take_listing(listing[1], number)
        elif result:
            run = self._run(number)
            status, index, count = map(int, result.groups())
            if run.results and index <= run.results[-1][1]:
                current = run.current
                run = self._run(number, new=True)
                run.current = current
            run.begun = True
            run.add_result(status, index, count)
            run.last_result_line = number
        elif text.startswith("ls: "):  # nothing to list
            if self.runs and NO_IMAGE.search(text):
                self.runs[-1].has_image = False
        else:
            return False
        return True

    _begun_before = False
    _staged_listings = 0

    def _take_listing(self, pattern, number):
        """A listing is made at the start, for the button, and before the first package is installed."""
        run = self._run(number)
        if pattern.startswith("/tmp/ota/"):
            self._begun_before = run.begun
        if not run.has_start:
            return
        if pattern.endswith(".bin"):
            run.clicked, run.begun, run.has_image = True, False, True
        elif not pattern.startswith("/tmp/ota/"):
            run.begun = False
            self._staged_listings = 0
        else:
            self._staged_listings += 1
            run.begun = self._staged_listings > 1 if run.staged else run.clicked


def cleaned(block):
    """The text of lines, without the escape sequences that a terminal would obey."""
    text = block.decode("utf-8", "replace").replace("\r", "").replace("\t", " ")
    return ESCAPES.sub("", text) if C1.search(text) else text


def printable(line):
    return line if line.isprintable() else "".join(filter(str.isprintable, line))


def unstamped(text):
    for _ in range(3):
        if text[:1] not in STAMP_BEGINS:
            break
        stamp = STAMP.match(text)
        if not stamp or stamp.end() == 0:
            break
        text = text[stamp.end():]
    return text


def _longest_part(loose):
    """Text that each line has in which the expression is found."""
    parts = re.split(r"\[\^\\s'\\\"\]\+", loose.pattern)
    return max((re.sub(r"\\(.)", r"\1", part) for part in parts), key=len)


def blocks_of(stream, progress=None):
    """(whole lines, whether the last one has an end) of a binary file. Of a long line only the beginning is kept."""
    rest, size = b"", 0
    while True:
        piece = stream.read(PIECE)
        if not piece:
            break
        size += len(piece)
        if progress:
            progress(size)
        end = piece.rfind(b"\n") + 1
        if end:
            yield rest + piece[:end], True
            rest = piece[end:][:LINE]
        else:
            rest = (rest + piece)[:LINE]
    if rest:
        yield rest, False


def read(source, knowledge, progress=None):
    """The Console of a text, of bytes or of a binary file. `progress` is called with the bytes read so far."""
    if isinstance(source, str):
        source = source.encode("utf-8", "replace")
    if isinstance(source, (bytes, bytearray)):
        source = io.BytesIO(source)
    console = Console(knowledge)
    number = 0
    for block, has_end in blocks_of(source, progress):
        if console.may_say_something(block):
            console.feed_block(block[:-1] if has_end else block, number + 1, has_end)
        number += block.count(b"\n")
    console.close()
    return console
