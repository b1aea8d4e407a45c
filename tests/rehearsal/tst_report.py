"""The report of a rehearsal: its page, also in a real browser, its JSON and its JUnit XML."""

import html.parser
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import unicodedata
import xml.etree.ElementTree as ElementTree

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT))

import report_samples as samples  # noqa: E402
from browser import PAPER_WIDTH, Browser, check_page  # noqa: E402
from rehearsal import report  # noqa: E402
from rehearsal.report import form, page  # noqa: E402
from rehearsal.report.shown import plain  # noqa: E402

SECTIONS = ["findings", "cause", "packages", "pictures", "timeline", "order", "firmware", "console", "transcript",
            "versions"]
ADDRESSES = ("src", "href", "srcset", "action", "data", "poster", "xlink:href", "background")


class Page(html.parser.HTMLParser):
    """A page taken apart."""

    def __init__(self, text):
        super().__init__()
        self.tags, self.attributes, self.sections, self.texts, self.open = set(), [], [], [], []
        self.feed(text)
        self.close()

    def handle_starttag(self, tag, attrs):
        self.tags.add(tag)
        self.attributes += [(tag, name, value) for name, value in attrs]
        if tag == "section":
            self.sections.append(dict(attrs)["id"])

    def handle_data(self, data):
        self.texts.append(data)

    @property
    def text(self):
        return re.sub(r"\s+", " ", "".join(self.texts))


def written(folder, sample, **changes):
    """The files of the report on a sample: the text of the page, the JSON, the XML, and the facts."""
    facts = samples.ALL[sample](PROJECT, folder) | changes
    path = report.write(facts, folder, junit=folder / "junit.xml")
    return path.read_text("utf-8"), json.loads((folder / "rehearsal.json").read_text("ascii")), \
        ElementTree.parse(folder / "junit.xml").getroot(), facts


def part(text, section):
    """The text of one section of the page."""
    return Page(re.search(rf'<section id="{section}">.*?</section>', text, re.DOTALL)[0]).text


def headline(folder, sample, **changes):
    text = written(folder, sample, **changes)[0]
    return re.search(r"<h1>(.*?)</h1>", text)[1]


# The page

def verdictComesFirst(folder):
    text = written(folder, "failed")[0]
    assert Page(text).sections == SECTIONS, Page(text).sections
    body = Page(text.partition("<body>")[2]).text.strip()
    assert body.startswith("Rehearsal of the folder /home/builder/release-3.1/update_ipk This update fails "
                           "It ends at 30-user-interface_3.1.0.ipk. What to do: Copy the package again"), body[:300]


def verdictAddsTheFindingsToTheRun(folder):
    warning, error = ({"level": level, "package": "", "text": "t", "do": "d"} for level in ("warning", "error"))
    for findings, verdict, expected in (
            ([], "success", "This update works"),
            ([warning], "success", "This update works"),
            ([warning, error], "success", "This update would fail in the field"),
            ([], "failure", "This update fails")):
        own = folder / str(len(list(folder.iterdir())))
        own.mkdir()
        assert headline(own, "good", findings=findings, verdict=verdict) == expected


def verdictSaysWhatToDo(folder):
    error = {"level": "error", "package": "", "text": "t", "do": "change the name"}
    cause = {"seen": "s", "why": "w", "do": "start again", "rows": []}
    for changes, expected in (
            ({"findings": [error], "cause": cause}, "change the name"),
            ({"findings": [error | {"do": ""}], "cause": cause}, "start again"),
            ({"findings": [], "cause": cause | {"do": ""}}, "Read the findings and the console below."),
            ({"findings": [], "cause": None, "packages": []}, "Bring packages, with names that end in .ipk."),
            ({"findings": [error], "timeline": [], "packages": [{"file": "a.ipk"}]}, "It was not run")):
        own = folder / str(len(list(folder.iterdir())))
        own.mkdir()
        header = re.search(r"<header.*</header>", written(own, "failed", **changes)[0], re.DOTALL)[0]
        assert expected in header, (changes, header)


def errorsComeFirst(folder):
    found = part(written(folder, "failed")[0], "findings")
    assert found.index("30-user-interface") < found.index("20-drink-recipes"), found
    assert "2 errors, 1 warning" in found, found


