"""scripts/draw-recording: the fields of each frame, the page of a recording, also in a real browser."""

import binascii
import html
import os
import pathlib
import re
import signal
import subprocess
import sys
import unicodedata

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT), str(PROJECT / "tests/rehearsal")]

from browser import check_page  # noqa: E402
from rehearsal.recording.events import Event  # noqa: E402
from rehearsal.recording.fields import ELASTIC, MEASURED, Layouts, tables_of  # noqa: E402
from rehearsal.recording.page import as_html  # noqa: E402
from report_samples import HOSTILE  # noqa: E402
from tst_report import ADDRESSES, Page  # noqa: E402

WIRE_FORMATS = (PROJECT / "docs/wire-formats.md").read_text("utf-8")
LAYOUTS = Layouts(WIRE_FORMATS)
RECORDINGS = PROJECT / "tests/recordings"
HEAD = "serial line recording 1\nspeed: 115200\nboardtap: 1\n"
QUERY = bytes.fromhex("e71eff0000000000000000000f003700000100000000087100000000dde7")


def draw(recording, page):
    return subprocess.run([PROJECT / "scripts/draw-recording", "--build", os.environ["BUILD"], recording, page],
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)


def drawn(folder, recording):
    page = folder / "page.html"
    done = draw(recording, page)
    assert (done.returncode, done.stdout.decode()) == (0, f"{page}\n"), done
    return page


def own(folder, text, head=HEAD):
    recording = folder / "own.recording"
    recording.write_text(head + text, "utf-8", "surrogateescape")
    return recording


def record(at, mark, data):
    return f"{at}.000 {mark} " + "\n      ".join(data[i:i + 32].hex(" ") for i in range(0, len(data), 32)) + "\n"


def records(*frames):
    """A frame a second."""
    return "".join(record(at, *frame) for at, frame in enumerate(frames))


def block(number, payload):
    return bytes([1 if len(payload) == 128 else 2, number % 256, 255 - number % 256]) + payload + crc(payload)


def start_frame(size):
    return block(0, (b"a.bin\0" + f"{size:x}".encode()).ljust(128, b"\0"))


def words(page):
    """The text of the body, with one blank between two elements."""
    body = page.read_text("utf-8").partition("<body>")[2]
    return re.sub(r"\s+", " ", html.unescape(re.sub("<[^>]*>", " ", body)))


# The fields

def everyDrawnTableFitsItself(folder):
    del folder
    tables = list(tables_of(WIRE_FORMATS))
    assert len(tables) == WIRE_FORMATS.count("```frame") + 6, len(tables)  # six blocks draw two frames
    for table in tables:
        assert [row.offset for row in table.rows] == \
            [sum(row.width for row in table.rows[:number]) for number in range(len(table.rows))], table
        assert sum(row.width for row in table.rows) == table.size, table
    contents = [row.content for table in tables for row in table.rows]
    for begin in (*MEASURED, *ELASTIC):
        assert any(content.startswith(begin) for content in contents), begin


def unfolded(mark, meaning, frame, violations=()):
    table, fields = LAYOUTS.unfold(mark, meaning, frame, violations)
    return table and table.title, [(field.offset, field.width, field.bytes, field.row and field.row.content) for field in fields]


def startFrameIsCutAtItsTexts(folder):
    del folder
    frame = b"\x01\x00\xff" + b"a.bin\x00ff".ljust(128, b"\0") + b"\x12\x34"
    title, fields = unfolded("->", 'start frame: "a.bin", 255 bytes (hex ff), blocks to come: 1', frame)
    assert title.startswith("start frame"), title
    assert fields[3:] == [(3, 5, "61 2e 62 69 6e", "file name"), (8, 1, "00", "end of the name"),
                          (9, 2, "66 ...", "size in lower-case hexadecimal digits: 5dc"),
                          (11, 120, "00 ...", "end of the size, then zeros"), (131, 2, "12 34", "CRC of the payload")], fields
    assert unfolded("->", "bad start frame", b"\x01\x00\xff" + b"a" * 130) == (None, [])


