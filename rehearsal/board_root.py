"""Reads the archive of a machine's root file system, without unpacking it, and says what it has not.

    root = read(path)                        # raises RootError
    root.missing()                           # sentences; empty when the emulated board can boot it
    root.starts_assistant                    # else missing(needs_of(program)) says what the program of ours needs there

The archive is hostile input: it is streamed, and its entries, bytes and links are bounded.
"""

import collections
import ctypes
import os
import posixpath
import re
import stat
import subprocess

from ipk.packagefile import _archive, _opened, _relative, ARCHIVE_EOF, ARCHIVE_OK, ARCHIVE_WARN

MOST_ENTRIES = 500_000
MOST_BYTES = 8 << 30
LONGEST_PATH = 4096
LARGEST_START_FILE = 64 << 10
LARGEST_LIBRARY = 64 << 20
MOST_LINKS = 40

PATHS = ("usr/local/sbin", "usr/local/bin", "usr/sbin", "usr/bin", "sbin", "bin")
INITS = ("sbin/init", "lib/systemd/systemd")
LOADER = "lib/ld-linux-armhf.so.3"
ASSISTANT = b"update-assistant"
# What is started at boot: the links and scripts of systemd, System V and BusyBox.
START = re.compile(r"(etc|(usr/)?lib)/systemd/system/[^/]+\.(wants|requires)/[^/]+|etc/init\.d/(S[^/]+|rcS)|etc/rc[S2345]?\.d/S[^/]+"
                   r"|etc/inittab|etc/rc\.local")
MAY_BE_START = re.compile(r"etc/.*|(usr/)?lib/systemd/system/[^/]+")
LIBRARY = re.compile(r"(?:usr/)?lib/(?:[^/]+/)?(lib(?:c|m|pthread|stdc\+\+|gcc_s|Qt5\w+))(?:-[0-9.]+)?\.so[^/]*")
VERSION = re.compile(rb"\0((?:GLIBC|GLIBCXX|CXXABI|CXXABI_ARM|GCC|Qt)_[0-9][0-9.]*)(?=\0)")
EM_ARM = 40

FOLDERS = {  # that the machine has to have, by why
    "dev": "the kernel's devices go there", "proc": "the kernel's processes go there", "sys": "the kernel's objects go there",
    "tmp": "the program copies the packages to /tmp/ota", "root": "the firmware is put to /root/mcu",
    "mnt/nand_disk": "the stick is mounted there",
}
COMMANDS = {  # by who needs them
    "opkg": "the program installs each package with it", "ls": "the program lists the packages with it",
    "cp": "the program copies the packages with it", "mkdir": "the program makes /tmp/ota with it",
    "rm": "the program removes the packages with it",
}
QML_MODULES = {"QtQuick 2": "QtQuick.2", "QtQuick.Window 2": "QtQuick/Window.2", "QtQuick.Controls 2": "QtQuick/Controls.2",
               "QtQuick.Templates 2": "QtQuick/Templates.2", "Qt.labs.settings": "Qt/labs/settings"}
UDEV = ("lib/systemd/systemd-udevd", "sbin/udevd", "lib/udev/udevd", "usr/lib/systemd/systemd-udevd", "usr/sbin/udevd")
FONT = re.compile(r"usr/(share|lib)/fonts/.*\.(ttf|ttc|otf|otc|TTF|TTC|OTF)")

Node = collections.namedtuple("Node", "mode size link")


class RootError(Exception):
    """The archive cannot be read, or is no root file system by far. The text says why."""


def read(path):
    """Reads the archive. Returns a Root. Raises RootError."""
    try:
        with open(path, "rb", buffering=0) as file:
            return _read(file)
    except OSError as fault:
        raise RootError(f"it is no tar archive: {fault.strerror}") from fault


def _read(file):
    root = Root()
    with _opened(file.readinto, None, ("tar",), ("gzip", "xz", "bzip2", "lz4", "zstd")) as (archive, is_open):
        if not is_open:
            raise RootError(f"it is no tar archive: {_why(archive)}")
        while True:
            entry = ctypes.c_void_p()
            result = _archive.read_next_header(archive, ctypes.byref(entry))
            if result == ARCHIVE_EOF:
                break
            if result not in (ARCHIVE_OK, ARCHIVE_WARN):
                raise RootError(f"it is damaged after {len(root.nodes)} entries: {_why(archive)}" if root.nodes
                                else f"it is no tar archive: {_why(archive)}")
            root.add(entry, archive)
    if not root.nodes:
        raise RootError("it is empty")
    return root


