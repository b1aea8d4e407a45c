"""Inspects a folder of packages, or a stick, without running anything of it.

    inspection = inspect(folder, Settings(installed=after(inspect(previous_release)), room={"/tmp": 50_000_000}))
    inspection.findings   # Finding(level, package, text, do)
    inspection.order      # the names of the packages, as the machine installs them
    inspection.may_run    # False when the packages would unpack to more than is bearable

program.py reads from the program's sources what it does. folder.py lists as the program lists, reader.py reads one
package, in a process of its own (children.py), control.py its fields. order.py, scripts.py, room.py and firmware.py
judge what was read.
"""

import dataclasses
import itertools
import pathlib
import subprocess

from . import children, firmware, folder as folders, order, reader, room, scripts
from .firmware import Firmware
from .words import Finding, error, shown

__all__ = ["Finding", "Firmware", "Inspection", "Package", "Settings", "after", "host_architectures", "inspect"]


@dataclasses.dataclass(frozen=True)
class Settings:
    """What the machine is like. `installed` has by name the version of each installed package, or the Package itself,
    which tells its size and what it provides, too. `room` has the free bytes by folder."""

    kind: str = "auto"  # folder, stick or auto
    architectures: tuple = ()  # default: those of host_architectures()
    installed: dict = dataclasses.field(default_factory=dict)
    room: dict = dataclasses.field(default_factory=dict)


@dataclasses.dataclass
class Package:
    """A package file. Name, version and architecture are empty when its control file cannot be read."""

    file: str
    path: pathlib.Path
    size: int = 0
    name: str = ""
    version: str = ""
    architecture: str = ""
    depends: tuple = ()  # the texts of Pre-Depends and Depends
    provides: tuple = ()
    installed_size: int = 0  # bytes that it unpacks to
    stated_size: int = 0
    control_unpacked: int = 0  # bytes that its control archive takes on a disk
    below: dict = dataclasses.field(default_factory=dict)  # bytes on a disk, by folder of Settings.room
    entries: int = 0
    scripts: dict = dataclasses.field(default_factory=dict)  # name: mode and text
    firmware: dict = None
    beside_firmware: tuple = ()
    relations: tuple = ()  # Pre-Depends and Depends: text, alternatives
    conflicts: tuple = ()
    is_readable: bool = False
    is_too_much: bool = False


@dataclasses.dataclass
class Inspection:
    """What was found. `staging` is the folder that has the packages."""

    kind: str
    staging: pathlib.Path
    packages: list
    findings: list
    firmware: Firmware
    may_run: bool
    has_image: bool  # the stick has an image that starts a run of the control board

    @property
    def order(self):
        return [package.file for package in self.packages]


def host_architectures():
    """What a machine of this host's kind takes."""
    return "all", "noarch", subprocess.run(["dpkg", "--print-architecture"], stdout=subprocess.PIPE, text=True,
                                           check=True).stdout.strip()


def after(inspection):
    """What is installed after an update, for Settings.installed of the next one."""
    return {package.name: package for package in inspection.packages if package.name}


def inspect(folder, settings=Settings()):
    """Inspects the folder. Returns an Inspection."""
    found = folders.find(folder, settings.kind)
    rooms = tuple(settings.room)
    read = children.each(reader.read, [(str(path), rooms) for path in found.paths.values()])
    findings, packages = list(found.findings), []
    for (file, path), facts in zip(found.paths.items(), read):
        package, own = _package(file, path, facts)
        packages.append(package)
        findings += own
    findings += order.findings(packages, settings.installed, settings.architectures or host_architectures())
    findings += itertools.chain.from_iterable(map(scripts.findings, packages))
    findings += room.findings(packages, settings.installed, settings.room)
    image, own = firmware.find(packages)
    findings += own
    is_too_much = found.is_too_much or any(package.is_too_much for package in packages)
    if not is_too_much:
        total = list(room.total(packages))
        findings += total
        is_too_much = bool(total)
    return Inspection(found.kind, found.staging, packages, _sorted(findings, packages), image, not is_too_much,
                      found.has_image)


def _package(file, path, facts):
    package = Package(file, path)
    try:
        package.size = path.stat().st_size
    except OSError:
        pass  # the reader has said so
    if facts is None:
        package.is_too_much = True
        return package, [error(file, f"{shown(file)} cannot be read within the memory and the time that the rehearsal "
                               "gives a package. The update is not run.", "Build the package again.")]
    fields = facts["fields"]
    for name in ("control_unpacked", "below", "entries", "scripts", "firmware", "is_readable", "is_too_much"):
        setattr(package, name, facts[name])
    package.installed_size, package.beside_firmware = facts["unpacked"], tuple(facts["beside_firmware"])
    if fields:
        package.name, package.version = fields["Package"], fields["Version"]
        package.architecture = fields["Architecture"]
        package.stated_size = fields["Installed-Size"]
        package.relations = (*fields["Pre-Depends"], *fields["Depends"])
        package.depends = tuple(entry["text"] for entry in package.relations)
        package.provides = tuple(one[0] for entry in fields["Provides"] for one in entry["alternatives"] if one[0])
        package.conflicts = tuple(fields["Conflicts"])
    return package, [Finding(*finding) for finding in facts["findings"]]


def _sorted(findings, packages):
    """Errors first, then in the order of the installation."""
    places = {package.file: number for number, package in enumerate(packages)}
    return sorted(findings, key=lambda one: (one.level != "error", places.get(one.package, -1)))