def blocksAreDrawnByTheirData(folder):
    del folder
    for count, widths in ((1024, [1, 1, 1, 1024, 2]), (10, [1, 1, 1, 10, 1014, 2]), (0, [1, 1, 1, 1024, 2])):
        frame = b"\x02\x01\xfe" + bytes(range(4)) * 256 + b"\x12\x34"
        _, fields = unfolded("->", f"block 1 of 2, {count} bytes of data", frame)
        assert [width for _, width, _, _ in fields] == widths, (count, fields)
        assert (fields[3][3] == "padding") == (count == 0), fields
    _, fields = unfolded("->", "bad block 7 of 9", b"\x02\x01\xfe" + bytes(1026))
    assert [content for _, _, _, content in fields][3] == "data", fields


def brokenFrameLacksItsEnd(folder):
    del folder
    title, fields = unfolded("->", "broken frame", b"\x02\x01\xfe" + bytes(500), ["frame broke off after 503 of 1029 bytes"])
    assert title.startswith("block 1"), title
    assert fields[-2:] == [(3, 1024, "00 ...", "data"), (1027, 2, "", "CRC of the payload")], fields
    for payload, kind, rows in (
            (b"", "start frame", [(3, 0, "", "file name"), (3, 1, "", "end of the name")]),
            (b"a.b", "start frame", [(3, 3, "61 2e 62", "file name"), (6, 1, "", "end of the name")]),
            (b"a\x0005", "start frame", [(3, 1, "61", "file name"), (4, 1, "00", "end of the name"),
                                      (5, 2, "30 35", "size in lower-case hexadecimal digits: 5dc")]),
            (b"\0\0", "end frame", [(3, 128, "00 ...", "no file name: there is no further file")])):
        frame = b"\x01\x00\xff" + payload
        title, fields = unfolded("->", "broken frame", frame, [f"frame broke off after {len(frame)} of 133 bytes"])
        assert title and title.startswith(kind) and fields[3:3 + len(rows)] == rows, (payload, title, fields)
        assert fields[-1] == (131, 2, "", "CRC of the payload"), fields
    title, _ = unfolded("->", "broken frame", b"\xae\0\0\0\1", ["frame broke off after 5 of 64 bytes"])
    assert title == "connect packet", title


def furtherBytesAreShown(folder):
    del folder
    assert unfolded("<-", "ACK and 'C'", b"\x06" + b"C" * 9)[1] == [
        (0, 1, "06", "send the next frame"), (1, 1, "43", "in the same read as the ACK: not examined"), (2, 8, "43 ...", None)]
    assert unfolded("<-", "console text \"x\"", b"x") == (None, [])


def answersOfAnyLengthAreUnfolded(folder):
    del folder
    sum_, foot = "examined only as part of the sum", "foot; the sum is compared with this byte"
    for size in (18, 25):
        frame = b"\xe7" + bytes([size]) + bytes(size - 4) + b"\x12\xe7"
        _, fields = unfolded("<-", "start command answer", frame)
        assert [(offset, width, content) for offset, width, _, content in fields][2:] == \
            [(2, size - 4, sum_), (size - 2, 1, "checksum, not examined"), (size - 1, 1, foot)], fields
    for meaning, start in (("V3 handshake answer", 29), ("V4 handshake answer", 32)):
        for parameters, widths in ((b"AB_1.0\0\0", [3, 3, 2]), (b"AB_1.0", [3, 3, 0]), (b"AB-1.0\0\0", [8, 0, 0]), (b"", [0, 0, 0])):
            frame = b"\xe7" + bytes(start - 1) + parameters + b"\0\xe7"
            title, fields = unfolded("<-", meaning, frame)
            assert title == meaning, (title, parameters)
            assert [width for _, width, _, _ in fields][-5:] == [*widths, 1, 1], (parameters, fields)
            assert fields[-1][::2] == (len(frame) - 1, "e7") and fields[-5][0] == start, (parameters, fields)
        _, fields = unfolded("<-", f"bad {meaning}", b"\xe7" + bytes(start - 1) + b"AB_1", [f"answer broke off after {start + 4} of {start + 44} bytes"])
        assert [data for _, _, data, _ in fields][-5:] == ["41 42 5f", "31", "", "", ""], fields


