"""Checks the documents against the tree: their commands, links and paths, the table of fixed paths, the
newest version, and the tests that `Deliberate:` comments name.

A command stands in an indented block or in one fenced as "sh"; blocks of any other kind have another
word behind the fence. Every command is checked: scripts, programs, options, presets and tests that it
names. Then it is really run, or not, as COMMANDS says; one that is not there is a problem.
"""

import argparse
import json
import os
import pathlib
import re
import shlex
import shutil
import subprocess
import sys
import tempfile

PROJECT = pathlib.Path(__file__).resolve().parent.parent.parent

RUN = None
# Beginnings of commands; the longest that fits counts. RUN, or why it is not run here.
COMMANDS = {
    "boardsim": RUN,
    "boardsim --replay": "needs a recording that only a reader has; the test `tst_replay` plays some",
    "boardtap": "needs a real board; the test `tst_boardtap` runs it on a simulated one",
    "build/dev/fuzz/replay_": RUN,
    "build/dev/simulator/boardsim": RUN,
    "build/dev/tests/": RUN,
    "sandbox/run -- ": RUN,
    "scripts/faults --list": RUN,
    ".ci/run": "builds and runs everything, this check too; the CI runs it",
    "build/release/simulator/boardtap": "needs a real board; the test `tst_boardtap` runs it on a simulated one",
    "build/release/src/update-assistant": "needs a real board",
    "cmake --install": "writes to the system; the test `install` does it elsewhere",
    "cmake --preset": "builds another tree; whoever needs it runs it",
    "ctest --preset": "the CI runs every test; here only the names are looked up",
    "git config": "changes the settings of the clone; the test `lint.hook` runs the hook",
    "ln -s /dev/ttyUSB0": "needs a real board",
    "mkdir -p /root/mcu": "needs a real board",
    "mkdir -p build/found": "needs the fuzzing programs, which only clang builds",
    "sandbox/run --state": "installs packages that only a reader has",
    "scripts/bench": "measures, which the other tests would disturb; run before a release",
    "scripts/board-root": "makes a system from downloaded packages, which takes minutes; run before a release",
    "scripts/board": "downloads a system, and takes minutes to boot it; run before a release",
    "python3 explain.pyz": "the test `tst_explain.oneFileRunsElsewhere` runs such a file",
    "scripts/check-board --page": "the test `board_page` checks the page",
    "scripts/check-board": "needs a real board; the tests `tst_check_board.*` and `board_faults` run it on a simulated one",
    "python3 tests/boardcheck/run.py": "the test `board_faults` runs it",
    "scripts/coverage": "builds the tree anew and runs every test; run before a release",
    "scripts/draw-recording": "needs a recording that only a reader has; the tests `tst_page.*` draw some",
    "scripts/demo": "builds, and takes a minute; its steps are the tests tst_update.*",
    "scripts/explain": "needs the console of a machine; the tests `tst_explain.*` run it on many",
    "scripts/faults": "the test `faults` runs the whole table, `faults_page` checks the page",
    "scripts/interop": "boots an emulator, and takes minutes; run after a change to the transfer",
    "scripts/lint": "the tests `lint.*` run its quick checks; clang-tidy takes minutes",
    "python3 tests/rehearsal/run_sets.py": "the test `rehearsal_sets` runs all of them",
    "scripts/package --qt 6": "builds for ARM in a build root that takes minutes to make; run before a release",
    "scripts/pictures": "builds with both Qts; run before a release",
    "scripts/rehearse": "the tests `tst_rehearse.*` and `rehearsal_sets` run it",
    "scripts/test": "builds and runs everything, this check too; the CI runs it",
}

# Files of which each line, but for comments and the shell's settings, is to stand in docs/porting.md: what the
# page tells is what the package brings and what scripts/board does.
TOLD = ("packaging/update-assistant.rules", "sandbox/board/install")

BUILT_PROGRAMS = {"boardsim": "simulator/boardsim", "boardtap": "simulator/boardtap", "update-assistant": "src/update-assistant"}
SEPARATORS = {"&&", "||", ";", "|", "&"}
SECONDS = 60  # only a hang is ever that slow

problems = []


