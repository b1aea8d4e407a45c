"""The command scripts/rehearse: inspects packages, runs their update on a simulated machine, and writes the report."""

from rehearsal.interrupt import end_without_traceback

end_without_traceback()

import contextlib
import fcntl
import json
import os
import pathlib
import shutil
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(PROJECT), str(PROJECT / "sandbox"), str(PROJECT / "tests/faults")]

from rehearsal import board, comparison, host, options, report, timeline
from rehearsal.host import HostError, Interrupt, Machine, ended_by_signals
from rehearsal.inspection import Settings, after, host_architectures, inspect
from rehearsal.options import WrongUse, shown
from rehearsal.progress import Progress

INTERRUPTED = 130
PACKAGE_S = 120  # that the installation of any package may take
SLOWEST = 1 << 20  # bytes per second that its size adds
BOARD_S = 20  # of silence: longer than any wait of the program
BLOCK_SIZE = 4096
MOST_FINDINGS = 12  # that are printed; the report has all


def main():
    sys.stdout.reconfigure(errors="backslashreplace")
    try:
        given = options.parse(sys.argv[1:])
        with ended_by_signals():
            options.check(given)
            if given.on:
                board.check(given)
            return rehearse(given)
    except WrongUse as error:
        return options.say(error)
    except HostError as error:
        print(f"rehearse: {shown(error)}", file=sys.stderr)
        return options.WRONG_USE
    except Interrupt:
        print("\nrehearse: ended", file=sys.stderr)
        return INTERRUPTED


def rehearse(given):
    started, progress = time.time(), Progress(sys.stdout)
    progress.say("inspecting the packages")
    previous = inspect(given.installed, Settings("folder")) if given.installed else None
    inspection = inspect(given.folder, settings(given, previous))
    facts = comparison.first_facts(given, inspection, started)
    if inspection.may_run and (previous is None or previous.may_run):
        with machine_for(given, needed(inspection, previous)) as machine:
            run = follow(machine, given, inspection, previous, progress)
            comparison.compare(facts, run, machine, given, inspection)
            facts["timeline"] = timeline.lanes(run, machine)
            for system in run.all("system"):
                facts["versions"] = board.versions(facts["versions"], system["versions"])
            facts["seconds"] = round(progress.seconds(), 1)
            page = write(given, facts, machine)
    else:
        facts["seconds"] = round(progress.seconds(), 1)
        page = write(given, facts, None)
    progress.clear()
    return summary(facts, page)


def machine_for(given, bytes_written):
    return board.Machine(given, bytes_written) if given.on else Machine(given.build, bytes_written)


def settings(given, previous):
    own = board.ARCHITECTURES if given.on else host_architectures()
    return Settings(architectures=(*own, *given.architectures),
                    installed=after(previous) if previous else {}, room=given.room)


def needed(inspection, previous):
    """The bytes that the machine may write, with its own."""
    packages = [*inspection.packages, *(previous.packages if previous else [])]
    return sum(package.size + 2 * on_disk(package) for package in packages) + (256 << 20)


def on_disk(package):
    return package.installed_size + package.entries * BLOCK_SIZE