class Root:
    """What an archive holds, as far as it is of interest."""

    def __init__(self):
        self.nodes = {}  # by path
        self.elf = {}  # the kind of processor of each program and library, by path
        self.versions = collections.defaultdict(set)  # symbol versions, by stem of the library
        self.name = ""  # of the system, as it says itself
        self._mentions = set()  # paths of files that name the assistant
        self._entries = self._bytes = 0

    # ------------------------------------------------------------------ reading

    def add(self, entry, archive):
        raw = _archive.entry_pathname(entry) or b""
        path = self._inside(raw)
        mode, size = _archive.entry_mode(entry), max(_archive.entry_size(entry), 0)
        self._entries += 1
        self._bytes += size
        if self._entries > MOST_ENTRIES:
            raise RootError(f"it has more than {MOST_ENTRIES} entries")
        if self._bytes > MOST_BYTES:
            raise RootError(f"it unpacks to more than {MOST_BYTES >> 30} GB")
        if not path:
            return
        hardlink = _archive.entry_hardlink(entry)
        if hardlink:
            target = self._inside(hardlink)
            if target not in self.nodes:
                raise RootError(f"its entry {_shown(path)} is a link to {_shown(target)}, which does not come before it")
            self._add(path, self.nodes[target], target)
            return
        link = os.fsdecode(_archive.entry_symlink(entry) or b"")
        self._add(path, Node(mode, size, link))
        if stat.S_ISREG(mode) and size:
            self._look(path, size, archive)

    @staticmethod
    def _inside(raw):
        path = os.fsdecode(_relative(raw)).rstrip("/")
        if len(path) > LONGEST_PATH or ".." in path.split("/"):
            raise RootError(f"its entry {_shown(path)} leads out of it" if len(path) <= LONGEST_PATH
                            else "one of its paths is longer than any system takes")
        return "" if path in ("", ".") else posixpath.normpath(path)

    def _add(self, path, node, same_as=None):
        self.nodes[path] = node
        if same_as in self.elf:
            self.elf[path] = self.elf[same_as]
        if same_as in self._mentions:
            self._mentions.add(path)
        parent = posixpath.dirname(path)
        while parent and parent not in self.nodes:
            self.nodes[parent] = Node(stat.S_IFDIR | 0o755, 0, "")
            parent = posixpath.dirname(parent)

    def _look(self, path, size, archive):
        """Into a file of interest."""
        library = LIBRARY.fullmatch(path)
        is_start = MAY_BE_START.fullmatch(path) and size <= LARGEST_START_FILE
        is_release = path in ("etc/os-release", "usr/lib/os-release") and size <= LARGEST_START_FILE
        wanted = size if is_start or is_release else 64
        if library and size <= LARGEST_LIBRARY:
            wanted = size
        data = _data(archive, wanted)
        if data.startswith(b"\x7fELF"):
            self.elf[path] = (data[4:5] == b"\x01" and data[5:6] == b"\x01"
                              and int.from_bytes(data[18:20], "little") == EM_ARM)
            if library:
                self.versions[library[1]].update(name.decode() for name in VERSION.findall(data))
        if is_start and ASSISTANT in data:
            self._mentions.add(path)
        if is_release:
            name = re.search(rb'^PRETTY_NAME="?([^"\n]{1,80})', data, re.MULTILINE)
            self.name = name[1].decode("utf-8", "replace") if name else ""

    # ------------------------------------------------------------------ looking things up

    def real(self, path):
        """The path with every link followed, as the machine would; None when it leads nowhere."""
        parts, done, links = path.strip("/").split("/")[::-1], [], 0
        while parts:
            part = parts.pop()
            if part in ("", "."):
                continue
            if part == "..":
                del done[-1:]
                continue
            node = self.nodes.get("/".join([*done, part]))
            if node is None:
                return None
            if not stat.S_ISLNK(node.mode):
                done.append(part)
                continue
            links += 1
            if links > MOST_LINKS or len(node.link) > LONGEST_PATH:
                return None
            if node.link.startswith("/"):
                done = []
            parts += node.link.split("/")[::-1]
        return "/".join(done)

    def node(self, path):
        return self.nodes.get(self.real(path))

    def is_folder(self, path):
        node = self.node(path)
        return node is not None and stat.S_ISDIR(node.mode)

    def is_program(self, path):
        node = self.node(path)
        return node is not None and stat.S_ISREG(node.mode) and bool(node.mode & 0o111)

    def command(self, name):
        return next((f"{folder}/{name}" for folder in PATHS if self.is_program(f"{folder}/{name}")), None)

    def is_for_another_processor(self, path):
        """Whether it is a program, but not one for 32-bit ARM. A script has no processor."""
        return self.elf.get(self.real(path)) is False

    @property
    def starts_assistant(self):
        """Whether an init script, a unit or the inittab that is run at boot names the assistant."""
        return any(START.fullmatch(path) and self.real(path) in self._mentions for path in self.nodes)

    # ------------------------------------------------------------------ judging

    def missing(self, needs=None):
        """A sentence for each thing that it has not: of those that every root file system needs, and of those that
        the program of ours needs, as needs_of() returns them, unless it has an assistant of its own."""
        return [*self._missing_of_a_machine(), *(self._missing_of_the_program(needs) if needs else ())]

    def _missing_of_a_machine(self):
        init = next((path for path in INITS if self.is_program(path)), None)
        if not init:
            inner = next((path for path in self.nodes if path.endswith("/sbin/init") and path.count("/") == 2), None)
            where = f" It has {_shown(inner)}: let the archive begin in that folder." if inner else ""
            yield f"It has no /sbin/init and no /lib/systemd/systemd, so the kernel could start nothing.{where}"
        if not self.is_program("bin/sh"):
            yield "It has no /bin/sh, with which the program runs every command."
        for path in (init, "bin/sh"):
            if path and self.is_for_another_processor(path):
                yield f"Its /{path} is not for 32-bit ARM (little endian), which the emulated board has."
        for folder, why in FOLDERS.items():
            if not self.is_folder(folder):
                yield f"It has no folder /{folder}: {why}."
        for command, why in COMMANDS.items():
            if not self.command(command):
                yield f"It has no command {command} in {', '.join(f'/{path}' for path in PATHS)}: {why}."

    def _missing_of_the_program(self, needs):
        if not self.node(LOADER):
            yield (f"It has no /{LOADER}, so the C library is not glibc for hardware floating point. The package of ours needs "
                   f"it. {OWN_BUILD}")
            return
        for library, versions in needs.items():
            stem = LIBRARY.fullmatch(f"lib/{library}")
            if not stem:
                continue
            there = self.versions.get(stem[1])
            if there is None:
                yield f"It has no {library}, which the program needs. {OWN_BUILD}"
                continue
            absent = sorted((version for version in versions if version not in there), key=_number)
            if absent:
                newest = max((version for version in there if version.split("_")[0] == absent[-1].split("_")[0]),
                             key=_number, default="none")
                yield f"Its {library} is too old: the program needs {absent[-1]}, it has up to {newest}. {OWN_BUILD}"
        if not any(path.endswith("/platforms/libqlinuxfb.so") for path in self.nodes):
            yield "Its Qt has no platform plugin libqlinuxfb.so, which draws to the frame buffer."
        for module, folder in QML_MODULES.items():
            if not any(path.endswith(f"/{folder}/qmldir") for path in self.nodes):
                yield f"Its Qt has no QML module {module}, which the screens import."
        if not any(self.is_program(path) for path in UDEV):
            yield "It has no udev, without which Qt finds no pointing device to press the button."
        if not any(FONT.fullmatch(path) for path in self.nodes):
            yield "It has no font in /usr/share/fonts or /usr/lib/fonts, so the screen would have no text."