class Document:
    """A Markdown file, taken apart into commands, code spans and links, each with its line."""

    def __init__(self, path):
        self.path = path
        self.name = path.relative_to(PROJECT)
        self.lines = path.read_text(encoding="utf-8").splitlines()
        self.commands, self.spans, self.links, self.anchors = [], [], [], set()
        self._take_apart()

    def _take_apart(self):
        fence, blank_before = None, True
        for number, line in enumerate(self.lines, 1):
            mark = re.match(r" *```(.*)", line)
            if mark:
                fence = mark[1].strip() if fence is None else None
                if fence == "":
                    self.complain(number, "a fence without a word behind it")
            elif fence is not None:
                if fence == "sh":
                    self._take_command(number, line)
            elif line.startswith("    ") and blank_before:
                self._take_command(number, line)
                continue  # what follows is of the same block
            else:
                self._take_text(number, line)
            blank_before = not line.strip()

    def _take_command(self, number, line):
        if line.split("#")[0].strip():
            self.commands.append((number, line.strip()))

    def _take_text(self, number, line):
        heading = re.match(r"#+ (.*)", line)
        if heading:
            words = re.sub(r"[^\w\- ]", "", heading[1].lower())
            self.anchors.add(words.replace(" ", "-"))
        self.spans += [(number, span) for span in re.findall(r"`([^`]+)`", line)]
        self.links += [(number, link) for link in re.findall(r"\]\(([^)\s]+)\)", line)]

    def complain(self, number, text):
        problems.append(f"{self.name}:{number}: {text}")


class Commands:
    """Checks commands against what there is, and runs them."""

    def __init__(self, build):
        self.build = build
        self.presets = json.loads((PROJECT / "CMakePresets.json").read_text())
        self.options = "".join((PROJECT / file).read_text() for file in ("CMakeLists.txt", "cmake/qt.cmake"))
        self.helps = {}
        self.used = set()

    def check(self, document, number, text):
        def complain(what):
            document.complain(number, f"{text}: {what}")

        for words in simple_commands(text):
            self._check_words(words, complain)

    def decide(self, document, number, text):
        """Runs the command, or says why not."""
        starts = [start for start in COMMANDS if text.startswith(start)]
        if not starts:
            document.complain(number, f"{text}: COMMANDS does not say whether to run it")
            return
        start = max(starts, key=len)
        self.used.add(start)
        if COMMANDS[start] is not RUN:
            print(f"not run: {document.name}: {text}\n         {COMMANDS[start]}")
            return
        print(f"run:     {document.name}: {text}", flush=True)
        fault = self._run(text)
        if fault:
            document.complain(number, f"{text}: {fault}")

    def _check_words(self, words, complain):
        while words and re.match(r"\w+=", words[0]):
            words = words[1:]
        if not words or words[0].isupper():
            return  # nothing, or a placeholder
        name, arguments = words[0], words[1:]
        if name == "cmake":
            self._check_cmake(arguments, complain)
        elif name == "ctest":
            self._check_ctest(arguments, complain)
        elif name in BUILT_PROGRAMS or name.startswith("build/"):
            self._check_program(name, arguments, complain)
        elif "/" in name:
            self._check_script(name, arguments, complain)
        elif name != "export" and not shutil.which(name):
            complain(f"there is no {name}")

    def _check_cmake(self, arguments, complain):
        kind = "buildPresets" if "--build" in arguments else "configurePresets"
        self._check_preset(kind, arguments, complain)
        for option in re.findall(r"-D(UPDATE_ASSISTANT_\w+)", " ".join(arguments)):
            if option not in self.options:
                complain(f"there is no option {option}")

    def _check_ctest(self, arguments, complain):
        self._check_preset("testPresets", arguments, complain)
        if "-R" in arguments or "-L" in arguments:
            kept = arguments[2:] if arguments[0] == "--preset" else arguments
            listing = output_of(["ctest", "--test-dir", str(self.build), "-N", *kept])
            if "Total Tests: 0" in listing or "Total Tests:" not in listing:
                complain("no test has such a name")

    def _check_preset(self, kind, arguments, complain):
        if "--preset" in arguments:
            preset = arguments[arguments.index("--preset") + 1]
            if preset not in [p["name"] for p in self.presets[kind] if not p.get("hidden")]:
                complain(f"there is no preset {preset}")

    def _check_program(self, name, arguments, complain):
        program = self._program(name)
        if not program.exists():
            complain(f"there is no program {name}")
        elif program.name.startswith("tst_"):
            slots = output_of([str(program), "-functions"])
            for slot in arguments:
                if f"{slot}()" not in slots.splitlines():
                    complain(f"there is no fact {slot}")
        elif program.name in ("boardsim", "boardtap"):
            self._check_options([str(program)], arguments, complain)

    def _program(self, name):
        if name in BUILT_PROGRAMS:
            return self.build / BUILT_PROGRAMS[name]
        preset, place = name.split("/", 2)[1:]
        if preset == "fuzz" and place.startswith("fuzz/fuzz_"):
            return PROJECT / f"{place}.cpp"  # built by clang alone
        return self.build / place

    def _check_script(self, name, arguments, complain):
        script = PROJECT / name
        if not os.access(script, os.X_OK) or not script.is_file():
            complain(f"there is no script {name}")
            return
        command = []
        if name == "sandbox/run":
            arguments, command = part_command(arguments, self._help([str(script)]))
        if arguments[:1] == ["--preset"]:
            self._check_preset("testPresets", arguments, complain)
        self._check_options([str(script)], arguments, complain)
        self._check_words(command, complain)

    def _check_options(self, command, arguments, complain):
        for option in (word.split("=")[0] for word in arguments if re.match("-[-a-z]", word)):
            if not re.search(rf"(?<![\w-]){option}(?![\w-])", self._help(command)):
                complain(f"there is no option {option}")

    def _help(self, command):
        key = tuple(command)
        if key not in self.helps:
            self.helps[key] = output_of([*command, "--help"])
        return self.helps[key]

    def _run(self, text):
        with tempfile.TemporaryDirectory() as scratch:
            is_board = re.match(r"(\S*/)?boardsim ", text)
            line = text.replace("/tmp/", f"{scratch}/") if is_board else text
            line = re.sub(r"build/(dev|release)/", f"{self.build}/", line)
            line = re.sub(r"^boardsim ", f"{self.build}/simulator/boardsim ", line)
            if is_board:
                return run_board(line, scratch)
            done = subprocess.run(["bash", "-c", line], cwd=PROJECT, timeout=SECONDS, text=True,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
            return done.returncode and f"status {done.returncode}\n{done.stdout}"


def run_board(line, folder):
    """Starts boardsim, waits until its line is there, and ends it."""
    with subprocess.Popen(shlex.split(line), cwd=folder, stdout=subprocess.PIPE, text=True,
                          stderr=subprocess.STDOUT) as board:
        said = ""
        for said in board.stdout:
            if said.startswith("ready "):
                board.terminate()
                break
        board.stdout.read()
        status = board.wait(SECONDS)
    return None if status == 0 else f"status {status}: {said}"


def simple_commands(text):
    """The words of each command in a line of the shell, without redirections."""
    lexer = shlex.shlex(text, posix=True, punctuation_chars=True)
    lexer.whitespace_split = True
    words, redirected = [], False
    for word in lexer:
        if word in SEPARATORS:
            yield words
            words = []
        elif redirected or word[0] in "<>":
            redirected = word[0] in "<>"
        else:
            words.append(word)
    yield words


def part_command(arguments, help_text):
    """The options of sandbox/run, and the command behind them."""
    place = 0
    while place < len(arguments) and arguments[place].startswith("-"):
        if arguments[place] == "--":
            return arguments[:place], arguments[place + 1:]
        has_value = re.search(rf"{arguments[place]} \S", help_text) and arguments[place] != "--help"
        place += 2 if has_value else 1
    return arguments[:place], arguments[place:]


def output_of(command):
    return subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=SECONDS, check=False).stdout


