"""The report of scripts/coverage on given counters and reasons."""

import pathlib
import re
import sys
import tempfile
import unittest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT / "tests/coverage"))

import lines  # noqa: E402

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
        self.assertEqual(self.problems({3: 1, 4: 0}, {IN_FIRST: "why"}), [])

    def test_reasonWithoutTextCoversItsWholeFunction(self):
        reasons = {IN_FIRST._replace(text=None): "why"}
        self.assertEqual(self.problems({3: 0, 4: 0}, reasons), [])
        self.assertEqual(len(self.problems({3: 0, 10: 0}, reasons)), 1)
        self.assertEqual(len(self.problems({3: 1, 4: 1}, reasons)), 1)

    def test_reasonStaysWithALineThatMoves(self):
        self.write("// new\n" + SOURCE)
        self.assertEqual(self.problems({4: 1, 5: 0}, {IN_FIRST: "why"}), [])

    def test_sameTextInAnotherFunctionNeedsItsOwnReason(self):
        found = self.problems({4: 0, 10: 0}, {IN_FIRST: "why"})
        self.assertEqual(len(found), 1)
        self.assertIn("int second()", found[0])

    def test_reasonForAReachedLineIsAProblem(self):
        self.assertEqual(len(self.problems({4: 1, 10: 0}, {IN_FIRST: "why", IN_SECOND: "why"})), 1)

    def test_reasonForALineThatIsGoneIsAProblem(self):
        self.write(SOURCE.replace("return -1;", "return -2;"))
        self.assertEqual(len(self.problems({4: 1, 10: 1}, {IN_FIRST: "why"})), 1)

    def test_sourceInNoProgramIsAProblem(self):
        (self.project / "src/b.cpp").write_text(SOURCE, "utf-8")
        self.assertEqual(len(self.problems({3: 1}, {})), 1)

    def test_sourceWithoutCodeIsNoProblem(self):
        (self.project / "src/b.cpp").write_text("const int b = 0;\n", "utf-8")
        self.assertEqual(self.problems({3: 1}, {}), [])


class WrittenReasons(unittest.TestCase):
    def test_eachNamesALineOfTheSources(self):
        for place, reason in lines.load_reasons().items():
            source = (PROJECT / place.file).read_text("utf-8")
            body = re.search(re.escape(place.function) + r"\n\{\n.*?^\}", source, re.DOTALL | re.MULTILINE)
            self.assertTrue(body, place)
            self.assertIn(place.text or "", body.group(0))
            self.assertTrue(reason.strip(), place)


if __name__ == "__main__":
    unittest.main()
