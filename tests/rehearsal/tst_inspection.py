"""The inspection of packages: every set of sets.toml, hostile packages, and the bounds."""

import os
import pathlib
import random
import resource
import signal
import subprocess
import sys
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(PROJECT))

import sets
from facts import output, same
from rehearsal.inspection import Settings, after, children, host_architectures, inspect, program


def inspected(row, folder):
    """The inspection of a set, as a run makes it."""
    built = row.build(folder)
    installed = after(inspect(folder / "installed")) if row.installed else {}
    return inspect(built.source, Settings(architectures=(*host_architectures(), *row.architecture),
                                          installed=installed, room=row.room))


def differences(row, inspection):
    """What is found and not expected, or expected and not found."""
    found = list(inspection.findings)
    for level, package, text in row.findings:
        fitting = [one for one in found if (one.level, one.package) == (level, package) and text in one.text]
        if not fitting:
            yield f"{row.name}: no {level} of {package!r} with {text!r}"
        else:
            found.remove(fitting[0])
    yield from (f"{row.name}: {one}" for one in found)
    if inspection.kind != row.kind:
        yield f"{row.name}: it is taken for a {inspection.kind}"
    for one in inspection.findings:
        if not (one.text + one.do).isprintable() or not one.do:
            yield f"{row.name}: {one.text!r}, {one.do!r}"


def everySetHasItsFindings(folder):
    rows = sets.load()
    assert len(rows) >= 40 and len({row.name for row in rows}) == len(rows)
    failures = []
    for row in rows:
        failures += differences(row, inspected(row, folder / row.name))
    assert not failures, "\n".join(failures)


def setsAreBuiltAlike(folder):
    for row in sets.load()[:8]:
        one, other = (row.build(folder / f"{row.name}-{number}").source for number in (1, 2))
        for path in one.rglob("*.ipk"):
            assert path.read_bytes() == (other / path.relative_to(one)).read_bytes()


def folder_with(folder, **packages):
    """A folder of packages, each given by its bytes."""
    folder.mkdir()
    for name, data in packages.items():
        (folder / f"{name}.ipk").write_bytes(data)
    return folder


def memory_of_children():
    """Bytes of the largest process so far that has ended."""
    return resource.getrusage(resource.RUSAGE_CHILDREN).ru_maxrss * 1024


def levels(inspection, text):
    return [one.level for one in inspection.findings if text in one.text]


def damageSaysMemberAndByte(folder):
    """For each part of a package, in both forms: the damage is found where it is, or soon after."""
    noise = "".join(random.Random(1).choices("abcdefghijklmnop", k=200000))
    for form in "ar", "tar.gz":
        for compression in "gz", "xz", "bz2":
            data = sets.package(files={"usr/share/text": noise}, form=form, compression=compression)
            for part in 0.25, 0.5, 0.75:
                at = int(len(data) * part)
                for kind, broken in ("cut", data[:at]), ("flip", data[:at] + bytes([data[at] ^ 0x55]) + data[at + 1:]):
                    place = folder_with(folder / f"{form}-{compression}-{part}-{kind}", package=broken)
                    text = inspect(place).findings[0].text
                    member = f"in its member data.tar.{compression}, at byte "
                    assert member in text or "does not notice" in text, f"{place.name}: {text}"
                    found = int(text.partition("at byte ")[2].split()[0])
                    assert at <= found <= len(data), f"{place.name}: damaged at {at}, {text}"