def everyRecordedFrameIsUnfolded(folder):
    for recording in RECORDINGS.glob("*.recording"):
        text = drawn(folder, recording).read_text("utf-8")
        missing = text.count("draws no frame like this one")
        others = len(re.findall(r"<summary>(?:(?!</summary>).)*(?:console text|unexpected bytes|garbage)", text, re.DOTALL))
        assert missing == others, (recording, missing, others)
        assert text.count("<details") > 3, recording


# The page

def updateIsAllInOrder(folder):
    page = drawn(folder, RECORDINGS / "boardsim-update.recording")
    assert Page(page.read_text("utf-8")).sections == ["timeline", "frames", "recording"]
    shown = words(page)
    for text in ("Recording of the serial line boardsim-update.recording", "Every frame is in order",
                 "“UpdataSystem.bin”, 2.5 kB: the transfer is complete.", "Refused by the board 0 Violations 0",
                 "3 blocks of the transfer, each taken at once", "1.613 → version query 30 bytes",
                 "4.330 → block 1 of 3, 1024 bytes of data 1,029 bytes", "19 1 00 00 end of the name",
                 "beside block 1 of 2, 1024 bytes of data as drawn in docs/wire-formats.md", "115200 baud"):
        assert text in shown, (text, shown)


def verdictSaysWhatWentWrong(folder):
    files = {name: (RECORDINGS / f"boardsim-{name}.recording").read_text() for name in ("update", "hang-up-block-first")}
    bad = files["update"].replace("dd e7", "dc e7", 1)
    for text, headline, more in (
            (files["update"] + "   99.000 <- 18 18\n", "The board refused frames", "Refused after 1 min 39 s: CA CA to"),
            (bad, "1 violation on the serial line", "checksum is 0xdc, not 0xdd"),
            (files["hang-up-block-first"].rstrip() + "\n", "The device went away", "device away, failed"),
            (files["update"].partition("# block 3")[0], "The transfer is not complete", "the board took 2 of 3 blocks, then"),
            (HEAD + f"1.000 -> {QUERY.hex(' ')}\n", "Every frame is in order", "No firmware was transferred."),
            (HEAD, "Nothing went over the line", "there is no time line")):
        page = drawn(folder, own(folder, text, head=""))
        found = page.read_text("utf-8")
        assert f"<h1>{headline}</h1>" in found, (headline, re.search("<h1>.*</h1>", found))
        assert more in words(page), (more, words(page))


def transfer(*blocks):
    """A transfer of 1500 bytes. Each block is its number and the reply."""
    data = {1: bytes(1024), 2: bytes(476) + b"\x1a" * 548}
    return [("<-", b"C"), ("->", start_frame(1500)), ("<-", b"\6C"),
            *(frame for number, reply in blocks for frame in (("->", block(number, data[number])), ("<-", reply))),
            ("->", b"\4"), ("<-", b"\6C"), ("->", block(0, bytes(128))), ("<-", b"\6")]


def verdictTellsHowATransferEnded(folder):
    usual = transfer((1, b"\6"), (2, b"\6"))
    for frames, headline, meaning in (
            (usual, "Every frame is in order", "“a.bin”, 1.5 kB: the transfer is complete."),
            (usual[:4] + [("<-", b"\xa5")] + usual[4:], "1 violation on the serial line", "the transfer is complete."),
            (usual[:2] + [("<-", b"\x15")] + usual[1:], "The board refused frames", "“a.bin”, 1.5 kB: the transfer is complete."),
            (transfer((1, b"\x15"), (1, b"\6"), (2, b"\6")), "The board refused frames", "the transfer is complete."),
            (transfer((1, b"\x15"), (2, b"\6")), "The board refused frames", "the board took 1 of 2 blocks."),
            (transfer((1, b"C"), (2, b"\6")), "The transfer is not complete", "the board took 1 of 2 blocks."),
            (usual[:5], "The transfer is not complete", "the board took 1 of 2 blocks, then the transfer ended."),
            ([*usual, ("<-", b"boot\n"), *usual[:5]], "The transfer is not complete", "2 transfers, 1 of them complete.")):
        page = drawn(folder, own(folder, records(*frames)))
        assert f"<h1>{headline}</h1>" in page.read_text("utf-8"), (headline, meaning, words(page)[:300])
        assert meaning in words(page), (meaning, words(page)[:300])


