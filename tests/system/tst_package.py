"""The program's package: what arrives, its start script, and the program that installs itself."""

import os
import pathlib
import re
import signal

from facts import FORCE, await_update_screen, install_calls, opkg, output, same, start_and_await_screen
from machine.paths import DATABASE, PACKAGE_SETTINGS, PID_FILE, PROGRAM_LOG, PROJECT, STAGED, STICK
from machine.processes import EMULATOR
from machine.watch import WAIT_S, is_running, same_content, text_of

BASE = "good/10-machine-base_1.2.0.ipk"
VERSION = re.search(r"^ *VERSION ([0-9.]*)$", text_of(PROJECT / "CMakeLists.txt"), re.MULTILINE)[1]
INSTALLED_PROGRAM = pathlib.Path("/usr/bin/update-assistant")
START_SCRIPT = pathlib.Path("/usr/bin/update-assistant-start")
DOCUMENTS = pathlib.Path("/usr/share/doc/update-assistant")


def package(machine, kind="plain"):
    """The package, or "revised" the one after it. It may be for another processor than this machine's."""
    file, = (machine.build / "tests/system/packages" / kind).glob("*.ipk")
    with open(PACKAGE_SETTINGS, "a", encoding="ascii") as settings:
        settings.write(f"arch {architecture(file)} 20\n")
    return file


def architecture(file):
    return output("dpkg-deb", "--field", file, "Architecture").strip()


def install(machine, kind="plain"):
    opkg(machine, "install", *FORCE, package(machine, kind))


def state(machine):
    return machine.packages.states()["update-assistant"]


def files():
    """The mode and path of each file of a package."""
    listed = (pathlib.Path(line.split("\t")[0]) for names in DATABASE.parent.glob("info/*.list")
              for line in text_of(names).splitlines() if line)
    return [f"{path.stat().st_mode & 0o777:o} {path.relative_to('/')}" for path in sorted(listed) if not path.is_dir()]


def filesArriveAtTheirPlaces(machine):
    install(machine)
    same(f"installed {VERSION}", state(machine))
    same(["755 usr/bin/update-assistant",
          "755 usr/bin/update-assistant-start",
          "644 usr/share/doc/update-assistant/copyright",
          "755 usr/share/doc/update-assistant/examples/update-assistant.init",
          "644 usr/share/doc/update-assistant/examples/update-assistant.rules",
          "644 usr/share/doc/update-assistant/examples/update-assistant.service"], files())
    assert same_content(PROJECT / "LICENSE", DOCUMENTS / "copyright")
    # It has no symbols.
    assert INSTALLED_PROGRAM.stat().st_size < (machine.build / "src/update-assistant").stat().st_size


# What every opkg can read, and nothing that it would have to look up or run.
def packageIsPlain(machine):
    file = package(machine)
    size = sum(int(line.split()[2]) for line in output("dpkg-deb", "--contents", file).splitlines() if line[0] == "-")
    same("debian-binary\ncontrol.tar.gz\ndata.tar.gz\n", output("ar", "t", file))
    same("Package: update-assistant\n"
         f"Version: {VERSION}\n"
         f"Architecture: {architecture(file)}\n"
         "Maintainer: Example Maintainer <maintainer@example.com>\n"
         "Section: utils\n"
         "Priority: optional\n"
         f"Installed-Size: {size}\n"
         "Description: On-device software update with control-board firmware transfer\n",
         output("dpkg-deb", "--field", file))
    same("./\n./control\n", output("sh", "-c", f"dpkg-deb --ctrl-tarfile '{file}' | tar -t"))
    same(f"update-assistant_{VERSION}_{architecture(file)}.ipk", file.name)
    contents = [line.split() for line in output("dpkg-deb", "--contents", file).splitlines()]
    same({("root/root", "2030-01-01")}, {(line[1], line[3]) for line in contents})


def isReinstalledDowngradedAndRemoved(machine):
    opkg(machine, "install", *FORCE, BASE, package(machine))
    same(f"installed {VERSION}", state(machine))
    INSTALLED_PROGRAM.unlink()
    install(machine)
    assert os.access(INSTALLED_PROGRAM, os.X_OK)
    install(machine, "revised")
    same(f"installed {VERSION}-1", state(machine))
    install(machine)
    same(f"installed {VERSION}", state(machine))
    opkg(machine, "remove", "update-assistant")
    same("machine-base - 1.2.0\n", opkg(machine, "list-installed"))
    same(["644 etc/machine/release", "644 etc/machine/settings.ini"], files())
    assert not any(path.exists() for path in (INSTALLED_PROGRAM, START_SCRIPT, DOCUMENTS))


def started_with(**variables):
    """What the start script gives to the program beside it."""
    folder = pathlib.Path("/tmp/bin")
    folder.mkdir(exist_ok=True)
    script = folder / START_SCRIPT.name
    script.write_bytes((PROJECT / "packaging" / script.name).read_bytes())
    program = folder / INSTALLED_PROGRAM.name
    program.write_text('#!/bin/sh\nenv | grep -E "^(QT_|HOME=)" | sort\necho "arguments: $*"\n', encoding="ascii")
    program.chmod(0o755)
    environment = {"PATH": os.environ["PATH"], "UPDATE_ASSISTANT_CONSOLE": "/nowhere/console"} | variables
    return output("sh", script, "2", "two words", environment=environment).splitlines()


def largest_font(folder):
    return max(map(int, output("find", "-L", folder, "-maxdepth", "3", "-name", "*.[ot]t[cf]", "-printf",
                               r"%s\n").split()))