def hostilePackagesGiveFindings(folder):
    """Packages with changed bytes: an answer each, nothing written, bounded memory and time."""
    seed = int(os.environ.get("REHEARSAL_SEED", "1"))
    count = int(os.environ.get("REHEARSAL_MUTATIONS", "300"))
    print(f"seed {seed}, {count} packages")
    dice = random.Random(seed)
    originals = [sets.package(files={"etc/a": "a" * 3000}, scripts={"postinst": "true"}, firmware=2000, form=form,
                              compression=compression)
                 for form in ("ar", "tar.gz") for compression in ("gz", "xz", "bz2")]
    # Without compression around it, changes reach the archives themselves and the control file.
    originals += [sets.package(fields={"Depends": "a (>= 1) | b, c"}, firmware=700, entries=[
        {"path": "./l", "kind": "symlink", "target": "../x"}], compression="none").replace(b".tar ", b".tar.gz ")]
    place = folder / "packages"
    place.mkdir()
    for number in range(count):
        data = bytearray(dice.choice(originals if number % 2 else originals[-1:]))
        for _ in range(dice.choice((1, 1, 2, 8))):
            at = dice.randrange(len(data) or 1)
            change = dice.randrange(4)
            if change == 0:
                data[at:at + 1] = dice.randbytes(1)
            elif change == 1:
                data[at:at] = dice.randbytes(dice.randrange(40))
            elif change == 2:
                del data[at:at + dice.randrange(600)]
            else:
                data[at:at + 12] = dice.choice(
                    (b"77777777777\0", b"\x80" + b"\xff" * 11, b"../../../../", b"\x1b[2J\n\n\0\0"))
        (place / f"{number:04}.ipk").write_bytes(data)
    before = sorted(folder.rglob("*"))
    start = time.monotonic()
    inspection = inspect(place, Settings(room={"/": 10**6, "/tmp": 10**6}))
    seconds = time.monotonic() - start
    assert len(inspection.packages) == count
    for one in inspection.findings:
        assert (one.text + one.do).isprintable() and len(one.text) < 4000, repr(one)
        assert "Traceback" not in one.text and "cannot be read within" not in one.text, one.text
    unharmed = {package.file for package in inspection.packages} - {one.package for one in inspection.findings}
    print(f"{seconds:.1f} s, {memory_of_children() / 1e6:.0f} MB, {len(unharmed)} without a finding")
    assert seconds < 60 and memory_of_children() < 200e6
    same(before, sorted(folder.rglob("*")))


def bombsAreRefused(folder):
    """Each is refused in seconds, without its size in memory, and is not run."""
    zeros = bytes(1024 * 1024)
    bombs = {
        "claim": lambda: sets.package(entries=[{"path": "./a", "claims": 2 ** 62}]),
        "entries": lambda: sets.package(entries=[{"path": "./a", "times": 120_000}]),
        "control-claims": lambda: sets.package(control_entries=[{"path": "./a", "claims": 2 ** 40}]),
        "control-file": lambda: sets.package(control="Package: a\nDescription: " + "x" * 3_000_000 + "\n"),
        "control-entries": lambda: sets.package(control_entries=[{"path": "./a", "times": 5000}]),
        "script": lambda: sets.package(scripts={"postinst": "true\n" * 200_000}),
        "members": lambda: b"!<arch>\n" + b"".join(
            sets._ar_member(f"member{number}", b"") for number in range(300)),
    }
    for name, build in bombs.items():
        start = time.monotonic()
        inspection = inspect(folder_with(folder / name, bomb=build()))
        assert not inspection.may_run, f"{name}: {inspection.findings}"
        same(["error"], levels(inspection, "The update is not run"))
        print(f"{name}: {time.monotonic() - start:.1f} s, {memory_of_children() / 1e6:.0f} MB")
        assert time.monotonic() - start < 20, name
    assert memory_of_children() < 300e6
    large = sets.package(entries=[{"path": f"./{number}", "content": zeros} for number in range(100)])
    before = memory_of_children()
    inspection = inspect(folder_with(folder / "large", large=large))
    same(100 * len(zeros), inspection.packages[0].installed_size)
    assert inspection.may_run and memory_of_children() < before + 50e6


def nothingButFilesIsRead(folder):
    """Links to what never ends, folders and FIFOs: an error each, at once."""
    folder = folder_with(folder / "set")
    (folder / "1.ipk").symlink_to("/dev/zero")
    os.mkfifo(folder / "2.ipk")
    (folder / "3.ipk").mkdir()
    (folder / "4.ipk").symlink_to("4.ipk")
    (folder / "5.ipk").write_bytes(sets.package(firmware=10))
    inspection = inspect(folder)
    same(["5.ipk"], inspection.order)
    same(["1.ipk", "2.ipk", "3.ipk", "4.ipk"],
         sorted(one.package for one in inspection.findings if one.level == "error"))


def commandsAreThoseOfTheProgram(_folder):
    """As the fault table and the harness have them."""
    from machine.packages import INSTALL
    same([f"{INSTALL} /tmp/ota/10 base.ipk"], program.commands(b"10 base.ipk"))
    same(1, len(program.commands(b"0" * 185 + b".ipk")))
    same([f"{INSTALL} /tmp/ota/{'0' * 186}.ipk", f"{INSTALL} "], program.commands(b"0" * 186 + b".ipk"))