def tree_files():
    """Every file of the tree, but not what was built or belongs to git."""
    for folder, folders, files in os.walk(PROJECT):
        folders[:] = [f for f in folders if f not in (".git", "build", "__pycache__")]
        for file in files:
            yield pathlib.Path(folder, file)


class Names:
    """What files there are, for the names that documents have for them."""

    def __init__(self):
        self.files = list(tree_files())
        self.base_names = {file.name for file in self.files}
        self.roots = sorted(p.name for p in PROJECT.iterdir() if p.is_dir() and p.name not in (".git", "build"))
        self.tests = [file for file in self.files if file.name.startswith("tst_")]

    def check_links(self, document, documents):
        for number, link in document.links:
            if re.match(r"\w+:", link):
                continue
            place, _, anchor = link.partition("#")
            target = (document.path.parent / place).resolve() if place else document.path
            if not target.exists():
                document.complain(number, f"the link {link} leads nowhere")
            elif anchor and not any(d.path == target and anchor in d.anchors for d in documents):
                document.complain(number, f"the link {link} names no heading")

    def check_paths(self, document):
        """Paths below a folder of the project, wherever they stand in the text."""
        below = "|".join(re.escape(root) for root in self.roots)
        for number, line in enumerate(document.lines, 1):
            for path in re.findall(rf"(?<![\w/.-])((?:{below})/[\w./*-]*)", line):
                self._check_path(document, number, path.rstrip("."))

    def check_spans(self, document):
        for number, span in document.spans:
            test = re.fullmatch(r"(tst_\w+)(?:(?:::|\.)(\w+))?", span)
            if test:
                self._check_test(document, number, *test.groups())
            elif re.fullmatch(r"\.\w+-\w+|[\w-]+\.(h|cpp|qml|qrc|md|json|txt|py|toml|cmake|sh)", span):
                if span not in self.base_names:
                    document.complain(number, f"there is no file {span}")
            elif re.fullmatch(r"[\w.-]+(/[\w.*-]+)*/?", span) and "/" in span:
                self._check_path(document, number, span)

    def has_fact(self, name, fact):
        return any(test.stem == name and re.search(rf"\b{fact}\(", test.read_text(encoding="utf-8"))
                   for test in self.tests)

    def _check_test(self, document, number, name, fact):
        if all(test.stem != name for test in self.tests):
            document.complain(number, f"there is no test {name}")
        elif fact and not self.has_fact(name, fact):
            document.complain(number, f"{name} has no fact {fact}")

    def _check_path(self, document, number, path):
        if path.startswith("build/"):
            return
        places = (PROJECT, document.path.parent, PROJECT / "src")
        if not any(list(place.glob(path.rstrip("/"))) for place in places):
            document.complain(number, f"there is no {path}")


