"""The stand-ins on the machine, and the example packages."""

import fcntl
import json
import os
import pathlib
import shutil
import subprocess

from facts import FORCE, install_calls, opkg, output, same
from machine import HAND_OVER
from machine.paths import FIRMWARE, PACKAGE_SETTINGS, PACKAGED_FIRMWARE, PROJECT
from machine.watch import same_content, same_folder, text_of

BASE = "good/10-machine-base_1.2.0.ipk"
OLDER_BASE = "downgrade/10-machine-base_1.1.0.ipk"
INTERFACE = "good/30-user-interface_3.1.0.ipk"
RELEASE = pathlib.Path("/etc/machine/release")


def listed(machine):
    return opkg(machine, "list-installed").splitlines()


def state(machine, name="machine-base"):
    return machine.packages.states()[name]


def scripts_that_ran():
    return [line.rstrip() for line in text_of("/var/log/maintainer-scripts.log").splitlines()]


COMPRESSIONS = {"gz": ["gzip"], "xz": ["xz"], "bz2": ["bzip2"], "lz4": ["lz4"], "zst": ["zstd"]}


def make_package(name, version="1", architecture="all", depends="", installed_size=0, without="", release=None,
                 settings=None, compression=("gz", ["gzip"]), outer="ar"):
    """Makes /tmp/NAME_VERSION.ipk, with a release file or a configuration file if their text is given."""
    tree = pathlib.Path("/tmp", f"{name}_{version}")
    shutil.rmtree(tree, ignore_errors=True)
    (tree / "control").mkdir(parents=True)
    (tree / "data/etc/machine").mkdir(parents=True)
    fields = {"Package": name, "Version": version, "Architecture": architecture, "Depends": depends,
              "Installed-Size": installed_size, "Description": "d"}
    (tree / "control/control").write_text("".join(
        f"{field}: {value}\n" for field, value in fields.items() if value and field != without), encoding="ascii")
    if release:
        (tree / "data/etc/machine/release").write_text(release, encoding="ascii")
    if settings:
        (tree / "data/etc/machine/settings").write_text(settings + "\n", encoding="ascii")
        (tree / "control/conffiles").write_text("/etc/machine/settings\n", encoding="ascii")
    (tree / "debian-binary").write_text("2.0\n", encoding="ascii")
    suffix, tool = compression
    members = [f"{part}.tar.{suffix}".rstrip(".") for part in ("control", "data")]
    for part, member in zip(("control", "data"), members):
        archive = subprocess.run(["tar", "-C", tree / part, "-c", "."], stdout=subprocess.PIPE, check=True).stdout
        (tree / member).write_bytes(subprocess.run(
            [*tool, "-c"] if tool != ["cat"] else tool, input=archive, stdout=subprocess.PIPE, check=True).stdout)
    file = f"/tmp/{name}_{version}.ipk"
    pack = {"ar": ["ar", "rc", file], "tar": ["tar", "-czf", file]}[outer]
    subprocess.run([*pack, "debian-binary", *members], cwd=tree, check=True)
    return file


def packageIsReallyInstalled(machine):
    same("Installing machine-base (1.2.0) on root.\nConfiguring machine-base.\n",
         opkg(machine, "install", *FORCE, BASE))
    same("installed 1.2.0", state(machine))
    same(["machine-base - 1.2.0"], listed(machine))
    same("machine 1.2.0\n", text_of(RELEASE))


def scriptsRunOnTheMachine(machine):
    opkg(machine, "install", *sorted(machine.packages.folder.glob("good/*.ipk")))
    same(["control-board-firmware postinst configure",
          "drink-recipes postinst configure",
          "machine-base postinst configure",
          "machine-base preinst install",
          "user-interface postinst configure",
          "user-interface preinst install"], sorted(scripts_that_ran()))
    assert same_content(PACKAGED_FIRMWARE, FIRMWARE)
    same(12000, FIRMWARE.stat().st_size)


def wrongCallsAreRefused(machine):
    opkg(machine, "install", "--force-nothing", BASE, status=1)
    opkg(machine, "upgrade-everything", status=1)
    opkg(machine, status=1)
    opkg(machine, "install", *FORCE, status=1)
    same([], listed(machine))