def orderIsThatOfLs(folder):
    names = ["10.ipk", "9.ipk", "B.ipk", "a.ipk", "A.ipk", "_.ipk", "10-x.ipk", "é.ipk", "~.ipk"]
    place = folder_with(folder / "set")
    for name in names:
        (place / name).write_bytes(sets.package())
    listed = output("sh", "-c", f"LC_ALL=C; export LC_ALL; ls {place}/*.ipk | cat").splitlines()
    same([pathlib.Path(line).name for line in listed], inspect(place).order)


ENDING = [
    "kill -9 $(cat /tmp/ota.pid)", "killall update-assistant", "killall -q -9 update-assistant || true",
    "pkill -f update-assistant", "/etc/init.d/update-assistant restart", "service update-assistant stop",
    "systemctl --no-block restart update-assistant",
    "[ -x /bin/systemctl ] && systemctl stop update-assistant.service", "reboot", "sleep 5 && /sbin/reboot -f &",
    "shutdown -r now", "init 6", "poweroff", "sh -c 'sleep 1; reboot'", "(sleep 3; reboot) &", "nohup reboot",
    "echo b > /proc/sysrq-trigger", "start-stop-daemon -K -p /tmp/ota.pid", "kill `pidof update-assistant`",
    "P=`pidof update-assistant`\nkill $P", "for p in $(pidof update-assistant); do kill $p; done",
    "update-assistant-start &", "systemctl reboot", "killall5", "if true; then reboot; fi", "trap 'reboot' EXIT",
    "timeout 10 reboot", "kill \\\n -9 $(cat /tmp/ota.pid)",
]
HARMLESS = [
    "echo 'please reboot the machine'", "# reboot", "true # killall update-assistant", "rm -f /tmp/ota.log",
    "systemctl daemon-reload", "systemctl restart coffee", "killall coffee", "kill $(cat /var/run/coffee.pid)",
    "touch /var/run/reboot-required", "systemctl enable update-assistant",
    "cp update-assistant.service /lib/systemd/system/", "chmod 755 /usr/bin/update-assistant",
    "update-rc.d update-assistant defaults", "/etc/init.d/coffee restart", "shutdown -c",
    "ps | grep update-assistant", "ln -s /usr/bin/update-assistant /usr/local/bin/ota",
    "logger 'kill update-assistant'", "pidof update-assistant",
]


def scriptsThatEndTheUpdateAreFound(folder):
    folder = folder_with(folder / "set", **{
        f"{kind}{number}": sets.package(name=f"{kind}{number}", scripts={"postinst": line})
        for kind, lines in (("ending", ENDING), ("harmless", HARMLESS)) for number, line in enumerate(lines)})
    found = {one.package.removesuffix(".ipk") for one in inspect(folder).findings if "would end the update" in one.text}
    same([], [line for number, line in enumerate(ENDING) if f"ending{number}" not in found])
    same([], [line for number, line in enumerate(HARMLESS) if f"harmless{number}" in found])


def readersThatFailAreNotWaitedFor(folder):
    """A process that crashes, eats memory, writes or is killed gives no result, and the others go on."""
    def work(what):
        if what == "crash":
            os.abort()
        if what == "memory":
            return len(bytes(4 * children.MEMORY))
        if what == "write":
            with open(folder / "written", "w", encoding="ascii") as file:
                file.write("x")
        if what == "killed":
            os.kill(os.getpid(), signal.SIGKILL)
        return what

    same([1, None, None, None, None, 2], children.each(work, [1, "crash", "memory", "write", "killed", 2]))


def interruptedInspectionLeavesNothing(_folder):
    """Ctrl-C, and a kill: the processes that read packages end, too."""
    for number in signal.SIGINT, signal.SIGKILL:
        code = ("import sys, os, time; sys.path[:0] = sys.argv[1:]; from rehearsal.inspection import children\n"
                "children.each(lambda item: print('at work', flush=True) or time.sleep(1000), [1])")
        process = subprocess.Popen([sys.executable, "-c", code, PROJECT, PROJECT / "sandbox"], stdout=subprocess.PIPE,
                                   stderr=subprocess.DEVNULL, text=True)
        process.stdout.readline()
        process.send_signal(number)
        process.wait()
        same("", process.stdout.read())  # comes to its end with the last process that has it open
