"""Whether the packages find room: in /tmp for the copies, on the machine's disk for what they install."""

from .reader import DISK_BLOCK, UNPACKED
from .words import error, shown, warning

STATE = "State Installed-Size in the control file, in bytes: {}."
GREEN = "On a full disk the machine would show success over a broken file."
LESS = "Make the packages smaller, or make room {}."
SPARE = 10 * 1024 ** 2


def findings(packages, installed, room):
    """`room` has the free bytes by folder. Findings about sizes that are stated come in any case."""
    for package in packages:
        if package.is_readable:
            yield from _stated_size(package)
    yield from _copies(packages, room.get("/tmp"))
    for folder in room:
        if folder != "/tmp":
            yield from _installed_sizes(packages, installed, folder, room[folder])


def _stated_size(package):
    true, stated = package.installed_size, package.stated_size
    if not stated:
        if true:
            yield warning(package.file, f"{shown(package.file)} does not state Installed-Size. {GREEN}",
                          STATE.format(true))
    elif stated < true:
        unit = " It looks like kilobytes." if stated * 1024 >= true else ""
        yield warning(package.file, f"{shown(package.file)} states an Installed-Size of {stated} bytes, but unpacks to "
                      f"{true} bytes. {GREEN}{unit}", STATE.format(true))
    elif stated > 2 * true + SPARE:
        yield warning(package.file, f"{shown(package.file)} states an Installed-Size of {stated} bytes, but unpacks to "
                      f"{true} bytes. The package manager refuses it where less than the stated size is free.",
                      STATE.format(true))


def _on_disk(size):
    return -(-size // DISK_BLOCK) * DISK_BLOCK


def _copies(packages, room):
    """The copies lie in /tmp until the end; the package manager needs room there for the scripts of each."""
    if room is None:
        return
    used = 0
    for package in packages:
        used += _on_disk(package.size)
        if used > room:
            yield error(package.file, f"/tmp has room for {room} bytes, but the packages up to {shown(package.file)} "
                        f"need {used}: the copy is cut off, and the update fails.", LESS.format("in /tmp"))
            return
    for package in packages:
        needed = used + package.control_unpacked + 2 * DISK_BLOCK
        if needed > room:
            yield error(package.file, f"/tmp has room for {room} bytes. With the copies of all packages and what the "
                        f"package manager puts there for {shown(package.file)}, {needed} are needed: the update fails.",
                        LESS.format("in /tmp"))
            return


def _installed_sizes(packages, installed, folder, room):
    """What is installed takes room; what it replaces gives some back."""
    free, there = room, {name: package for name, package in installed.items() if hasattr(package, "below")}
    for package in packages:
        if not package.name:
            continue
        previous = there.get(package.name)
        if folder == "/" and package.stated_size and -(-package.stated_size // 1024) >= free // 1024:
            yield error(package.file, f"{shown(package.file)} states {package.stated_size} bytes, but {folder} has "
                        f"only {max(free, 0)} free when its turn comes. The package manager refuses it, and the "
                        "update ends there.", LESS.format("on the machine"))
            return
        free -= package.below.get(folder, 0) - (previous.below.get(folder, 0) if previous else 0)
        if free < 0:
            yield error(package.file, f"{shown(package.file)} does not fit: {folder} lacks {-free} bytes when its turn "
                        "comes. A file is cut off, and the machine would show success over it.",
                        LESS.format("on the machine"))
            return
        there[package.name] = package


def total(packages):
    """A finding when all packages together unpack to more than the rehearsal takes."""
    size = sum(package.installed_size for package in packages)
    if size > UNPACKED:
        yield error("", f"The packages unpack to {size} bytes, and the rehearsal takes {UNPACKED}. The update is not "
                    "run.", "Rehearse fewer packages at a time.")
