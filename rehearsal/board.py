"""Rehearses on the emulated ARM board: with its own system, or with the root file system of a machine.

    board.check(given)                        # raises WrongUse
    with board.Machine(given, needed) as machine:
        for event in machine.update(plan, inspection, previous): ...

The machine is used like host.Machine, and leaves the same files. board_run.py drives the board.
"""

import json
import os
import pathlib
import shutil
import subprocess
import sys

from . import board_root, host
from .host import HostError, end_group
from .inspection import children
from .options import WrongUse, shown

PROJECT = pathlib.Path(__file__).resolve().parents[1]
SYSTEM = PROJECT / "build/board-machine"  # see scripts/board-lib
PACKAGE = PROJECT / "build/board-package"
SETTINGS = "console=ttyAMA0 quiet loglevel=3 systemd.show_status=0 systemd.getty_auto=0 systemd.firstboot=0"
ARCHITECTURES = ("all", "noarch", "armhf")
SLOWER = 5  # the emulator, than the host; the limits are meant for the host
ROOM = 1 << 30  # of the board's disk, beyond what is needed
HOST_VERSIONS = ("Update Assistant", "commit", "Python", "libarchive", "bubblewrap")
SECTOR, FIRST_SECTOR = 512, 2048
LEAST_STICK = 64 << 20
FAT_LIMIT = (4 << 30) - 1
FAT_FORBIDDEN = set('"*/:<>?\\|')
MOST_ARGUMENTS = 100
LARGEST_IMAGE = 16 << 30
TOO_LONG_S = 900


def check(given):
    """Compares the options with what the board can do. Raises WrongUse."""
    for option, is_given in (("--room", given.room), ("--opkg", given.opkg != "stand-in")):
        if is_given:
            raise WrongUse(f"{option} is not for the emulated board, which has the room and the package manager of its system")
    if given.root and not os.path.isfile(given.root):
        raise WrongUse(f"--root: {shown(given.root)} is no file")


def versions(of_host, of_board):
    """What the report shows: the host's only of what has to do with the rehearsal there."""
    return [*(one for one in of_host if one["name"] in HOST_VERSIONS), *of_board]


