"""What scripts/coverage makes of counters, reasons and records."""

import pathlib
import re
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/coverage"))

import lines  # noqa: E402
import screens  # noqa: E402

SOURCE = """\
int first()
{
    if (fails())
        return -1;
    return 0;
}

int second()
{
    return -1;
}
"""
FILE = "src/a.cpp"
IN_FIRST = lines.Place(FILE, "int first()", "return -1;")
IN_SECOND = lines.Place(FILE, "int second()", "return -1;")


def lcov(path, counts):
    return f"SF:{path}\n" + "".join(f"DA:{line},{count}\n" for line, count in counts.items())


class Lines(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.project = pathlib.Path(folder.name).resolve()
        (self.project / "src").mkdir()
        self.write(SOURCE)

    def write(self, text):
        (self.project / FILE).write_text(text, "utf-8")

    def counts(self, *reports):
        counts = {}
        for report in reports:
            lines.add_counts(lcov(self.project / FILE, report), self.project, counts)
        return counts

    def problems(self, report, reasons):
        return lines.problems(self.counts(report), reasons, self.project)

    def test_lineIsReachedWhereAnyProgramReachesIt(self):
        self.assertEqual(self.counts({4: 0}, {4: 2}, {4: 0}), {FILE: {4: 2}})

    def test_onlySourcesOfTheProductCount(self):
        counts = {}
        lines.add_counts(lcov(self.project / "tests/t.cpp", {1: 0}), self.project, counts)
        self.assertEqual(counts, {})

    def test_everyLineReachedIsNoProblem(self):
        self.assertEqual(self.problems({3: 1, 4: 1}, {}), [])

    def test_unreachedLineNeedsAReason(self):
        self.assertEqual(len(self.problems({3: 1, 4: 0}, {})), 1)
        self.assertEqual(self.problems({3: 1, 4: 0}, {IN_FIRST: ["why"]}), [])

    def test_reasonStaysWithALineThatMoves(self):
        self.write("// new\n" + SOURCE)
        self.assertEqual(self.problems({4: 1, 5: 0}, {IN_FIRST: ["why"]}), [])

    def test_sameTextInAnotherFunctionNeedsItsOwnReason(self):
        found = self.problems({4: 0, 10: 0}, {IN_FIRST: ["why"]})
        self.assertEqual(len(found), 1)
        self.assertIn("int second()", found[0])

    def test_sameTextTwiceInAFunctionNeedsTwoReasons(self):
        self.write(SOURCE.replace("    return 0;", "        return -1;"))
        self.assertEqual(len(self.problems({4: 0, 5: 0}, {IN_FIRST: ["why"]})), 1)
        self.assertEqual(self.problems({4: 0, 5: 0}, {IN_FIRST: ["why", "why"]}), [])

    def test_reasonForAReachedLineIsAProblem(self):
        self.assertEqual(len(self.problems({4: 1, 10: 0}, {IN_FIRST: ["why"], IN_SECOND: ["why"]})), 1)

    def test_reasonForALineThatIsGoneIsAProblem(self):
        self.write(SOURCE.replace("return -1;", "return -2;"))
        self.assertEqual(len(self.problems({4: 1, 10: 1}, {IN_FIRST: ["why"]})), 1)

    def test_sourceInNoProgramIsAProblem(self):
        (self.project / "src/b.cpp").write_text(SOURCE, "utf-8")
        self.assertEqual(len(self.problems({3: 1}, {})), 1)

    def test_sourceWithoutCodeIsNoProblem(self):
        (self.project / "src/b.cpp").write_text("const int b = 0;\n", "utf-8")
        self.assertEqual(self.problems({3: 1}, {}), [])


class WrittenReasons(unittest.TestCase):
    def test_eachNamesALineOfTheSources(self):
        for place, texts in lines.load_reasons().items():
            source = (PROJECT / place.file).read_text("utf-8")
            body = re.search(re.escape(place.function) + r"\n\{\n.*?^\}", source, re.DOTALL | re.MULTILINE)
            self.assertTrue(body, place)
            self.assertIn(place.text, body.group(0))
            self.assertTrue(all(text.strip() for text in texts), place)


class Screens(unittest.TestCase):
    LISTING = """\
=== Bytecode for "expression for text" strict mode false register count 8 implicit return true
      14       0: 2e 00                    LoadQmlContextPropertyLookup 0
=== Bytecode for "step" strict mode false register count 11 implicit return false
      20       0: 2e 01                    LoadQmlContextPropertyLookup 1
=== Bytecode for "expression for text" strict mode false register count 8 implicit return true
     130       0: 2e 00                    LoadQmlContextPropertyLookup 0
"""
    RECORD = """\
<trace><eventData>
<event><type>Javascript</type><filename>qrc:/a.qml</filename><line>14</line>
<details>expression for text</details></event>
<event><type>Javascript</type><filename>qrc:/a.qml</filename><line>19</line><details>step</details></event>
<event><type>Javascript</type><filename>file:///b.qml</filename><line>1</line><details>b</details></event>
</eventData></trace>
"""

    def test_functionIsCalledOnlyWhereTheRecordHasItsLine(self):
        known = screens.parse_bytecode("a.qml", self.LISTING)
        self.assertEqual(known, [("a.qml", 14, "text"), ("a.qml", 20, "step"), ("a.qml", 130, "text")])
        with tempfile.NamedTemporaryFile("w", suffix=".qtd") as record:
            record.write(self.RECORD)
            record.flush()
            recorded = screens.parse_trace(record.name)
        self.assertEqual(screens.called(known, recorded), {known[0], known[1]})


if __name__ == "__main__":
    unittest.main()
