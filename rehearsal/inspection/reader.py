"""Reads one package: what its control file says, what it holds, and what is wrong with its archives.

The result is plain data, since the package is read in a process of its own. Nothing is written anywhere.
"""

import hashlib
import os
import pathlib
import re
import stat

from ipk.packagefile import COMPRESSIONS, CONTROL_LIMIT
from ipk.walk import Damage, Walk

from . import integrity, program
from .control import read_control
from .words import error, shown, some, warning

UNPACKED = 2 * 1024 ** 3  # bytes of a package, and of all of them
ENTRIES = 100_000
OUTER_MEMBERS = 100
CONTROL_UNPACKED = 16 * 1024 ** 2
CONTROL_ENTRIES = 1000
SCRIPT_LIMIT = 256 * 1024
DISK_BLOCK = 4096
LONGEST_PART, LONGEST_PATH = 255, 4095
SCRIPTS = ("preinst", "postinst", "prerm", "postrm")
PARTS = {f"{part}.tar.{compression}": part for part in ("control", "data") for compression in COMPRESSIONS}
REFUSED = "The package manager refuses it, and the update ends there"
NEW_COPY = "Build the package again, and compare the file on the stick with what you have built."

# What an entry may be that a package of ours has no use for.
KINDS = {stat.S_IFCHR: "device", stat.S_IFBLK: "device", stat.S_IFIFO: "special", stat.S_IFSOCK: "special"}

# Places at which a file of a package does harm, or is lost.
PLACES = [
    (r"var/lib/opkg(/|$)", error, "overwrites the database of the package manager", "Leave it out."),
    (r"(tmp|run|var/run|proc|sys|dev)/.", warning, "lies where the machine keeps nothing beyond a restart",
     "Put it to another place, or let a script make it at the start."),
    (r"root/[^/]*\.txt$", warning, "is deleted by the program before it updates the control board (rm /root/*.txt)",
     "Put it to another place."),
    (rf"root/mcu/(?!{re.escape(program.FIRMWARE_FILE)}$).", warning,
     f"is not used: the program sends {program.FIRMWARE} and then deletes everything in that folder",
     f"Name the firmware {program.FIRMWARE_FILE}, or put the file to another place."),
]
PLACE = re.compile("|".join(place[0] for place in PLACES))


class _TooMuch(Exception):
    """A bound is exceeded."""


def read(item):
    """The facts of the package at a path, with the bytes below each of the folders; see _Reading.facts()."""
    path, folders = item
    return _Reading(pathlib.Path(path), folders).facts()