class Machine(host.Machine):
    """One emulated board. At its exit it is gone, with all that it wrote."""

    def __init__(self, given, needed):
        super().__init__(given.build, needed)
        self._given = given
        self._package = next(iter(sorted(PACKAGE.glob("*.ipk"))), None)
        if not self._package or not (SYSTEM / "recipe").exists():
            self.__exit__()
            raise HostError("the files of the emulated board are not there: start scripts/rehearse without --build")
        self.system = {"name": "BusyBox system of scripts/board", "starts": False}
        self._drives = self.work / "drives"
        self._drives.mkdir()

    def update(self, plan, inspection, previous):
        """Yields what board_run.py tells, and None now and then. Changes the plan to what is done here."""
        yield {"event": "step", "text": "making the disks of the emulated board"}
        self._make_drives(plan, inspection, previous)
        if not self._given.limit:
            plan["limit"] *= SLOWER
            plan["board_limit"] *= SLOWER
            plan["limits"] = {file: SLOWER * limit for file, limit in plan["limits"].items()}
        has_line = plan["board"] is not None
        plan |= {"stick": True, "settings": f"{SETTINGS}{' rehearsal.board' if has_line else ''}",
                 "package": None if self.system["starts"] else "package.ipk",
                 "previous_packages": previous.order if previous else []}
        (self.state / "plan.json").write_text(json.dumps(plan), encoding="ascii")
        command = ["/usr/bin/python3", "-B", PROJECT / "rehearsal/board_run.py", self.build]
        with open(self.errors, "wb") as errors:
            self._process = subprocess.Popen(
                self._boxed(command, ("--bind", self.state, "/run/machine", "--bind", self._drives, "/run/drives",
                                      "--ro-bind", SYSTEM, "/run/system", "--ro-bind", self._package, "/run/package.ipk")),
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors, start_new_session=True)
        for event in self._events(max([plan["limit"], plan["board_limit"], *plan["limits"].values()]) + host.QUIET_S):
            if event and event.get("event") == "no machine":
                raise HostError(f"{self._subject()} cannot be rehearsed on: {event['text']}")
            yield event
        if self._process.wait() != 0:
            raise HostError(f"the emulated board has failed: {(host.text_of(self.errors).strip().splitlines() or ['?'])[-1]}")

    def _subject(self):
        return shown(self._given.root) if self._given.root else "the system of the emulated board"

    def _boxed(self, command, places):
        """The command, which sees the files of the host but can write only to the places, without a network, and ends with
        this process."""
        box = ["bwrap", "--unshare-all", "--die-with-parent", "--new-session", "--ro-bind", "/", "/", "--dev", "/dev",
               "--proc", "/proc", "--tmpfs", "/tmp", "--tmpfs", "/run", "--tmpfs", "/root"]
        for folder in (PROJECT, self.build):
            box += ["--ro-bind", folder, folder]
        return list(map(str, [*box, *places, "--setenv", "HOME", "/root", "--setenv", "PATH", "/usr/sbin:/usr/bin:/sbin:/bin",
                              "--setenv", "LC_ALL", "C.UTF-8", "--chdir", "/", "--", *command]))

    # ------------------------------------------------------------------ the drives

    def _make_drives(self, plan, inspection, previous):
        drives = self._drives
        free = shutil.disk_usage(self.work).free
        needed = 2 * self._needed + ROOM
        if free < needed:
            raise HostError(f"{self.work.parent} has {free // host.MB} MB free; the emulated board needs {needed // host.MB} MB. "
                            "TMPDIR may name another folder")
        if self._given.root:
            self._take_root()
        else:
            (drives / "root").symlink_to("/run/system/disk")
        make_file(drives / "changes", needed)
        tool("mke2fs", "-q", "-t", "ext4", "-E", "root_owner=0:0", drives / "changes")
        make_stick(self.state / "stick", stick_files(self._given, inspection))
        plan["drives"] = [["root", True], ["changes", False]]
        if previous:
            make_stick(drives / "previous", [(package.path, (package.file,)) for package in previous.packages])
            plan["drives"].append(["previous", True])

    def _take_root(self):
        """Checks the archive, and makes a file system of it without unpacking it here."""
        root = pathlib.Path(self._given.root).resolve()
        needs = board_root.needs_of_package(self._package, self.work)
        facts, = children.each(board_root.facts, [(str(root), needs)])
        if facts is None:
            raise HostError(f"{self._subject()} cannot be read within the memory and the time that it is given")
        if facts["fault"]:
            raise WrongUse(f"--root: {self._subject()} is no root file system of a machine: {facts['fault']}")
        if facts["missing"]:
            for sentence in facts["missing"]:
                print(f"rehearse: {shown(sentence)}", file=sys.stderr)
            raise WrongUse(f"--root: {self._subject()} lacks {len(facts['missing'])} of the things that a rehearsal needs; "
                           "see docs/rehearsal-board.md")
        self.system = facts
        with open(root, "rb") as archive:
            tool(*self._boxed(["prlimit", f"--fsize={LARGEST_IMAGE}", f"--as={4 << 30}", f"--cpu={TOO_LONG_S}", "--",
                               "tar2sqfs", "--quiet", "--force", "--compressor", "lz4", "/run/drives/root"],
                              ("--bind", self._drives, "/run/drives")), stdin=archive)


def stick_files(given, inspection):
    """The files of the stick: each path, and where it goes there. Of links only packages: another may lead anywhere."""
    packages = {package.path: package for package in inspection.packages}
    if inspection.kind != "stick":
        return [(path, ("update_ipk", path.name)) for path, package in packages.items()
                if not path.is_symlink() or package.is_readable]
    files, top = [], pathlib.Path(given.folder)
    for folder, _, names in os.walk(top):
        for path in (pathlib.Path(folder) / name for name in sorted(names)):
            is_taken = packages[path].is_readable if path.is_symlink() and path in packages else not path.is_symlink()
            if is_taken and path.is_file():
                files.append((path, path.relative_to(top).parts))
    return files


