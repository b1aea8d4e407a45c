"""The simulated machine, seen from the host. The folder of a fact is hidden on the machine, unless shown."""

import os
import pathlib
import random
import shutil
import subprocess
import tty
import unittest

from facts import output, same
from machine.paths import PROJECT
from machine.screen import start_display
from machine.watch import await_, run, text_of

SANDBOX = PROJECT / "sandbox/run"
BASE = "good/10-machine-base_1.2.0.ipk"


def sandbox(*words, status=0, **variables):
    """Runs the machine, which has to end with the status. Returns what is said."""
    return output(SANDBOX, *words, status=status, environment=os.environ | variables)


def build_packages(folder):
    output(PROJECT / "sandbox/packages", folder / "packages")
    return folder / "packages"


def make_tool(path, *lines):
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text("\n".join(["#!/bin/sh", *lines, ""]), encoding="ascii")
    path.chmod(0o755)


def exitStatusIsTheCommands(_):
    sandbox("true")
    sandbox("--", "sh", "-c", "exit 7", status=7)
    sandbox("sh", "-c", "kill -9 $$", status=137)


def ownFaultsAre125(folder):
    sandbox(status=125)
    assert "unknown option --magic" in sandbox("--magic", "true", status=125)
    sandbox("--state", status=125)
    sandbox("--bind", folder / "none", "true", status=125)
    sandbox("--opkg", "apt", "true", status=125)
    sandbox(folder / "none", status=125)


def userIsZero(_):
    same("0\n", sandbox("id", "-u"))
    same("0\n", sandbox("id", "-g"))
    same("1\n", sandbox("printenv", "UPDATE_ASSISTANT_SANDBOX"))


def foldersAreTheMachinesOwn(folder):
    (folder / "of-the-host").touch()
    for own in ("/tmp", "/root", "/mnt", "/run", "/dev"):
        inside = pathlib.Path(own, folder.name + ".inside")
        sandbox("touch", inside)
        assert not inside.exists()
    sandbox("test", "-e", folder / "of-the-host", status=1)
    same("Hmi\n", sandbox("ls", "/root"))
    same("ptmx\n", sandbox("ls", "/dev/pts"))


def hostIsReadOnly(folder):
    for host in ("/boot", "/home", PROJECT):
        sandbox("touch", f"{host}/{folder.name}", status=1)


def machineHasADiskOfItsOwn(folder):
    for own in ("/", "/etc", "/usr/bin", "/var/lib"):
        changed = pathlib.Path(own, folder.name)
        sandbox("touch", changed)
        assert not changed.exists()
    sandbox("sh", "-c", "rm /usr/bin/env && ! [ -e /usr/bin/env ]")
    assert os.path.exists("/usr/bin/env")
    full = sandbox("--small", "/=1048576", "sh", "-c", "head -c 2M /dev/zero >/var/full 2>/dev/null; "
                   "stat --format=%s /var/full")
    assert 1000000 < int(full) <= 1048576
    for own in ("/", "/etc", "/usr", "/var"):
        sandbox("--read-only", "/", "touch", f"{own}/{folder.name}", status=1)
    assert not os.path.exists("/sys/disk")


def bindIsWritable(folder):
    sandbox("--bind", folder, "sh", "-c", f"echo inside >'{folder}/file'")
    same("inside\n", text_of(folder / "file"))


def bindInAShownFolderIsWritable(folder):
    build = folder / "build"
    build.mkdir()
    sandbox("--bind", build, "--show", folder, "sh", "-c", f"echo inside >'{build}/file'")
    same("inside\n", text_of(build / "file"))


# Of the host, --help and the README name only the folders that the last assertion adds.
def noOtherFolderOfTheHostIsWritable(folder):
    bound, profiles, state = (folder / name for name in ("bound", "profiles", "state"))
    bound.mkdir()
    profiles.mkdir()

    def writable(*options, **variables):
        mounts = (line.split() for line in sandbox(*options, "cat", "/proc/self/mountinfo", **variables).splitlines())
        return {mount[4] for mount in mounts if "rw" in mount[5].split(",") and not mount[4].startswith(("/dev", "/proc"))}

    own = writable(LLVM_PROFILE_FILE="")
    same({"/", "/etc", "/mnt", "/opt", "/root", "/run", "/run/machine", "/srv", "/tmp", "/usr", "/var"}, own)
    same(own | {str(bound), str(profiles)},
         writable("--bind", bound, "--state", state, "--show", folder, LLVM_PROFILE_FILE=str(profiles / "counters")))