class _Reading:
    def __init__(self, path, folders):
        self._path = path
        self._file = path.name
        self._findings = []
        self._seen = {}  # kinds of findings about entries: their paths
        self._names = []  # of the parts that were read
        self._places = {}  # of the members of an ar archive: start, end, compression
        self._folders = sorted(folders, key=len, reverse=True)
        self._links = set()
        self._known = set()  # hashes of the paths of files
        self._facts = {"fields": None, "scripts": {}, "entries": 0, "unpacked": 0, "control_unpacked": 0,
                       "below": dict.fromkeys(folders, 0), "firmware": None, "beside_firmware": [],
                       "is_readable": False, "is_too_much": False}

    def facts(self):
        """All of it: the fields of the control file (or None), scripts by name, sizes and findings."""
        try:
            if self._path.stat().st_size == 0:
                self._complain(error, f"is an empty file. {REFUSED}", NEW_COPY)
            else:
                self._read()
                self._follow_firmware()
                self._check_gzip()
        except Damage as damage:
            self._report_damage(damage)
        except OSError as fault:
            self._complain(error, f"cannot be read: {fault.strerror}", "Make it readable.")
        except _TooMuch as bound:
            self._facts["is_too_much"] = True
            self._complain(error, f"unpacks to more than the rehearsal takes ({bound}). The update is not run",
                           "Leave out what is not needed, or split the package.")
        self._report_entries()
        return self._facts | {"findings": self._findings}

    def _complain(self, level, text, do):
        self._findings.append(level(self._file, f"{shown(self._file)} {text}.", do))

    def _report_damage(self, damage):
        member, offset, why = damage.member, damage.offset, damage.why
        size = self._path.stat().st_size
        if self._is_gzip():
            member = member or integrity.member_at_fault(self._path, size)
            found = integrity.fault(self._path, 0, size, "gz")
            offset, why = found or (offset, why)
        else:
            start, end, compression = self._places.get(member, (0, 0, None))
            found = compression in integrity.DECODERS and offset < size and integrity.fault(
                self._path, start, end, compression)
            offset = found.offset if found else offset
        self._complain_of_damage(member, offset, why, REFUSED)

    def _complain_of_damage(self, member, offset, why, consequence):
        where = f"in its member {shown(member)}, " if member else ""
        self._complain(error, f"is damaged {where}at byte {offset} of the file: {shown(why)}. {consequence}", NEW_COPY)

    def _is_gzip(self):
        with open(self._path, "rb") as file:
            return file.read(2) == b"\x1f\x8b"

    def _check_gzip(self):
        """The package manager does not notice every damage."""
        places = [("", 0, self._path.stat().st_size)] if self._is_gzip() else [
            (name, start, end) for name, (start, end, compression) in self._places.items() if compression == "gz"]
        for name, start, end in places:
            found = integrity.fault(self._path, start, end, "gz")
            if found:
                self._complain_of_damage(name, *found,
                                         "The package manager does not notice it, and installs damaged files")

    # ------------------------------------------------------------------ the package file

    def _read(self):
        others, size = [], 0
        with Walk(self._path) as walk:
            for count, member in enumerate(walk.members()):
                size += max(member.size, 0)
                if count == OUTER_MEMBERS or size > UNPACKED:
                    raise _TooMuch(f"{OUTER_MEMBERS} members, or {UNPACKED} bytes")
                part = PARTS.get(member.name)
                if member.offset is not None:
                    self._places[member.name] = (member.offset, member.offset + member.size,
                                                 member.name.rpartition(".")[2])
                if part is None:
                    others.append(member.name)
                elif part in (PARTS[name] for name in self._names):
                    self._complain(error, f"has two members for its {part}: {some([*self._names, member.name])}",
                                   "Build the package again.")
                else:
                    self._names.append(member.name)
                    (self._read_control if part == "control" else self._read_data)(walk, walk.entries(member))
        for part in ("control", "data"):
            if part not in (PARTS[name] for name in self._names):
                alike = [name for name in others if name.startswith(part + ".")]
                has = f". It has {some(alike)}, which the package manager cannot read" if alike else ""
                self._complain(error, f"has no {part}.tar.* compressed by gzip, xz, bzip2, lz4 or zstd, so the package "
                               f"manager refuses it{has}", NEW_COPY)
        self._facts["is_readable"] = len(self._names) == 2 and self._facts["fields"] is not None

    def _read_control(self, walk, entries):
        text = None
        for count, entry in enumerate(entries):
            self._facts["control_unpacked"] += _on_disk(entry.size)
            if count >= CONTROL_ENTRIES or self._facts["control_unpacked"] > CONTROL_UNPACKED:
                raise _TooMuch(f"its control.tar has {CONTROL_ENTRIES} entries, or {CONTROL_UNPACKED} bytes")
            self._note_all(_faults_of_any(entry), entry)
            if stat.S_IFMT(entry.mode) not in (stat.S_IFREG, stat.S_IFDIR) or entry.hardlink:
                self._note_all(["control link"], entry)
            if not stat.S_ISREG(entry.mode) or entry.hardlink:
                continue
            if entry.path == "control" and text is None:
                text = _bytes(walk, CONTROL_LIMIT)
            elif entry.path in SCRIPTS:
                self._facts["scripts"][entry.path] = {
                    "mode": entry.mode & 0o7777, "text": _bytes(walk, SCRIPT_LIMIT).decode("utf-8", "surrogateescape")}
        if text is None:
            self._complain(error, "has no control file, so the package manager refuses it", NEW_COPY)
            return
        self._facts["fields"], findings = read_control(text, self._file)
        self._findings += findings

    def _read_data(self, walk, entries):
        for entry in entries:
            self._facts["entries"] += 1
            size = entry.size if stat.S_ISREG(entry.mode) and not entry.hardlink else 0
            self._facts["unpacked"] += size
            if self._facts["entries"] > ENTRIES:
                raise _TooMuch(f"{ENTRIES} entries")
            if self._facts["unpacked"] > UNPACKED or size < 0:
                raise _TooMuch(f"{UNPACKED} bytes")
            path = os.path.normpath("/" + entry.path)
            self._note_all(_faults_of_any(entry), entry)
            self._note_all(_faults_of_data(entry, path, self._links, self._known), entry)
            self._known.add(hash(path))
            if entry.link:
                self._links.add(path)
            self._count_room(path, size)
            if path.startswith(program.FIRMWARE_FOLDER):
                self._look_for_firmware(walk, entry, path)

    def _count_room(self, path, size):
        for folder in self._folders:
            if folder == "/" or path == folder or path.startswith(folder.rstrip("/") + "/"):
                self._facts["below"][folder] += _on_disk(size)
                return

    # ------------------------------------------------------------------ the firmware

    def _look_for_firmware(self, walk, entry, path):
        if path == program.FIRMWARE:
            self._facts["firmware"] = _firmware(walk, entry)
        elif not stat.S_ISDIR(entry.mode) and len(self._facts["beside_firmware"]) < 3:
            self._facts["beside_firmware"].append(path[:LONGEST_PATH])

    def _follow_firmware(self):
        """Takes the file of the package to which the firmware is a link."""
        firmware = self._facts["firmware"]
        if not firmware or firmware["what"] != "link":
            return
        target = os.path.normpath(os.path.join("/root/mcu", firmware["target"]))
        with Walk(self._path) as walk:
            for member in walk.members():
                if PARTS.get(member.name) != "data":
                    continue
                for entry in walk.entries(member):
                    if os.path.normpath("/" + entry.path) == target and stat.S_ISREG(entry.mode):
                        self._facts["firmware"] = _firmware(walk, entry) | {"path": firmware["path"]}

    # ------------------------------------------------------------------ entries

    def _note_all(self, kinds, entry):
        """Remembers the path for one finding about all entries of each kind."""
        for kind in kinds:
            kept = self._seen.setdefault(kind, [0, []])
            kept[0] += 1
            if len(kept[1]) < 3:
                kept[1].append(entry.raw[:LONGEST_PATH])

    def _report_entries(self):
        for kind, (count, paths) in self._seen.items():
            level, text, do = _REPORTS[kind]
            more = f" and {count - len(paths)} more" if count > len(paths) else ""
            listed = ", ".join(map(shown, paths))
            self._findings.append(level(self._file, f"{shown(self._file)}: {listed}{more} {text}.", do))