def allExchangesAndBlocksCount(folder):
    frames = [("->", "version query")] * 2500 + [("->", 'start frame: "a.bin", 5000000 bytes (hex 4c4b40), blocks to come: 4883')]
    for number in range(1, 4301):
        frames += [("->", f"block {number} of 4883, 1024 bytes of data"), ("<-", "ACK")]
    page = folder / "page.html"
    page.write_text(as_html("name", {"speed": 115200, "boardtap": "1", "program": "", "board": ""},
                            [Event(number, number / 100, mark, meaning, b"x", []) for number, (mark, meaning) in enumerate(frames)]))
    for told in ("Blocks 4,300", "the board took 4,300 of 4,883 blocks, then", "4,300 blocks of the transfer", "1,501 steps not drawn"):
        assert told in words(page), (told, words(page)[:3000])


def recordingIsNotReplaced(folder):
    recording = own(folder, HEAD, head="")
    (folder / "link").symlink_to(recording)
    for page in (recording, folder / "link"):
        done = draw(recording, page)
        assert (done.returncode, done.stdout) == (2, b""), done
        assert done.stderr.decode() == f"draw-recording: {page} is the recording, which the page would replace\n", done
    assert recording.read_text() == HEAD


def malformedFramesAreOpen(folder):
    text = "".join(f"{number}.000 -> {QUERY[:-1].hex(' ')} e6\n" for number in range(1, 31))
    page = drawn(folder, own(folder, text)).read_text("utf-8")
    assert len(re.findall(r'<details class="event bad"[^>]* open>', page)) == 20
    assert page.count('<details class="event bad"') == 30


def pageIsCompleteInItself(folder):
    page = Page(drawn(folder, RECORDINGS / "boardsim-lose-bytes-block-last.recording").read_text("utf-8"))
    for tag, attribute, value in page.attributes:
        if attribute in ADDRESSES:
            assert value.startswith("data:" if tag != "a" else "#"), (tag, attribute, value)
    assert page.tags.isdisjoint({"script", "iframe", "object", "embed", "form", "base", "img"}), page.tags


def hostile(folder):
    """A recording whose every text is hostile: head, version answer, file name, console text, name of the file."""
    lines, at = [], 1
    for number, text in enumerate(HOSTILE):
        data = text.encode("utf-8", "surrogateescape" if "\ud800" not in text else "surrogatepass")
        name = bytes(byte for byte in data if 0x20 < byte < 0x7f)[:100] or b"x"
        reply = bytearray(36)
        reply[0], reply[1], reply[35] = 0xE7, 36, 0xE7
        reply[16:34] = data[:18].ljust(18, b"\0")
        reply[34] = sum(reply[1:34]) & 0xFF
        header = (name + b"\0" + (b"5dc" if number % 2 else name[:8])).ljust(128, b"\0")[:128]
        frame = block(0, header)
        for mark, piece in (("->", QUERY), ("<-", bytes(reply)), ("<-", data[:300]), ("<-", b"C"), ("->", frame), ("->", data[:300])):
            lines.append(record(at, mark, piece))
            at += 1
    recording = folder / "<img src=x onerror=window.owned=1>\u202e.recording"
    recording.write_text("serial line recording 1\nspeed: 115200\nboardtap: </title><script>window.owned=1</script>\n"
                         f"program: {HOSTILE[1]}\nboard: \x1b[31m\u202e{HOSTILE[2]}\n" + "".join(lines), "utf-8")
    return recording


def crc(data):
    return binascii.crc_hqx(data, 0).to_bytes(2, "big")


def hostileTextIsShownAndNotInterpreted(folder):
    usual = Page(drawn(folder, RECORDINGS / "boardsim-lose-bytes-block-last.recording").read_text("utf-8")).tags
    text = drawn(folder, hostile(folder)).read_text("utf-8")
    page = Page(text)
    assert page.tags <= usual | {"pre", "circle", "a"}, page.tags - usual
    assert not [one for one in page.attributes if one[1].startswith("on")], page.attributes
    bad = {character for character in text if unicodedata.category(character) in ("Cc", "Cf", "Cs", "Zl", "Zp", "Cn")}
    assert bad == {"\n"}, bad
    assert r"\x1b[31m\u202e</title></style>" in page.text
    assert "<script>window.owned=1</script>" in page.text