def pageHasEveryFact(folder):
    text, _, _, facts = written(folder, "failed")
    for section, wanted in (
            ("findings", [finding[key] for finding in facts["findings"] for key in ("package", "text", "do")]),
            ("cause", [facts["cause"]["seen"], facts["cause"]["why"], facts["cause"]["do"], *facts["cause"]["rows"]]),
            ("packages", [str(package[key]) for package in facts["packages"]
                          for key in ("file", "name", "version", "previous", "status")] + ["24.1 MB", "0.2 s"]),
            ("pictures", [picture["title"] for picture in facts["pictures"]] + ["This picture is missing."]),
            ("timeline", [entry["label"] for entry in facts["timeline"]] + ["nothing happened here"]),
            ("order", facts["order"]),
            ("firmware", [facts["firmware"]["package"], "262 kB", "257 blocks", "38.4 s"]),
            ("console", facts["console"]),
            ("transcript", ["Nothing went over the serial line."]),
            ("versions", [entry[key] for entry in facts["versions"] for key in ("name", "version")] +
             ["--architecture arm --architecture cortexa9 --stick", "22 November 2026, 10:00 UTC"])):
        shown = part(text, section)
        for one in wanted:
            assert re.sub(r"\s+", " ", one) in shown, (section, one, shown)


def emptyListsSaySo(folder):
    text = written(folder, "empty")[0]
    for section, words in (("findings", "Nothing was found."), ("packages", "There is no package."),
                           ("pictures", "No picture was taken"), ("timeline", "there is no time line"),
                           ("order", "The machine lists no package."), ("firmware", "No package brings firmware"),
                           ("console", "Nothing was printed."), ("transcript", "Nothing went over the serial line."),
                           ("versions", "No versions are known.")):
        assert words in part(text, section), section
    assert "cause" not in Page(text).sections


def pageIsCompleteInItself(folder):
    for name in samples.ALL:
        own = folder / name
        own.mkdir()
        text = written(own, name)[0]
        parsed = Page(text)
        for tag, attribute, value in parsed.attributes:
            if attribute in ADDRESSES:
                assert value.startswith("data:" if tag != "a" else "#"), (tag, attribute, value[:80])
        assert not re.search(r"url\(|@import", text.partition("</style>")[0])
        assert parsed.tags.isdisjoint({"script", "iframe", "object", "embed", "form", "base"}), parsed.tags


def hostileTextIsShownAndNotInterpreted(folder):
    own = folder / "own"
    own.mkdir()
    usual = Page(written(own, "failed")[0]).tags | Page(written(folder, "good")[0]).tags
    theirs = folder / "theirs"
    theirs.mkdir()
    text, _, _, _ = written(theirs, "hostile")
    parsed = Page(text)
    assert parsed.tags <= usual, parsed.tags - usual
    assert not [one for one in parsed.attributes if one[1].startswith("on")]
    bad = {character for character in text if unicodedata.category(character) in ("Cc", "Cf", "Cs", "Zl", "Zp", "Cn")}
    assert bad == {"\n", "\t"}, bad  # the tabulator stands in the console only
    order = part(text, "order")
    for name in samples.HOSTILE:
        if len(name) < 300:
            wanted = re.sub(r"\s+", " ", plain(name, 300, is_name=True))
            assert wanted in order, (wanted, order)
    for escape in (r"\x1b[31mred\x07\x00\x08\r\n\t\x7f\u0085\u009b", r"gpj.\u202ekpi.ipk", r"byte \xff, half \ud800", r"\x20"):
        assert escape in order, escape


def manyBlocksStaySmall(folder):
    text = written(folder, "huge")[0]
    drawing = re.search(r'<section id="timeline">.*?</section>', text, re.DOTALL)[0]
    assert all(path.count("M") <= 1000 for path in re.findall(r' d="([^"]*)"', drawing))
    assert len(drawing) < 150_000, len(drawing)
    assert "5,000 blocks of the transfer, 13 not taken at once" in Page(drawing).text
    assert len(text) < 2_000_000, len(text)


def manyLinesAreLeftOutInTheMiddle(folder):
    lines = [f"line {number} " + "<" * 400 for number in range(4000)]
    shown = part(written(folder, "good", console=lines)[0], "console")
    assert "line 0 <" in shown and "line 3999 <" in shown and "4,000 lines" in shown
    left_out = int(re.search(r"\[([\d,]+) lines left out here\]", shown)[1].replace(",", ""))
    assert shown.count("line ") == 4000 - left_out < 4000, left_out