def _firmware(walk, entry):
    firmware = {"path": entry.path, "size": 0, "sha256": "", "what": "file", "target": entry.link}
    if stat.S_ISDIR(entry.mode):
        return firmware | {"what": "folder"}
    if entry.hardlink:
        return firmware | {"what": "link", "target": "/" + entry.hardlink}
    if not stat.S_ISREG(entry.mode):
        return firmware | {"what": "link"}
    checksum = hashlib.sha256()
    for piece in walk.data():
        checksum.update(piece)
        firmware["size"] += len(piece)
    return firmware | {"sha256": checksum.hexdigest()}


def _bytes(walk, most):
    data = b""
    for piece in walk.data():
        data += piece
        if len(data) > most:
            raise _TooMuch(f"{most} bytes of a control file or script")
    return data


def _on_disk(size):
    return -(-max(size, 0) // DISK_BLOCK) * DISK_BLOCK


# What can be wrong with an entry, and what the finding says.
_REPORTS = {
    "traversal": (error, "leads out of the folder to which the package is unpacked",
                  "Leave out .. in the paths of a package."),
    "link out": (error, "is a link that leads out of the root of the machine",
                 "Let the link lead to a place on the machine."),
    "foreign link": (error, "is a hard link to a file that the package has not",
                     "Put the file itself into the package."),
    "below a link": (error, "lies below a link of the package, so the file is written to another place",
                     "Put the file to the place where it belongs."),
    "device": (error, "is a device node", "Leave it out: the system of the machine makes its devices."),
    "special": (warning, "is a FIFO or a socket", "Leave it out, and let the program that needs it make it."),
    "control link": (error, "of its control archive is no file, but a link or a special file",
                     "Build the package again."),
    "setuid": (warning, "runs with the rights of its owner (setuid or setgid), whoever starts it",
               "Remove these bits unless they are wanted."),
    "control characters": (error, "has control characters in its path, which the package manager cannot list",
                           "Rename the file."),
    "no name": (error, "has no path that can be read", "Build the package again."),
    "too long": (error, "has a path that is too long: the file cannot be written, and the screen shows a success",
                 "Shorten the path."),
} | {f"place {number}": place[1:] for number, place in enumerate(PLACES)}


def _faults_of_any(entry):
    """Yields the kinds of what is wrong with the path of an entry."""
    raw = entry.raw
    if not raw:
        yield "no name"
    if ".." in raw and ".." in raw.split("/"):
        yield "traversal"
    if not raw.isprintable() and any(one < " " or one == "\x7f" for one in raw):
        yield "control characters"
    if len(raw) * 4 > LONGEST_PART and (len(os.fsencode(raw)) > LONGEST_PATH or any(
            len(os.fsencode(part)) > LONGEST_PART for part in raw.split("/"))):
        yield "too long"


def _faults_of_data(entry, path, links, known):
    """Yields the kinds of what is wrong with an entry of data.tar. `links` has the paths of links before it, `known`
    the hashes of all paths before it."""
    kind = stat.S_IFMT(entry.mode)
    if kind in KINDS:
        yield KINDS[kind]
    if kind == stat.S_IFREG and entry.mode & (stat.S_ISUID | stat.S_ISGID):
        yield "setuid"
    if entry.link and _leads_out(path, entry.link):
        yield "link out"
    if entry.hardlink and hash(os.path.normpath("/" + entry.hardlink)) not in known:
        yield "foreign link"
    if links and any(str(parent) in links for parent in pathlib.PurePath(path).parents):
        yield "below a link"
    if kind != stat.S_IFDIR and PLACE.match(path, 1):
        yield from (f"place {number}" for number, place in enumerate(PLACES) if re.match(place[0], path[1:]))


def _leads_out(path, target):
    """Whether a symbolic link climbs above the root."""
    depth = 0 if target.startswith("/") else path.count("/") - 1
    for part in target.split("/"):
        depth += {"": 0, ".": 0, "..": -1}.get(part, 1)
        if depth < 0:
            return True
    return False