def showIsReadOnly(folder):
    file = folder / "file"
    file.write_text("host\n", encoding="ascii")
    same("host\n", sandbox("--show", file, "cat", file))
    sandbox("--show", file, "tee", file, status=1)
    same("host\n", text_of(file))


def stateIsKept(folder):
    packages, state = build_packages(folder), folder / "state"
    sandbox("--state", state, "--show", packages, "opkg", "install", packages / BASE)
    same("", sandbox("--state", state, "opkg", "list-installed"))  # the disk is new
    same(["opkg", "opkg"], [call.split()[0] for call in text_of(state / "calls.log").splitlines()])


def smallFolderGetsFull(_):
    same("8192\n", sandbox("--small", "/tmp=8192", "sh", "-c",
                           "head -c 20000 /dev/zero >/tmp/file 2>/dev/null; stat --format=%s /tmp/file"))
    sandbox("--small", "/tmp", "true", status=125)


def readOnlyFolderIsNotWritten(folder):
    file = folder / "file"
    file.write_text("host\n", encoding="ascii")
    same("host\n", sandbox("--read-only", "/tmp", "--show", file, "cat", file))
    sandbox("--read-only", "/tmp", "touch", "/tmp/file", status=1)
    sandbox("--read-only", "/tmp/ota", "touch", "/tmp/ota/file", status=1)
    sandbox("--read-only", "/tmp/ota", "touch", "/tmp/file")


def placeIsReadOnly(folder):
    (folder / "a=b").mkdir()
    (folder / "a=b/file").write_text("host\n", encoding="ascii")
    place = f"/mnt/stick={folder}/a=b"
    same("host\n", sandbox("--place", place, "cat", "/mnt/stick/file"))
    sandbox("--place", place, "touch", "/mnt/stick/other", status=1)
    sandbox("--place", f"/mnt={folder}/none", "true", status=125)
    sandbox("--place", folder, "true", status=125)


def deviceIsUsable(folder):
    ours, theirs = os.openpty()
    tty.setraw(theirs)
    sandbox("--private", "--device", f"/dev/ttymxc1={os.ttyname(theirs)}", "sh", "-c",
            "exec 3<>/dev/ttymxc1 && [ -t 3 ] && echo inside >&3")
    same(b"inside\n", os.read(ours, 100))
    (folder / "file").touch()
    for device in ("/dev/ttymxc1", f"/dev/ttymxc1={folder}/none", f"/dev/ttymxc1={folder}/file"):
        sandbox("--device", device, "true", status=125)


def diskInAFolderStays(folder):
    disk = folder / "disk"
    disk.mkdir()
    kind = run("stat", "--file-system", "--format=%T", disk).stdout.strip()
    if kind not in ("ext2/ext3", "xfs", "btrfs", "f2fs"):
        raise unittest.SkipTest(f"the file system of {folder}, {kind}, carries no disk of a machine")
    sandbox("--private", "--disk", disk, "sh", "-c", "for dir in /usr /etc /tmp /root; do echo inside >$dir/own; done")
    same(4, sum(path.name == "own" and text_of(path) == "inside\n" for path in disk.rglob("own")))
    assert not os.path.exists("/usr/own")
    sandbox("--disk", folder / "none", "true", status=125)


def privateMachineHidesTheHost(folder):
    (folder / "file").touch()
    for path in ("/home", "/boot", "/etc/shadow", "/etc/hostname", "/var/lib/dpkg", PROJECT / "src", folder / "file"):
        sandbox("--private", "test", "-e", path, status=1)
    sandbox("--private", "--show", folder, "test", "-e", folder / "file")
    assert "secret" not in sandbox("--private", "env", SECRET="secret", DISPLAY=":secret")
    same("root\n", sandbox("--private", "id", "-un"))


def machineWithoutNetworkIsAlone(_):
    def routes(*options):
        return len(sandbox(*options, "cat", "/proc/net/dev").splitlines())

    same(3, routes("--no-network"))  # two lines of titles and the loopback


def projectUnderTmpIsVisible(folder):
    project = folder / "project"
    shutil.copytree(PROJECT / "sandbox", project / "sandbox", symlinks=True)
    runner = project / "sandbox/run"
    (project / "file").touch()
    output(runner, "test", "-e", project / "file")
    same(f"{project}/sandbox/bin/opkg\n", output(runner, "sh", "-c", "command -v opkg"))
    (folder / "beside").touch()
    output(runner, "test", "-e", folder / "beside", status=1)