def limits(given, packages):
    return {package.file: given.limit or PACKAGE_S + (package.size + package.installed_size) // SLOWEST for package in packages}


def board_limit(given):
    slowest = max((int(fault.split("=")[1].split("@")[0]) for fault in given.faults
                   if fault.startswith(("slow=", "split=", "nak=", "cancel=")) and fault.split("=")[1].split("@")[0].isdigit()),
                  default=0)
    return given.limit or BOARD_S + slowest * 40 / 1000


def follow(machine, given, inspection, previous, progress):
    """Runs the update. Returns what was told, as a list of events."""
    is_stick = given.stick or inspection.kind == "stick"
    plan = {
        "packages": inspection.order, "stick": is_stick, "image": inspection.has_image, "previous": previous is not None,
        "architectures": given.architectures, "board": options.board_options(given), "real_pace": given.real_pace,
        "limit": given.limit or PACKAGE_S,
        "limits": limits(given, [*inspection.packages, *(previous.packages if previous else [])]),
        "board_limit": board_limit(given),
    }
    run = Run(plan)
    events = (machine.update(plan, inspection, previous) if given.on else
              machine.run(plan, machine_options(machine, given, inspection, previous, is_stick), given.opkg))
    for event in events:
        if event is None:
            progress.tick()
        else:
            run.take(event)
            show(progress, event, inspection)
    return run


class Run:
    """What the machine has told."""

    def __init__(self, plan):
        self.plan = plan
        self.events = []
        self.end = None
        self.started = None  # the program, in seconds since the epoch

    def take(self, event):
        if event.get("event") == "end":
            self.end = event
        else:
            self.events.append(event)
            self.started = event.get("started", self.started)

    def all(self, kind):
        return [event for event in self.events if event["event"] == kind]


def machine_options(machine, given, inspection, previous, is_stick):
    room = dict(given.room)
    size = room.pop("/", None)
    if size is not None and previous:
        size += sum(map(on_disk, previous.packages))
    chosen = machine.disk_options(size)
    for folder, number in room.items():
        chosen += ["--small", f"{folder}={number}"]
    if not is_stick:
        chosen += ["--place", f"{host.SOURCE}={inspection.staging}"]
        links = copies_of_links(machine, inspection)
        if links:
            chosen += ["--place", f"{host.LINKS}={links}"]
    elif inspection.kind == "stick":
        chosen += ["--place", f"{host.STICK}={given.folder}"]
    else:
        chosen += ["--place", f"{host.STICK_PACKAGES}={given.folder}"]
    if previous:
        chosen += ["--place", f"{host.PREVIOUS}={previous.staging}"]
    return chosen


def copies_of_links(machine, inspection):
    """Packages that are links: whoever stages them copies the files, which the machine does not see. Only packages
    are copied: a link may lead anywhere."""
    linked = [package for package in inspection.packages if package.path.is_symlink() and package.is_readable]
    if not linked:
        return None
    folder = machine.work / "links"
    folder.mkdir()
    for package in linked:
        shutil.copyfile(package.path, folder / package.path.name)
    return folder


def show(progress, event, inspection):
    kind = event["event"]
    count = len(inspection.order)
    if kind == "step":
        progress.say(event["text"])
    elif kind == "previous":
        progress.say(f"previous release: package {event['index'] + 1} of {event['of']}: {event['file']}")
    elif kind == "program":
        progress.say("the program has started")
    elif kind == "package" and event["index"] < count:
        progress.say(f"package {event['index'] + 1} of {count}: {inspection.order[event['index']]}")
    elif kind == "board":
        progress.say("control board")
    elif kind == "block":
        progress.transfer(event["number"], event["of"])
    elif kind == "end":
        progress.say("comparing")


def write(given, facts, machine):
    """Rehearsals that run at the same time may have the same report folder: the last one remains, as a whole."""
    folder = os.open(given.report, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(folder, fcntl.LOCK_EX)
        pictures = given.report / "pictures"
        remove_pictures(given.report, pictures)
        pictures.mkdir(exist_ok=True)
        for picture in facts["pictures"]:
            with machine.file(picture["file"]) as source, open(given.report / picture["file"], "wb") as copy:
                shutil.copyfileobj(source, copy)
        return report.write(facts, given.report, given.junit)
    except OSError as error:
        raise WrongUse(f"--report: {shown(given.report)} cannot be written: {error.strerror}") from error
    finally:
        os.close(folder)


def remove_pictures(folder, pictures):
    """Those of the last report only: the folder may have been anybody's before."""
    try:
        old = json.loads((folder / "rehearsal.json").read_text(encoding="utf-8"))["pictures"]
        names = [os.path.basename(picture["file"]) for picture in old]
    except (OSError, ValueError, KeyError, TypeError):
        return
    for name in names:
        with contextlib.suppress(OSError, ValueError):
            (pictures / name).unlink()


def summary(facts, page):
    """Prints the result. Returns the exit status."""
    order = {"error": 0, "warning": 1}
    findings = sorted(facts["findings"], key=lambda finding: order[finding["level"]])
    errors = sum(finding["level"] == "error" for finding in findings)
    installed = sum(package["status"] == "installed" for package in facts["packages"])
    print(f"{'SUCCESS' if facts['verdict'] == 'success' else 'FAILURE'}: {installed} of {len(facts['packages'])} packages "
          f"installed, {counted(errors, 'error')}, {counted(len(findings) - errors, 'warning')}")
    for finding in findings[:MOST_FINDINGS]:
        package = f"{shown(finding['package'])}: " if finding["package"] and finding["package"] not in finding["text"] else ""
        print(f"  {finding['level']}: {package}{shown(finding['text'])}")
        if finding["do"]:
            print(f"         {shown(finding['do'])}")
    if len(findings) > MOST_FINDINGS:
        print(f"  and {len(findings) - MOST_FINDINGS} more")
    if facts["firmware"]:
        print(f"  firmware: {facts['firmware']['size']} bytes, {facts['firmware']['seconds']:.0f} s on a real line")
    print(f"  report: {shown(page)}")
    return 0 if facts["verdict"] == "success" and not errors else 1


def counted(number, what):
    return f"{number} {what}" if number == 1 else f"{number} {what}s"


if __name__ == "__main__":
    sys.exit(main())