OWN_BUILD = "Put a program of your own build into it, with a start at boot (docs/porting.md)."


def needs_of(program):
    """The symbol versions that a program asks for, by library. The program is ours."""
    call = subprocess.run(["readelf", "--wide", "--dynamic", "--version-info", program], stdout=subprocess.PIPE, text=True,
                          check=True)
    needs = {library: [] for library in re.findall(r"\(NEEDED\).*\[(.+)\]", call.stdout)}
    library = None
    for line in call.stdout.partition("Version needs section")[2].splitlines():
        file, name = re.search(r" File: (\S+)", line), re.search(r" Name: (\S+)", line)
        if file:
            library = file[1]
        elif name and library in needs:
            needs[library].append(name[1])
    return needs


def needs_of_package(package, folder):
    """needs_of() the program in its package. The folder receives it."""
    tree = os.path.join(folder, "package")
    subprocess.run(["dpkg-deb", "--extract", package, tree], check=True)
    return needs_of(os.path.join(tree, "usr/bin/update-assistant"))


def facts(item):
    """What read() finds in the archive at a path, for a program with these needs, as plain data."""
    path, needs = item
    try:
        root = read(path)
    except RootError as error:
        return {"fault": str(error), "missing": [], "name": "", "starts": False}
    starts = root.starts_assistant
    return {"fault": "", "missing": root.missing(None if starts else needs), "name": root.name, "starts": starts}


def _data(archive, size):
    """The first bytes of the entry."""
    buffer = ctypes.create_string_buffer(size)
    count = _archive.read_data(archive, buffer, size)
    if count < 0:
        raise RootError(f"it is damaged: {_why(archive)}")
    return buffer.raw[:count]


def _number(version):
    return [int(part) for part in re.findall(r"\d+", version)]


def _why(archive):
    text = _archive.error_string(archive)
    return _shown(text.decode("utf-8", "replace")) if text else "it cannot be read"


def _shown(text):
    return "".join(c if c.isprintable() else ascii(c)[1:-1] for c in str(text)[:200])
