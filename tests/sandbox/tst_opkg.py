"""The stand-ins on the machine, and the example packages."""

import os
import pathlib

from facts import FORCE, install_calls, opkg, output, same
from machine import HAND_OVER
from machine.paths import FIRMWARE, PACKAGED_FIRMWARE, PROJECT, ROOT
from machine.watch import same_content, same_folder, text_of

BASE = "good/10-machine-base_1.2.0.ipk"
OLDER_BASE = "downgrade/10-machine-base_1.1.0.ipk"
INTERFACE = "good/30-user-interface_3.1.0.ipk"
RELEASE = ROOT / "etc/machine/release"


def listed(machine):
    return opkg(machine, "list-installed").splitlines()


def state(machine, name="machine-base"):
    return machine.packages.states()[name]


def scripts_that_ran():
    return [line.rstrip() for line in text_of(ROOT / "var/log/maintainer-scripts.log").splitlines()]


def make_package(name, architecture="all", release=None):
    """Makes /tmp/NAME.ipk, with another release file if one is given."""
    tree = pathlib.Path("/tmp", name)
    (tree / "DEBIAN").mkdir(parents=True)
    (tree / "DEBIAN/control").write_text(
        f"Package: {name}\nVersion: 1\nArchitecture: {architecture}\n"
        "Maintainer: M <m@example.com>\nDescription: d\n", encoding="ascii")
    if release:
        (tree / "etc/machine").mkdir(parents=True)
        (tree / "etc/machine/release").write_text(release, encoding="ascii")
    output("dpkg-deb", "--root-owner-group", "--build", tree, f"{tree}.ipk")
    return f"{tree}.ipk"


def packageIsReallyInstalled(machine):
    opkg(machine, "install", *FORCE, BASE)
    same("installed 1.2.0", state(machine))
    same(["machine-base - 1.2.0"], listed(machine))
    same("machine 1.2.0\n", text_of(RELEASE))
    assert not os.path.exists("/etc/machine/release")


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


def unknownOptionIsRefused(machine):
    assert "unknown option --force-depends" in opkg(machine, "install", "--force-depends", BASE, status=255)
    opkg(machine, "install", BASE, "--force-depends", status=255)
    opkg(machine, "list-installed", "--all", status=255)
    same([], listed(machine))


def unknownVerbIsRefused(machine):
    assert "unknown verb upgrade" in opkg(machine, "upgrade", "machine-base", status=255)
    opkg(machine, status=255)
    opkg(machine, "install", *FORCE, status=255)


def missingFileIsRefused(machine):
    assert "unknown package 'undefined'" in opkg(machine, "install", *FORCE, "undefined", status=255)


def brokenPackageIsRefused(machine):
    opkg(machine, "install", *FORCE, "broken/30-user-interface_3.1.1.ipk", status=1)
    same([], listed(machine))


def failingScriptLeavesThePackageUnconfigured(machine):
    said = opkg(machine, "install", *FORCE, "failing/20-drink-recipes_2.0.2.ipk", status=1)
    assert "the recipe database is locked" in said
    same("half-configured 2.0.2", state(machine, "drink-recipes"))
    same([], listed(machine))


def downgradeNeedsItsOption(machine):
    opkg(machine, "install", BASE)
    opkg(machine, "install", OLDER_BASE)
    same("installed 1.2.0", state(machine))
    opkg(machine, "install", "--force-downgrade", OLDER_BASE)
    same("installed 1.1.0", state(machine))
    same("machine 1.1.0\n", text_of(RELEASE))
    same("machine 1.2.0\n", text_of(ROOT / "var/log/previous-release"))  # what the preinst saw


def reinstallNeedsItsOption(machine):
    def times_configured():
        return sum(call.startswith("machine-base postinst") for call in scripts_that_ran())

    opkg(machine, "install", BASE)
    opkg(machine, "install", BASE)
    same(1, times_configured())
    opkg(machine, "install", "--force-reinstall", BASE)
    same(2, times_configured())


def overwriteNeedsItsOption(machine):
    opkg(machine, "install", BASE)
    other = make_package("other", release="another one")
    opkg(machine, "install", other, status=1)
    same("machine 1.2.0\n", text_of(RELEASE))
    opkg(machine, "install", "--force-overwrite", other)
    same("another one", text_of(RELEASE))


def removedPackageIsGone(machine):
    opkg(machine, "install", BASE, INTERFACE)
    opkg(machine, "remove", "user-interface")
    same(["machine-base - 1.2.0"], listed(machine))
    assert not (ROOT / "usr/bin/machine-ui").exists()
    assert RELEASE.exists()
    opkg(machine, "remove", "user-interface")  # it is not installed
    opkg(machine, "remove", "--force-depends", "machine-base", status=255)
    opkg(machine, "remove", status=255)


def foreignPackageNeedsItsArchitecture(machine):
    foreign = make_package("foreign", architecture="s390x")
    opkg(machine, "install", *FORCE, foreign, status=1)
    same([], listed(machine))
    machine.environment["SANDBOX_ARCHITECTURE"] = "s390x"
    opkg(machine, "install", *FORCE, foreign)
    same(["foreign - 1"], listed(machine))
    same("installed 1", state(machine, "foreign"))
    opkg(machine, "remove", "foreign")
    same([], listed(machine))
    opkg(machine, "list-installed", SANDBOX_ARCHITECTURE=output("dpkg", "--print-architecture").strip())


def everyCallIsRecorded(machine):
    opkg(machine, "install", *FORCE, "undefined", status=255)
    opkg(machine, "upgrade", "x", status=255)
    same([*install_calls("undefined"), "opkg upgrade x"], machine.calls())


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