def missingFileIsRefused(machine):
    assert " * opkg_prepare_url_for_install: Couldn't find anything to satisfy 'undefined'.\n" in opkg(
        machine, "install", *FORCE, "undefined", status=255)


def brokenPackageIsRefused(machine):
    file = machine.packages.folder / "broken/30-user-interface_3.1.1.ipk"
    said = opkg(machine, "install", *FORCE, file, status=255)
    assert f" * pkg_extract_control_file_to_stream: Failed to extract control.tar.* from package '{file}'.\n" in said
    assert f" * pkg_init_from_file: Failed to extract control file from {file}.\n" in said
    same([], listed(machine))


def packageWithoutAFieldIsMalformed(machine):
    for name in ("Package", "Version", "Architecture"):
        file = make_package(f"without-{name.lower()}", without=name)
        assert f" * pkg_init_from_file: Malformed package file {file}.\n" in opkg(
            machine, "install", *FORCE, file, status=255)


def bothFormsAndEachCompressionAreRead(machine):
    for compression, tool in COMPRESSIONS.items():
        for outer in ("ar", "tar"):
            name = f"{outer}-{compression}"
            opkg(machine, "install", make_package(name, compression=(compression, tool), outer=outer))
            same("installed 1", state(machine, name))
    uncompressed = make_package("uncompressed", compression=("", ["cat"]))
    assert "Failed to extract control.tar.* from package" in opkg(machine, "install", uncompressed, status=255)


def failingScriptLeavesThePackageUnpacked(machine):
    said = opkg(machine, "install", *FORCE, "failing/20-drink-recipes_2.0.2.ipk", status=255)
    assert "the recipe database is locked" in said
    assert ' * pkg_run_script: package "drink-recipes" postinst script returned status 1.\n' in said
    same("unpacked 2.0.2", state(machine, "drink-recipes"))
    # Each later call configures it again, and fails with it.
    opkg(machine, "install", *FORCE, BASE, status=255)
    same("installed 1.2.0", state(machine))
    opkg(machine, "install", *FORCE, "good/20-drink-recipes_2.0.1.ipk")
    same("installed 2.0.1", state(machine, "drink-recipes"))


def failingPreinstOfAnUpgradeForgetsTheOldVersion(machine):
    machine.packages.build("--faulty")
    opkg(machine, "install", *FORCE, BASE)
    opkg(machine, "install", *FORCE, "scripts/10-machine-base_1.3.0-preinst.ipk", status=255)
    same("half-installed 1.3.0", state(machine))
    same([], listed(machine))
    assert RELEASE.exists()


def downgradeNeedsItsOption(machine):
    opkg(machine, "install", BASE)
    assert "Not downgrading" in opkg(machine, "install", OLDER_BASE)
    same("installed 1.2.0", state(machine))
    assert "Downgrading machine-base from 1.2.0 to 1.1.0 on root.\n" in opkg(
        machine, "install", "--force-downgrade", OLDER_BASE)
    same("installed 1.1.0", state(machine))
    same("machine 1.1.0\n", text_of(RELEASE))
    same("machine 1.2.0\n", text_of("/var/log/previous-release"))  # what the preinst saw


def reinstallNeedsItsOption(machine):
    def times_configured():
        return sum(call.startswith("machine-base postinst") for call in scripts_that_ran())

    opkg(machine, "install", BASE)
    assert "Refusing to load file" in opkg(machine, "install", BASE, status=255)
    same(1, times_configured())
    opkg(machine, "install", "--force-reinstall", BASE)
    same(2, times_configured())


def overwriteNeedsItsOption(machine):
    opkg(machine, "install", BASE)
    other = make_package("other", release="another one")
    said = opkg(machine, "install", other, status=255)
    assert f"Package other wants to install file {RELEASE}\n" in said
    same("machine 1.2.0\n", text_of(RELEASE))
    opkg(machine, "install", *FORCE, other)
    same("another one", text_of(RELEASE))


def obsoleteFilesGo(machine):
    machine.packages.build("--faulty")
    opkg(machine, "install", *FORCE, BASE)
    opkg(machine, "install", *FORCE, "scripts/10-machine-base_1.3.0-postrm.ipk")
    assert not RELEASE.exists()


