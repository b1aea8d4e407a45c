"""The lines of src/ that the tests execute, from the counters of all programs."""

import collections
import pathlib
import re
import subprocess
import tomllib

PROJECT = pathlib.Path(__file__).resolve().parents[2]
REASONS = pathlib.Path(__file__).with_name("unreached.toml")
NO_MAPPING = "no coverage data found"

# A line of src/ without its number, so that a reason stays valid when lines move.
Place = collections.namedtuple("Place", "file function text")


def merge_counters(build):
    counters = sorted((build / "profiles").glob("*.profraw"))
    if not counters:
        raise SystemExit("coverage: no counters were written")
    merged = build / "merged.profdata"
    subprocess.run(["llvm-profdata", "merge", "-sparse", *counters, "-o", merged], check=True)
    return merged


def export(program, merged):
    """llvm-cov's report on one program, empty for one that was built without counters."""
    exported = subprocess.run(
        ["llvm-cov", "export", "-format=lcov", program, f"-instr-profile={merged}"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if exported.returncode != 0 and NO_MAPPING not in exported.stderr:
        raise SystemExit(f"coverage: {program}: {exported.stderr}")
    return exported.stdout


def add_counts(lcov, project, counts):
    """Adds a report to `counts`, which has the line counts of each file of src/.

    Programs are taken one by one: a function of a header that one of them does not use is there, with
    no count, and together llvm-cov would take that for all of them.
    """
    lines = None
    for entry in lcov.splitlines():
        if entry.startswith("SF:"):
            path = pathlib.Path(entry[len("SF:"):]).resolve()
            lines = None
            if path.is_relative_to(project / "src"):
                lines = counts.setdefault(str(path.relative_to(project)), collections.Counter())
        elif entry.startswith("DA:") and lines is not None:
            number, count = entry[len("DA:"):].split(",")[:2]
            lines[int(number)] += int(count)


def measure(build, programs):
    merged = merge_counters(build)
    counts = {}
    for program in programs:
        add_counts(export(program, merged), PROJECT, counts)
    return counts


def place_of(file, number, text_lines):
    function = next((line for line in reversed(text_lines[:number]) if re.match(r"[A-Za-z]", line)), "")
    return Place(file, function, text_lines[number - 1].strip())


def unreached(counts, project=PROJECT):
    """The place of each line without a count, and its number."""
    found = []
    for file, lines in sorted(counts.items()):
        text_lines = (project / file).read_text("utf-8").splitlines()
        found += [(place_of(file, number, text_lines), number)
                  for number, count in sorted(lines.items()) if count == 0]
    return found


def load_reasons(path=REASONS):
    """The reasons, by place; the place of a reason for a whole function has no text."""
    return {Place(entry["file"], entry["function"], entry.get("text")): entry["reason"]
            for entry in tomllib.loads(path.read_text("utf-8"))["unreached"]}


def reason_place(place, reasons):
    """The place of the reason that covers a line, None without one."""
    return next((key for key in (place, place._replace(text=None)) if key in reasons), None)


def problems(counts, reasons, project=PROJECT):
    """Sources without counts, lines without a reason, and reasons without a line."""
    found = []
    for source in sorted((project / "src").rglob("*.cpp")):
        has_code = "{" in source.read_text(encoding="utf-8")  # one without has nothing to count
        if has_code and str(source.relative_to(project)) not in counts:
            found.append(f"{source.relative_to(project)} is in no program that was measured")
    used = set()
    for place, number in unreached(counts, project):
        used.add(reason_place(place, reasons))
        if reason_place(place, reasons) is None:
            found.append(f"{place.file}:{number}: not executed, and without a reason: {place.text} ({place.function})")
    found += [f"{place.file}: a reason covers no line: {place.text or 'all'} ({place.function})"
              for place in reasons if place not in used]
    return found
