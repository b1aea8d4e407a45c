"""Reports the line coverage of the tests from their counters: report.py BUILD.

Started by scripts/coverage. The exit status is 0 when the goal is met, else 1.
"""

import pathlib
import sys

import ctest
import lines

GOAL_PERCENT = 98


def percent(part, whole):
    return 100 * part / whole if whole else 100.0


def print_lines(counts, reasons):
    """Prints the table of src/; returns the lines reached and all lines."""
    print(f"{'lines of':32} {'reached':>8} {'of':>6} {'percent':>9}")
    sums = [0, 0]
    for file, counted in sorted(counts.items()):
        reached = sum(1 for count in counted.values() if count)
        print(f"{file:32} {reached:8} {len(counted):6} {percent(reached, len(counted)):9.2f}")
        sums = [sums[0] + reached, sums[1] + len(counted)]
    print(f"{'src/':32} {sums[0]:8} {sums[1]:6} {percent(*sums):9.2f}\n")
    for place, number in lines.unreached(counts):
        print(f"not reached: {place.file}:{number}: {place.text}\n"
              f"    in {place.function}\n"
              f"    {reasons.get(lines.reason_place(place, reasons), 'NO REASON')}")
    return sums


def main(build):
    counts = lines.measure(build, ctest.programs(build))
    reasons = lines.load_reasons()
    reached, total = print_lines(counts, reasons)
    print()
    problems = lines.problems(counts, reasons)
    for problem in problems:
        print(f"problem: {problem}")
    is_good = percent(reached, total) >= GOAL_PERCENT and not problems
    print(f"coverage: {'PASSED' if is_good else 'FAILED'}: "
          f"{percent(reached, total):.2f} % of {total} lines of src/ (goal: {GOAL_PERCENT} %), "
          f"{len(problems)} problem(s)")
    return 0 if is_good else 1


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1]).resolve()))