def many(folder):
    lines = []
    for number in range(6000):
        foot = "e6" if number in (2500, 2600) else "e7"
        lines.append(f"{number}.000 -> {QUERY[:-1].hex(' ')} {foot}")
    return own(folder, "\n".join(lines) + "\n")


def manyFaultsAreLeftOut(folder):
    text = "".join(f"{number}.000 -- hang-up\n{number}.100 -- return\n{number}.500 <- a5 5a\n" for number in range(2000))
    shown = words(drawn(folder, own(folder, text)))
    assert "2,000 violations" in shown and "and 1,950 more; the frames below show 1,117 of them" in shown, \
        re.findall("and [^.]{80}", shown)


def manyFramesAreLeftOut(folder):
    page = drawn(folder, many(folder))
    text = page.read_text("utf-8")
    left_out = re.findall(r">([\d,]+) events left out here<", text)
    assert left_out == ["1,500", "99", "2,399"], left_out
    assert "6,000 frames" in words(page) and text.count("<details") == 2002, text.count("<details")
    assert len(text) < 7_000_000, len(text)


def faultsAreOneSentence(folder):
    broken = own(folder, "1.000 -> zz\n")
    for recording, page, text in (
            (broken, folder / "page.html", f'{broken}: line 4: "zz" is no byte in two hexadecimal digits'),
            (folder / "missing", folder / "page.html", f"cannot read {folder}/missing: No such file or directory"),
            (RECORDINGS / "boardsim-update.recording", folder / "no/page.html",
             f"cannot write {folder}/no/page.html: No such file or directory")):
        done = draw(recording, page)
        assert (done.returncode, done.stderr.decode(), done.stdout) == (2, f"draw-recording: {text}\n", b""), done
        assert not page.exists()


def interruptEndsItQuietly(folder):
    os.mkfifo(folder / "pipe")
    with subprocess.Popen([PROJECT / "scripts/draw-recording", "--build", os.environ["BUILD"], folder / "pipe", folder / "page.html"],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT) as process, \
            open(folder / "pipe", "w", encoding="utf-8"):  # it reads now
        process.send_signal(signal.SIGINT)
        told = process.stdout.read()
    assert (process.returncode, told) == (-signal.SIGINT, b""), (process.returncode, told)


def tapMakesThePage(folder):
    recording, page = RECORDINGS / "boardsim-update.recording", folder / "tap.html"
    boardtap = [pathlib.Path(os.environ["BUILD"]) / "simulator/boardtap", "--read", recording, "--html"]
    done = subprocess.run([*boardtap, page], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert (done.returncode, done.stdout.decode()) == (0, f"{page}\n"), done
    assert page.read_bytes() == drawn(folder, recording).read_bytes()
    done = subprocess.run([*boardtap, folder / "no/page.html"], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
    assert (done.returncode, len(done.stdout.splitlines())) == (2, 1), done


# In the browser

def updateInTheBrowser(folder):
    check_page(drawn(folder, RECORDINGS / "boardsim-update.recording"), unfold=True)


def handshakesInTheBrowser(folder):
    check_page(drawn(folder, RECORDINGS / "boardsim-handshakes.recording"), unfold=True)


def faultyUpdateInTheBrowser(folder):
    text = (RECORDINGS / "boardsim-lose-bytes-block-last.recording").read_text()
    text = text.replace("dd e7", "dc e7", 1) + "90.000 <- 48 65 6c 6c 6f 0a\n91.000 -- hang-up\n"
    check_page(drawn(folder, own(folder, text, head="")), unfold=True)


def hostileTextInTheBrowser(folder):
    check_page(drawn(folder, hostile(folder)), unfold=True)


def manyFramesInTheBrowser(folder):
    check_page(drawn(folder, own(folder, "".join(f"{number}.000 <- 43\n" for number in range(6000)))))