def changedSettingsAreKept(machine):
    settings = pathlib.Path("/etc/machine/settings")
    opkg(machine, "install", make_package("settings", settings="old"))
    settings.write_text("the user's", encoding="ascii")
    said = opkg(machine, "install", *FORCE, make_package("settings", version="2", settings="new"))
    assert f"Existing conffile {settings} is different from the conffile in the new package.\n" in said
    same("the user's", text_of(settings))
    same("new\n", text_of(f"{settings}-opkg"))


def removedPackageIsGone(machine):
    opkg(machine, "install", BASE, INTERFACE)
    opkg(machine, "remove", "user-interface")
    same(["machine-base - 1.2.0"], listed(machine))
    assert not os.path.exists("/usr/bin/machine-ui")
    assert RELEASE.exists()
    same("No packages removed.\n", opkg(machine, "remove", "user-interface"))


def foreignPackageNeedsItsArchitecture(machine):
    foreign = make_package("foreign", architecture="s390x")
    same("Not selecting foreign 1 due to incompatible architecture.\nUnknown package 'foreign'.\n",
         "".join(line for line in opkg(machine, "install", *FORCE, foreign, status=255).splitlines(keepends=True)
                 if not line.startswith(" *")))
    same([], listed(machine))
    with open(PACKAGE_SETTINGS, "a", encoding="ascii") as file:
        file.write("arch s390x 20\n")
    opkg(machine, "install", *FORCE, foreign)
    same(["foreign - 1"], listed(machine))


def dependenciesMustBeThere(machine):
    needing = make_package("needing", depends="machine-base (>= 1.2), nothing | machine-base")
    said = opkg(machine, "install", *FORCE, needing, status=255)
    assert " * calculate_dependencies_for: Cannot satisfy the following dependencies for needing:\n" in said
    opkg(machine, "install", *FORCE, OLDER_BASE)
    opkg(machine, "install", *FORCE, needing, status=255)
    opkg(machine, "install", *FORCE, BASE)
    opkg(machine, "install", *FORCE, needing)
    same("installed 1", state(machine, "needing"))


def secondCallIsLockedOut(machine):
    with open("/var/run/opkg.lock", "w", encoding="ascii") as file:
        fcntl.lockf(file, fcntl.LOCK_EX)
        said = opkg(machine, "install", *FORCE, BASE, status=255)
    assert " * opkg_lock: Could not lock /var/run/opkg.lock: Resource temporarily unavailable.\n" in said
    same([], listed(machine))


def sizeThatDoesNotFitIsRefused(machine):
    huge = make_package("huge", installed_size=10**15)
    assert " * verify_pkg_installable: Only have " in opkg(machine, "install", *FORCE, huge, status=255)
    same([], listed(machine))


def everyCallIsRecorded(machine):
    opkg(machine, "install", *FORCE, "undefined", status=255)
    opkg(machine, "upgrade", "x", status=1)
    same([*install_calls("undefined"), "opkg upgrade x"], machine.calls())


def recordHasTimesAndStatuses(machine):
    watched = pathlib.Path("/run/machine/watched")
    variables = {"SANDBOX_RECORD": "/run/machine/record", "SANDBOX_WATCH": str(watched)}
    opkg(machine, "list-installed", **variables)
    watched.write_text("four", encoding="ascii")
    opkg(machine, "install", "undefined", status=255, **variables)
    first, second = map(json.loads, text_of("/run/machine/record").splitlines())
    same((["list-installed"], 0, None), (first["arguments"], first["status"], first["watched"]))
    same((["install", "undefined"], 255, 4), (second["arguments"], second["status"], second["watched"][0]))
    assert first["from"] < first["to"] <= second["from"] < second["to"], (first, second)


def handOverIsRecorded(machine):
    same(0, machine.run(*HAND_OVER.split()).returncode)
    same(9, machine.run("/root/Hmi", SANDBOX_HMI_STATUS="9").returncode)
    same([HAND_OVER, "/root/Hmi "], machine.calls())


def examplePackagesAreReproducible(machine):
    again = machine.run("sh", "-c", f"umask 077; exec '{PROJECT}/sandbox/packages' /tmp/again", TZ="Asia/Shanghai")
    same(0, again.returncode)
    assert same_folder(machine.packages.folder, "/tmp/again")
    for package in machine.packages.folder.glob("good/*.ipk"):
        same({"2020-01-01"}, {line.split()[3] for line in output("dpkg-deb", "--contents", package).splitlines()})
