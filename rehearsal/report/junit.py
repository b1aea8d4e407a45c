"""The facts as JUnit XML: a test case for each package, and for inspection, control board and screen."""

import xml.etree.ElementTree as ElementTree

from .shown import plain

PACKAGE_FAULTS = {"failed": "The package was not installed."}
PACKAGE_SKIPS = {"not tried": "The update ended before this package."}


def _sentence(finding):
    """The finding in one line, the package first where it is no part of the name of the test case."""
    return " ".join(part for part in (finding["text"], finding["do"]) if part)


def _testcase(suite, group, name, findings=(), fault="", skip="", seconds=None):
    """Adds a case. It fails by a fault or an error among the findings; warnings are its output."""
    case = ElementTree.SubElement(suite, "testcase", classname=f"rehearsal.{group}", name=plain(name, is_name=True),
                                  time=f"{seconds or 0:.3f}")
    errors = [_sentence(finding) for finding in findings if finding["level"] == "error"]
    if fault and not errors:
        errors = [fault]
    if errors:
        # One element: some readers take only the first of several.
        failure = ElementTree.SubElement(case, "failure", type="error", message=plain(errors[0]))
        failure.text = "\n".join(map(plain, errors))
    elif skip:
        ElementTree.SubElement(case, "skipped", message=skip)
    warnings = [_sentence(finding) for finding in findings if finding["level"] != "error"]
    if warnings:
        ElementTree.SubElement(case, "system-out").text = "\n".join(f"warning: {plain(text)}" for text in warnings)


def _states(facts, lane):
    return [entry["state"] for entry in facts["timeline"] if entry["lane"] == lane]


def _add_packages(suite, facts):
    """A case for each package with its findings. Returns the findings of no package, the file named in each."""
    files = {package["file"] for package in facts["packages"]}
    for package in facts["packages"]:
        _testcase(suite, "packages", package["file"],
                  [finding for finding in facts["findings"] if finding["package"] == package["file"]],
                  PACKAGE_FAULTS.get(package["status"], ""), PACKAGE_SKIPS.get(package["status"], ""),
                  package["seconds"])
    return [{**finding, "text": ": ".join(filter(None, (finding["package"], finding["text"])))}
            for finding in facts["findings"] if finding["package"] not in files]


def as_junit(facts):
    """The XML as bytes. A case has failed where and only where the facts have an error or are a failure."""
    root = ElementTree.Element("testsuites")
    suite = ElementTree.SubElement(root, "testsuite", name="rehearsal")
    if facts["started"]:
        suite.set("timestamp", plain(facts["started"]).rstrip("Z"))

    others = _add_packages(suite, facts)
    _testcase(suite, "rehearsal", "inspection", others)

    on_line = _states(facts, "serial line")
    _testcase(suite, "rehearsal", "control board",
              fault="The control board was not updated." if "bad" in on_line else "",
              skip="" if on_line else "The update ended before the control board.")

    has_failed = facts["verdict"] != "success"
    seen = facts["cause"]["seen"] if facts["cause"] else ""
    _testcase(suite, "rehearsal", "screen",
              fault=(seen or "The screen did not show the success in green.") if has_failed else "")

    for count, element in (("failures", "failure"), ("skipped", "skipped")):
        suite.set(count, str(len(suite.findall(f"testcase/{element}"))))
    suite.set("errors", "0")
    suite.set("tests", str(len(suite)))
    suite.set("time", f"{facts['seconds'] or 0:.3f}")
    ElementTree.indent(root)
    return ElementTree.tostring(root, encoding="utf-8", xml_declaration=True) + b"\n"