def fat_fault(files):
    """Why the files cannot be on a stick, which has a FAT file system; None when they can."""
    seen = set()
    for path, place in files:
        for part in place:
            if (FAT_FORBIDDEN & set(part) or part != part.rstrip(". ") or any(ord(c) < 32 or 0xd800 <= ord(c) < 0xe000 for c in part)
                    or len(part.encode("utf-16-le")) > 510):
                return f"{shown('/'.join(place))} is no name for a stick, which has a FAT file system"
        key = "/".join(place).casefold()
        if key in seen:
            return f"{shown('/'.join(place))} is there twice: a stick, which has a FAT file system, ignores the case"
        seen.add(key)
        if path.stat().st_size > FAT_LIMIT:
            return f"{shown('/'.join(place))} is larger than 4 GB, the most on a stick with a FAT file system"
    return None


def make_stick(image, files):
    """Makes a stick of a partition with a FAT file system, as sticks are sold."""
    fault = fat_fault(files)
    if fault:
        raise HostError(f"{fault}; rehearse it on the simulated machine, without --on board")
    size = LEAST_STICK + sum(path.stat().st_size * 21 // 20 + (64 << 10) for path, _ in files)
    sectors = size // SECTOR
    make_file(image, (FIRST_SECTOR + sectors) * SECTOR)
    with open(image, "r+b") as disk:
        disk.seek(446)
        disk.write(bytes([0, 0xfe, 0xff, 0xff, 0x0c, 0xfe, 0xff, 0xff]) + FIRST_SECTOR.to_bytes(4, "little")
                   + sectors.to_bytes(4, "little"))
        disk.seek(510)
        disk.write(b"\x55\xaa")
    tool("mkfs.vfat", "-F", "32", "-s", "1", f"--offset={FIRST_SECTOR}", image, str(sectors * SECTOR // 1024))
    there = f"{image}@@{FIRST_SECTOR * SECTOR}"
    folders = {place[:depth] for _, place in files for depth in range(1, len(place))} | {("update_ipk",)}
    for folder in sorted(folders):
        tool("mmd", "-i", there, "::" + "/".join(folder))
    by_folder = {}
    for path, place in files:
        by_folder.setdefault(place[:-1], []).append(os.path.abspath(path))
    for folder, paths in by_folder.items():
        for start in range(0, len(paths), MOST_ARGUMENTS):
            tool("mcopy", "-m", "-i", there, *paths[start:start + MOST_ARGUMENTS], "::" + "/".join(folder) + "/")
    written = tool("mdir", "-b", "-/", "-i", there, "::").decode("utf-8", "replace").splitlines()
    for other in {"::/" + "/".join(place) for _, place in files} - set(written):
        raise HostError(f"{shown(other.removeprefix('::/'))} would have another name on a stick with a FAT file system")


def make_file(path, size):
    with open(path, "wb") as file:
        file.truncate(size)


def tool(*command, stdin=subprocess.DEVNULL):
    """Runs a tool to its end. Returns what it says, or raises HostError with it."""
    environment = os.environ | {"LC_ALL": "C.UTF-8", "MTOOLSRC": "/dev/null", "PATH": f"{os.environ.get('PATH', '')}:/usr/sbin:/sbin"}
    process = subprocess.Popen(list(map(str, command)), stdin=stdin, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               env=environment, start_new_session=True)
    try:
        output, _ = process.communicate(timeout=TOO_LONG_S)
    except BaseException:
        end_group(process)
        raise
    if process.returncode:
        words = output.decode("utf-8", "replace").strip().splitlines()
        raise HostError(f"{pathlib.Path(command[0]).name}: {shown(words[-1]) if words else f'status {process.returncode}'}")
    return output
