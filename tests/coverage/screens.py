"""The functions of qml/ that were called: functions, signal handlers and the expressions of bindings.

Qt's compiler names every function that it makes of a screen, and Qt's profiler records those that the
engine runs while the tests of the screens run under it. (A record of one test fails there: the engine
says that a debugger is attached, where the test wants it to say nothing. The suite has run before.)
"""

import collections
import os
import pathlib
import re
import shutil
import subprocess
import xml.etree.ElementTree as ElementTree

import ctest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
LABEL = "screen"
# Bindings to a value of an enumeration: the engine puts the value in place, and calls nothing.
CONSTANTS = {"boundsBehavior"}
LIMIT_S = 300
BYTECODE = re.compile(r'^=== Bytecode for "(?:expression for )?(.*?)" .*\n +(\d+) ', re.MULTILINE)

# `line` is that of the first statement, which is the declaration's or one below.
Function = collections.namedtuple("Function", "file line name")


def qt_tool(name):
    # Debian keeps Qt's tools beside qmake, which is not on the PATH.
    tool = shutil.which(name) or shutil.which(name, path="/usr/lib/qt5/bin")
    if not tool:
        raise SystemExit(f"coverage: there is no {name}")
    return tool


def parse_bytecode(file, listing):
    return [Function(file, int(line), name) for name, line in BYTECODE.findall(listing)
            if name not in CONSTANTS]


def functions(build):
    found = []
    compiler = qt_tool("qmlcachegen")
    for screen in sorted((PROJECT / "qml").glob("*.qml")):
        listing = subprocess.run(
            [compiler, screen, "-o", build / "screen.qmlc"],
            env=os.environ | {"QV4_SHOW_BYTECODE": "1"}, text=True, check=True,
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT).stdout
        named = parse_bytecode(screen.name, listing)
        if not named:
            raise SystemExit(f"coverage: the compiler names no function of {screen.name}")
        found += named
    return sorted(found)


def record(build):
    """Runs the tests of the screens under the profiler; returns its records."""
    traces = []
    for test in ctest.tests(build):
        settings = ctest.properties(test)
        if LABEL not in settings.get("LABELS", []):
            continue
        trace = build / f"{test['name']}.qtd"
        trace.unlink(missing_ok=True)
        environment = os.environ | dict(entry.split("=", 1) for entry in settings["ENVIRONMENT"])
        with open(trace.with_suffix(".log"), "wb") as log:
            subprocess.run(
                [qt_tool("qmlprofiler"), "--include", "javascript", "--output", trace, *test["command"]],
                env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log, timeout=LIMIT_S,
                check=False)
        if not trace.exists():
            raise SystemExit(f"coverage: {test['name']} left no record, see {log.name}")
        traces.append(trace)
    return traces


def parse_trace(path):
    """File, line of the declaration and name of each function of ours that a record has."""
    found = set()
    for event in ElementTree.parse(path).iter("event"):
        url = event.findtext("filename", "")
        if event.findtext("type") == "Javascript" and url.startswith("qrc:/"):
            name = event.findtext("details").removeprefix("expression for ")
            found.add(Function(url.removeprefix("qrc:/"), int(event.findtext("line")), name))
    return found


def called(known, recorded):
    """Of the known functions, those that a record has."""
    found = set()
    for event in recorded:
        later = [function for function in known
                 if (function.file, function.name) == (event.file, event.name)
                 and function.line >= event.line]
        if later:
            found.add(min(later))
    return found


def measure(build):
    """All functions, and those that were called."""
    known = functions(build)
    recorded = set().union(*(parse_trace(trace) for trace in record(build)))
    return known, called(known, recorded)