def check_told():
    page = (PROJECT / "docs/porting.md").read_text(encoding="utf-8").splitlines()
    for name in TOLD:
        for line in (PROJECT / name).read_text(encoding="utf-8").splitlines():
            if line and not line.startswith(("#", "set ")) and line not in page:
                problems.append(f"{name}: docs/porting.md does not tell: {line}")


def check_version():
    version = re.search(r"VERSION (\S+)", (PROJECT / "CMakeLists.txt").read_text().split("project(")[1])[1]
    newest = re.search(r"^## (\S+)", (PROJECT / "CHANGES.md").read_text(), re.MULTILINE)[1]
    if newest != version:
        problems.append(f"CHANGES.md: the newest version is {newest}, the project's {version}")
    for screen in ("qml/main.qml", "benchmarks/leastscreen.qml"):
        if f"V{version})" not in (PROJECT / screen).read_text(encoding="utf-8"):
            problems.append(f"{screen}: the title does not name version {version}")


def source_files():
    return [p for folder in ("src", "qml") for p in sorted((PROJECT / folder).rglob("*")) if p.suffix in (".cpp", ".h", ".qml")]


def check_fixed_paths():
    """The table in docs/architecture.md names every path in a string of the program, beside its file."""
    path = re.compile(r"(?<![\w.*])/(?:dev|mnt|root|tmp)/[\w.*][\w./*]*")
    section = (PROJECT / "docs/architecture.md").read_text(encoding="utf-8").split("## Fixed paths")[1].split("\n## ")[0]
    stated = {(file, found) for row, file in re.findall(r"^\| (.*) \| `((?:src|qml)/.*)` \|$", section, re.MULTILINE)
              for span in re.findall(r"`([^`]+)`", row) for found in path.findall(span)}
    found = {(str(file.relative_to(PROJECT)), name) for file in source_files()
             for literal in re.findall(r'"([^"\n]*)"', file.read_text(encoding="utf-8")) for name in path.findall(literal)}
    for file, name in sorted(found ^ stated):
        what = "does not list" if (file, name) in found else "lists, wrongly,"
        problems.append(f"docs/architecture.md: the table of fixed paths {what} {name} in {file}")


def check_deliberate(names):
    """Each `Deliberate:` comment names an existing test or row of the fault table, or says that none can exist."""
    rows = (PROJECT / "tests/faults/table.toml").read_text(encoding="utf-8")
    for file in source_files():
        text = file.read_text(encoding="utf-8")
        for comment in re.findall(r"/// ?Deliberate:.*(?:\n */// .*)*|// Deliberate:.*(?:\n *// .*)*", text):
            test = re.search(r"\((tst_\w+)::(\w+)\)", comment)
            row = re.search(r"\(tests/faults: ([\w-]+)\)", comment)
            if test:
                is_held = names.has_fact(*test.groups())
            else:
                is_held = f'name = "{row[1]}"' in rows if row else "No test can" in comment
            if not is_held:
                problems.append(f"{file.relative_to(PROJECT)}: no test or row holds: {comment.splitlines()[0]}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", type=pathlib.Path, default=PROJECT / "build/dev",
                        help="build tree of the programs (default: build/dev)")
    commands = Commands(parser.parse_args().build.resolve())
    names = Names()
    documents = [Document(file) for file in sorted(names.files) if file.suffix == ".md"]
    for document in documents:
        names.check_links(document, documents)
        names.check_paths(document)
        names.check_spans(document)
        for number, text in document.commands:
            commands.check(document, number, text)
            commands.decide(document, number, text)
        for number, span in document.spans:
            if re.match(r"(scripts|sandbox)/\w+ ", span):
                commands.check(document, number, span)
    for start in sorted(COMMANDS.keys() - commands.used):
        problems.append(f"COMMANDS: no document has a command {start}")
    check_told()
    check_version()
    check_fixed_paths()
    check_deliberate(names)
    print(*problems, f"{len(problems)} problems", sep="\n")
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