def transferThatIsShortIsEnlarged(folder):
    assert "transfer, enlarged" in part(written(folder, "good")[0], "timeline")
    own = folder / "huge"
    own.mkdir()
    assert "transfer, enlarged" not in part(written(own, "huge")[0], "timeline")


def onlyPicturesOfTheFolderAreEmbedded(folder):
    outside = folder / "outside.png"
    outside.write_bytes((PROJECT / samples.PICTURE).read_bytes())
    own = folder / "own"
    own.mkdir()
    (own / "good.png").write_bytes(outside.read_bytes())
    (own / "link.png").symlink_to(outside)
    (own / "text.png").write_text("no picture", "ascii")
    os.mkfifo(own / "fifo.png")
    for file, is_embedded in (("good.png", True), ("../own/good.png", True), ("link.png", False), ("../outside.png", False),
                              (str(outside), False), ("text.png", False), ("fifo.png", False), ("none.png", False),
                              (".", False), ("\0", False), ("x" * 5000, False)):
        assert bool(page.embedded(own, {"file": file})) == is_embedded, file


# The files beside it

def sameFactsGiveTheSameBytes(folder):
    code = ("import sys, pathlib; sys.path[:0] = sys.argv[1:3]; import report_samples as s; from rehearsal import report; "
            "f = pathlib.Path(sys.argv[3]); report.write(s.hostile(pathlib.Path(sys.argv[1]), f), f, f / 'junit.xml')")
    contents = []
    for seed in ("1", "2"):
        own = folder / seed
        own.mkdir()
        subprocess.run([sys.executable, "-B", "-c", code, str(PROJECT), str(PROJECT / "tests/rehearsal"), str(own)],
                       env=os.environ | {"PYTHONHASHSEED": seed}, check=True)
        contents.append([(own / name).read_bytes() for name in ("index.html", "rehearsal.json", "junit.xml")])
    assert contents[0] == contents[1]


def namesInTheFactsHaveAFixedOrder(folder):
    facts = samples.good(PROJECT, folder)
    names = list(facts)
    report.write(facts, folder)
    first = (folder / "rehearsal.json").read_bytes()
    random.Random(1).shuffle(names)
    report.write({name: facts[name] for name in names}, folder)
    assert (folder / "rehearsal.json").read_bytes() == first
    assert list(json.loads(first)) == list(form.FACTS)


def jsonHasTheFactsToTheLetter(folder):
    _, found, _, facts = written(folder, "hostile")
    for name, value in facts.items():
        if name != "timeline":  # its entries get the names that they lack
            assert found[name] == value, name


def missingNamesGetTheirDefaults(folder):
    _, found, _, _ = written(folder, "empty")
    assert found == form.FACTS | {"verdict": "failure"}
    _, found, _, _ = written(folder, "empty", packages=[{"file": "a.ipk"}])
    assert found["packages"] == [form.PARTS["packages"] | {"file": "a.ipk"}]


def documentDescribesEveryName(folder):
    del folder
    document = (PROJECT / "docs/rehearsal.md").read_text("utf-8")
    assert f"format {form.FORMAT}." in document
    for section, names in (("facts", form.FACTS), *form.PARTS.items()):
        table = document.partition(f"## `{section}`" if section != "facts" else "## The facts")[2].partition("\n## ")[0]
        described = re.findall(r"^\| `(\w+)` \|", table, re.MULTILINE)
        assert described == list(names), (section, described)


def junitFailsWhereTheFactsDo(folder):
    for sample, failed, skipped in (
            ("good", [], []),
            ("failed", ["30-user-interface_3.1.0.ipk", "inspection", "screen"],
             ["40-control-board-firmware_4.1.3.ipk", "control board"]),
            ("empty", ["screen"], ["control board"])):
        own = folder / sample
        own.mkdir()
        suite = written(own, sample)[2].find("testsuite")
        cases = suite.findall("testcase")
        assert [case.get("name") for case in cases if case.find("failure") is not None] == failed, sample
        assert [case.get("name") for case in cases if case.find("skipped") is not None] == skipped, sample
        assert (suite.get("tests"), suite.get("failures"), suite.get("skipped")) == \
            (str(len(cases)), str(len(failed)), str(len(skipped))), suite.attrib