def startScriptSetsWhatTheDisplayNeeds(_):
    same(["HOME=/root",
          "QT_QPA_FONTDIR=/fonts",
          "QT_QPA_PLATFORM=linuxfb",
          "QT_QUICK_BACKEND=software",
          "arguments: 2 two words"], started_with(QT_QPA_FONTDIR="/fonts"))
    same(["HOME=/root",
          "QT_QPA_FONTDIR=/fonts",
          "QT_QPA_PLATFORM=eglfs",
          "arguments: 2 two words"], started_with(QT_QPA_FONTDIR="/fonts", QT_QPA_PLATFORM="eglfs"))
    same(["HOME=/home",
          "QT_QPA_FONTDIR=/fonts",
          "QT_QPA_PLATFORM=linuxfb:size=800x480",
          "QT_QUICK_BACKEND=other",
          "arguments: 2 two words"],
         started_with(HOME="/home", QT_QPA_FONTDIR="/fonts", QT_QPA_PLATFORM="linuxfb:size=800x480",
                      QT_QUICK_BACKEND="other"))
    assert "HOME=/root" in started_with(HOME="/")  # the home that an init has is none
    folder, = (line.removeprefix("QT_QPA_FONTDIR=") for line in started_with() if "FONTDIR" in line)
    same(largest_font("/usr/share/fonts"), largest_font(folder))


def startScriptWritesToTheConsole(_):
    expected = started_with()
    same("arguments: 2 two words", expected[-1])  # without a console the caller sees it
    same([], started_with(UPDATE_ASSISTANT_CONSOLE="/tmp/console"))
    same(expected, text_of("/tmp/console").splitlines())


def installed_start_script():
    """It starts what lies beside it: under an emulator that is, at another place with a link to the
    script, the installed program in the emulator's hands."""
    if not EMULATOR:
        return START_SCRIPT
    folder = pathlib.Path("/run/machine/emulated")
    if not folder.exists():
        folder.mkdir()
        (folder / START_SCRIPT.name).symlink_to(START_SCRIPT)
        program = folder / INSTALLED_PROGRAM.name
        program.write_text(f'#!/bin/sh\nexec {" ".join(EMULATOR)} {INSTALLED_PROGRAM} "$@"\n', encoding="ascii")
        program.chmod(0o755)
    return folder / START_SCRIPT.name


def use_installed(machine):
    """Has the program started by the installed start script, from the package."""
    install(machine)
    machine.program.command = [installed_start_script()]
    machine.environment["UPDATE_ASSISTANT_CONSOLE"] = str(PROGRAM_LOG)


def runs_from_the_package(pid):
    return str(INSTALLED_PROGRAM) in text_of(f"/proc/{pid}/cmdline").split("\0")


def startScriptStartsTheInstalledProgram(machine):
    use_installed(machine)
    program = start_and_await_screen(machine)
    assert runs_from_the_package(program.pid)
    same(str(program.pid), text_of(PID_FILE))


# The message is in the page about what is missing, too.
def missingDisplayIsSaid(machine):
    def ends_by_abort(message, **variables):
        machine.environment.update(variables)
        same(-signal.SIGABRT, machine.program.start().wait(WAIT_S))
        assert machine.console.printed(message)
        assert message in text_of(PROJECT / "docs/porting.md")

    use_installed(machine)
    machine.environment.pop("QT_QPA_PLATFORM", None)
    ends_by_abort("linuxfb: Failed to initialize screen")
    ends_by_abort("Could not find the Qt platform plugin", QT_QPA_PLATFORM_PLUGIN_PATH="/nowhere",
                  QT_QPA_PLATFORM="none")


def programUpdatesItselfFromTheStick(machine):
    use_installed(machine)
    plain, revised = package(machine), package(machine, "revised")
    machine.packages.stage(revised, folder=STICK)
    machine.screen.open()
    first = machine.program.start()
    machine.screen.find_window()
    inode = INSTALLED_PROGRAM.stat().st_ino

    machine.screen.press_button()
    machine.await_("the package", machine.console.package_ended, 0, 0)
    same(install_calls(plain, STAGED / revised.name), machine.calls())
    same(f"installed {VERSION}-1", state(machine))
    assert INSTALLED_PROGRAM.stat().st_ino != inode
    assert machine.program.is_running

    second = start_and_await_screen(machine)
    assert machine.console.printed("enter kill")
    same(-signal.SIGKILL, first.wait(WAIT_S))
    assert runs_from_the_package(second.pid)
    same(str(second.pid), text_of(PID_FILE))


def unitStartsTheStartScript(machine):
    install(machine)
    assert ("ExecStart=/usr/bin/update-assistant-start"
            in text_of(DOCUMENTS / "examples/update-assistant.service").splitlines())


def initScriptStartsTheProgram(machine):
    use_installed(machine)
    # With the path to where packages lie on this machine.
    script = pathlib.Path("/tmp/init")
    script.write_text(text_of(DOCUMENTS / "examples/update-assistant.init").replace(
        "/usr/bin/update-assistant-start", str(installed_start_script())), encoding="ascii")

    def init(word, status=0):
        output("sh", script, word, status=status, environment=machine.environment)

    init("start")
    await_update_screen(machine)
    first = text_of(PID_FILE)
    assert runs_from_the_package(first)
    init("stop")
    assert is_running(first)

    machine.console.clear()
    init("restart")
    await_update_screen(machine)
    assert not is_running(first)
    init("hurry", status=2)