def buildTreeOfTheCommandIsVisible(folder):
    cache = folder / "build/CMakeCache.txt"
    program = folder / "build/tests/program"
    make_tool(program, f"[ -e '{cache}' ]")
    cache.touch()
    sandbox(program)


def relativeCommandIsFound(folder):
    make_tool(folder / "bin/program", "echo found")
    same("found\n", output("env", "-C", folder, SANDBOX, "bin/program"))


def plainUserInstallsPackages(folder):
    if os.getuid() != 0:
        raise unittest.SkipTest("this is a plain user already: every other fact tests it")
    as_nobody = ["setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups"]
    if run(*as_nobody, "test", "-r", SANDBOX).returncode != 0:
        raise unittest.SkipTest("a plain user cannot read the project")
    packages = build_packages(folder)
    folder.chmod(0o755)
    same("0\n", output(*as_nobody, SANDBOX, "id", "-u"))
    same("machine-base - 1.2.0\n", output(
        *as_nobody, SANDBOX, "--show", packages, "sh", "-c",
        f"opkg install '{packages / BASE}' >/dev/null; opkg list-installed"))


def displayIsUsable(folder):
    cookies, cookie = folder / "cookies", "7" * 32
    cookies.touch()
    output("xauth", "-q", "-f", cookies, "add", ":0", ".", cookie)  # the number is not known yet, the cookie is
    server, display = start_display(320, 200, "-auth", str(cookies))
    try:
        output("xauth", "-q", "-f", cookies, "add", display, ".", cookie)
        same("320 200\n", sandbox("xdotool", "getdisplaygeometry", DISPLAY=display, XAUTHORITY=str(cookies)))
    finally:
        server.terminate()
        server.wait()


def machineEndsWithItsRunner(_):
    seconds = f"98765{random.randrange(100000)}"

    def runs_on_host():
        return any(seconds in text_of(path) for path in pathlib.Path("/proc").glob("[0-9]*/cmdline"))

    with subprocess.Popen([SANDBOX, "sh", "-c", f"echo; exec sleep {seconds}"], stdout=subprocess.PIPE) as runner:
        runner.stdout.readline()
        assert runs_on_host()
        runner.terminate()
    await_("the end of the machine", lambda: not runs_on_host())


def few_tools(folder):
    """A PATH with the tools that the runner needs."""
    tools = folder / "bin"
    tools.mkdir()
    for tool in ("bash", "dirname", "realpath", "env", "mkdir", "cat"):
        (tools / tool).symlink_to(shutil.which(tool))
    return tools


def missingBubblewrapIsSaid(folder):
    assert "install the package bubblewrap" in sandbox("cat", status=125, PATH=str(few_tools(folder)))


def forbiddenNamespacesAreSaid(folder):
    tools = few_tools(folder)
    make_tool(tools / "bwrap", "echo 'No permissions to create new namespace' >&2", "exit 1")
    (tools / "sh").symlink_to("/bin/sh")
    assert "No permissions to create new namespace" in sandbox("cat", status=125, PATH=str(tools))


def missingRealOpkgIsSaid(_):
    if shutil.which("opkg"):
        raise unittest.SkipTest("this host has an opkg")
    assert "there is no opkg on this host; OPKG names one elsewhere" in sandbox("--opkg", "real", "true", status=125)
    assert "there is no /nowhere/opkg" in sandbox("--opkg", "real", "true", status=125, OPKG="/nowhere/opkg")


def realOpkgIsCalledInPlaceOfTheStandIn(folder):
    real, state = folder / "elsewhere/opkg", folder / "state"
    make_tool(real, 'echo "real: $*"; cat /etc/opkg/opkg.conf')
    said = sandbox("--state", state, "--opkg", "real", "opkg", "install", "a.ipk", OPKG=str(real))
    same(["real: install a.ipk", "dest root /", "arch all 1", "arch noarch 1"], said.splitlines()[:4])
    same("opkg install a.ipk\n", text_of(state / "calls.log"))


def missingOverlaysAreSaid(folder):
    tools = few_tools(folder)
    (tools / "bwrap").symlink_to(shutil.which("true"))
    make_tool(tools / "unshare", "echo 'unshare failed: Operation not permitted' >&2", "exit 1")
    (tools / "sh").symlink_to("/bin/sh")
    assert "no disk of the machine's own (overlay file systems): unshare failed" in sandbox(
        "cat", status=125, PATH=str(tools))