def junitHasTheFindings(folder):
    suite = written(folder, "failed")[2].find("testsuite")
    case = suite.find("testcase[@name='30-user-interface_3.1.0.ipk']")
    assert "ends at byte 81 920" in case.find("failure").get("message") and "Copy the package" in case.find("failure").text
    assert "Installed-Size" in suite.find("testcase[@name='20-drink-recipes_2.0.1.ipk']/system-out").text
    assert "“Update Fail”" in suite.find("testcase[@name='screen']/failure").get("message")


def junitTakesAnyText(folder):
    suite = written(folder, "hostile")[2].find("testsuite")
    names = [case.get("name") for case in suite.findall("testcase")]
    assert names[:len(samples.HOSTILE)] == [plain(name, is_name=True) for name in samples.HOSTILE], names


def junitNamesAPackageThatIsNoTestCase(folder):
    finding = {"level": "error", "package": ".hidden.ipk", "text": "is hidden", "do": ""}
    suite = written(folder, "good", findings=[finding])[2].find("testsuite")
    assert suite.find("testcase[@name='inspection']/failure").text == ".hidden.ipk: is hidden"


def folderThatCannotBeWrittenIsAnError(folder):
    try:
        report.write(samples.empty(PROJECT, folder), folder / "missing")
    except OSError:
        return
    raise AssertionError("no error")


# The page in a browser

def check_in_the_browser(folder, sample):
    written(folder, sample)
    check_page(folder / "index.html")


def goodUpdateInTheBrowser(folder):
    check_in_the_browser(folder, "good")


def failedUpdateInTheBrowser(folder):
    check_in_the_browser(folder, "failed")


def hostileTextInTheBrowser(folder):
    check_in_the_browser(folder, "hostile")


def hugeUpdateInTheBrowser(folder):
    check_in_the_browser(folder, "huge")


def emptyUpdateInTheBrowser(folder):
    check_in_the_browser(folder, "empty")


def foldedPartsOpen(folder):
    written(folder, "good")
    with Browser() as browser:
        browser.open(folder / "index.html", 400, "light")
        browser.evaluate("document.querySelectorAll('details').forEach(e => e.open = true)")
        assert "Configuring package 39." in browser.evaluate("document.querySelector('#console pre').innerText")
        assert browser.evaluate("document.documentElement.scrollWidth <= innerWidth")


def foldedFindingsArePrinted(folder):
    written(folder, "huge")
    is_shown = "[...document.querySelectorAll('#findings li')].pop().checkVisibility({contentVisibilityAuto: true})"
    with Browser() as browser:
        for medium, expected in (("screen", False), ("print", True)):
            browser.open(folder / "index.html", PAPER_WIDTH, "light", medium)
            assert browser.evaluate(is_shown) == expected, medium


# What the tests above rely on: the browser reports what is wrong.
def browserSeesWhatIsWrong(folder):
    path = folder / "wrong.html"
    with Browser() as browser:
        for body, expected in (
                ("<p style='width: 500px'>wide</p>", "the page is "),
                ("<p style='width: 90px; overflow: hidden; white-space: nowrap'>a text that is longer</p>", "cut: P"),
                ("<p style='color: #aaa'>pale</p>", "hard to read: P"),
                ("<img src='data:image/png;base64,AAAA' alt='broken'>", "a picture is not there: broken"),
                ("<svg width='20' height='20'><text y='15'>longer than this</text></svg>", "cut in the drawing: text")):
            path.write_text(f"<!DOCTYPE html><body style='background: #fff'>{body}", "utf-8")
            seen = browser.open(path, 400, "light")["problems"]
            assert any(problem.startswith(expected) for problem in seen), (body, seen)
        for body in ("<script>throw 1</script>", "<script>console.log('here')</script>",
                     "<meta http-equiv='Content-Security-Policy' content=\"script-src 'none'\"><script>1</script>"):
            path.write_text(f"<!DOCTYPE html>{body}", "utf-8")
            browser.open(path, 400, "light")
            assert browser.messages, body
        path.write_text("<!DOCTYPE html><script>window.owned = 1</script><img src='other.png'>", "utf-8")
        assert browser.open(path, 400, "light")["owned"] == "number"
        assert any(address.endswith("other.png") for address in browser.requests), browser.requests
