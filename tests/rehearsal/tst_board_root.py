"""The check of a root file system's archive, and the stick of the emulated board. No emulator runs here."""

import io
import os
import pathlib
import sys
import tarfile

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT), str(PROJECT / "sandbox")]

from facts import output, same
from rehearsal import board, board_root
from rehearsal.host import HostError

ELF = b"\x7fELF\x01\x01\x01" + bytes(9) + b"\x02\x00\x28\x00" + bytes(44)  # for 32-bit ARM
ELF_AMD64 = b"\x7fELF\x02\x01\x01" + bytes(9) + b"\x02\x00\x3e\x00" + bytes(44)
ELF_I386 = ELF[:18] + b"\x03" + ELF[19:]
NEEDS = {"libc.so.6": ["GLIBC_2.4", "GLIBC_2.34"], "libQt5Core.so.5": ["Qt_5"], "libgcc_s.so.1": ["GCC_3.5"]}
FOLDERS = ["dev", "proc", "sys", "tmp", "root", "mnt/nand_disk", "usr/bin"]
QML = "usr/lib/arm-linux-gnueabihf/qt5/qml"


def library(*versions):
    return ELF + b"\0" + b"\0".join(version.encode() for version in versions) + b"\0"


# A root file system that has everything, by path: bytes of a file, "-> TARGET" of a link, None for a folder.
WHOLE = {
    **dict.fromkeys(FOLDERS),
    "bin": "-> usr/bin", "lib": "-> usr/lib", "sbin": "-> usr/bin",
    "usr/bin/init": "-> /lib/systemd/systemd", "usr/lib/systemd/systemd": ELF,
    "usr/bin/dash": ELF, "usr/bin/sh": "-> dash", "usr/bin/opkg": b"#!/bin/sh\n",
    "usr/bin/busybox": ELF, **{f"usr/bin/{name}": "-> /bin/busybox" for name in ("ls", "cp", "mkdir", "rm")},
    "usr/lib/ld-linux-armhf.so.3": ELF, "usr/lib/libc.so.6": library("GLIBC_2.4", "GLIBC_2.34", "GLIBC_2.36"),
    "usr/lib/arm-linux-gnueabihf/libQt5Core.so.5": "-> libQt5Core.so.5.15.8",
    "usr/lib/arm-linux-gnueabihf/libQt5Core.so.5.15.8": library("Qt_5", "Qt_5.15"),
    "usr/lib/libgcc_s.so.1": library("GCC_3.5"),
    "usr/lib/arm-linux-gnueabihf/qt5/plugins/platforms/libqlinuxfb.so": ELF,
    **{f"{QML}/{folder}/qmldir": b"module" for folder in
       ("QtQuick.2", "QtQuick/Window.2", "QtQuick/Controls.2", "QtQuick/Templates.2", "Qt/labs/settings")},
    "usr/lib/systemd/systemd-udevd": ELF, "usr/share/fonts/truetype/wqy/wqy.ttc": b"font",
    "etc/os-release": b'NAME=x\nPRETTY_NAME="Machine 1"\n',
}
UNIT = b"[Service]\nExecStart=/usr/bin/update-assistant-start\n"
INIT_SCRIPT = b"#!/bin/sh\nexec /usr/bin/update-assistant-start\n"


def archive(folder, files, mode="w"):
    """An archive with the files, as in WHOLE."""
    path = folder / f"{len(os.listdir(folder))}.tar"
    with tarfile.open(path, mode) as tar:
        for name, content in files.items():
            entry = tarfile.TarInfo(name)
            entry.mode = 0o755
            if content is None:
                entry.type = tarfile.DIRTYPE
            elif isinstance(content, str):
                entry.type, entry.linkname = tarfile.SYMTYPE, content.removeprefix("-> ")
            else:
                entry.size = len(content)
            tar.addfile(entry, io.BytesIO(content) if isinstance(content, bytes) else None)
    return path


def without(*names, **changes):
    return {name: content for name, content in WHOLE.items() if name not in names} | changes


def missing(folder, files, needs=NEEDS):
    return board_root.read(archive(folder, files)).missing(needs)


def fault(path):
    try:
        board_root.read(path)
    except board_root.RootError as error:
        return str(error)
    raise AssertionError(f"{path} has no fault")


def wholeRootLacksNothing(folder):
    for mode in ("w", "w:gz", "w:xz", "w:bz2"):
        root = board_root.read(archive(folder, WHOLE, mode))
        same(root.missing(NEEDS), [])
        same(root.name, "Machine 1")
        same(root.starts_assistant, False)
    same(missing(folder, {f"./{name}": content for name, content in WHOLE.items()}), [])


# What is taken away or changed, and the beginning of the sentence.
LACKS = [
    (without("usr/bin/init", "usr/lib/systemd/systemd", "usr/lib/systemd/systemd-udevd"), "It has no /sbin/init and no "),
    (without("usr/bin/sh"), "It has no /bin/sh"),
    (without("usr/bin/dash"), "It has no /bin/sh"),
    (without(**{"usr/bin/dash": ELF_AMD64}), "Its /bin/sh is not for 32-bit ARM"),
    (without(**{"usr/lib/systemd/systemd": ELF_I386}), "Its /sbin/init is not for 32-bit ARM"),
    *((without(name), f"It has no folder /{name}: ") for name in FOLDERS[:-1]),
    (without("mnt/nand_disk", **{"mnt/nand_disk": b"a file"}), "It has no folder /mnt/nand_disk"),
    *((without(f"usr/bin/{name}"), f"It has no command {name} in ") for name in ("opkg", "ls", "cp", "mkdir", "rm")),
    (without("usr/bin/opkg", **{"opt/opkg": b"#!/bin/sh\n"}), "It has no command opkg in "),
    (without("usr/lib/ld-linux-armhf.so.3"), "It has no /lib/ld-linux-armhf.so.3"),
    (without("usr/lib/libc.so.6", **{"usr/lib/libc-2.31.so": library("GLIBC_2.4", "GLIBC_2.31"),
                                     "usr/lib/libc.so.6": "-> libc-2.31.so"}),
     "Its libc.so.6 is too old: the program needs GLIBC_2.34, it has up to GLIBC_2.31"),
    (without("usr/lib/arm-linux-gnueabihf/libQt5Core.so.5.15.8"), "It has no libQt5Core.so.5"),
    (without("usr/lib/arm-linux-gnueabihf/qt5/plugins/platforms/libqlinuxfb.so"), "Its Qt has no platform plugin libqlinuxfb.so"),
    *((without(f"{QML}/{folder}/qmldir"), f"Its Qt has no QML module {module},") for module, folder in
      board_root.QML_MODULES.items()),
    (without("usr/lib/systemd/systemd-udevd"), "It has no udev"),
    (without("usr/share/fonts/truetype/wqy/wqy.ttc"), "It has no font"),
]


def eachThingThatIsMissingIsOneSentence(folder):
    failures = []
    for files, sentence in LACKS:
        found = list(missing(folder, files))
        if not any(one.startswith(sentence) for one in found):
            failures.append(f"{sentence}: {found}")
        if len(found) > 2 or not all(one.endswith(".") and one.isprintable() for one in found):
            failures.append(f"{sentence}: {found}")
    assert not failures, "\n".join(failures)


def rootInAFolderIsNamed(folder):
    assert "It has machine/sbin/init: let the archive begin in that folder." in missing(folder, {"machine/sbin/init": ELF})[0]


def ownStartIsFound(folder):
    unit = "etc/systemd/system/update-assistant.service"
    starts = [
        {unit: UNIT, "etc/systemd/system/multi-user.target.wants/update-assistant.service": f"-> /{unit}"},
        {"usr/lib/systemd/system/screen.service": UNIT,
         "etc/systemd/system/multi-user.target.wants/screen.service": "-> /lib/systemd/system/screen.service"},
        {"etc/init.d/S99update-assistant": INIT_SCRIPT},
        {"etc/init.d/screen": INIT_SCRIPT, "etc/rc5.d/S99screen": "-> ../init.d/screen"},
        {"etc/inittab": b"::respawn:/usr/bin/update-assistant-start\n"},
    ]
    for more in starts:
        root = board_root.read(archive(folder, WHOLE | more))
        assert root.starts_assistant, more
    none = [{unit: UNIT}, {"usr/share/doc/update-assistant.init": INIT_SCRIPT}, {"etc/init.d/update-assistant": INIT_SCRIPT},
            {"etc/init.d/S10other": b"#!/bin/sh\n"}]
    for more in none:
        assert not board_root.read(archive(folder, WHOLE | more)).starts_assistant, more
    # With one of its own, it need not have what the program of ours needs.
    facts = board_root.facts((str(archive(folder, without("usr/lib/libc.so.6", QML) | starts[0])), NEEDS))
    same((facts["missing"], facts["starts"]), ([], True))


def hostileArchivesGiveAFault(folder):
    same(fault(archive(folder, {"../../etc/passwd": b"x"})), "its entry ../../etc/passwd leads out of it")
    same(fault(archive(folder, {"a/../../b": b"x"})), "its entry a/../../b leads out of it")
    same(fault(archive(folder, {})), "it is empty")
    assert "\x1b" not in fault(archive(folder, {"../\x1b[2J": b"x"}))
    text = folder / "text"
    text.write_bytes(b"no archive\n" * 100)
    assert fault(text).startswith("it is no tar archive"), fault(text)
    short = folder / "short"
    short.write_bytes(archive(folder, WHOLE).read_bytes()[:9000])
    assert fault(short).startswith("it is damaged"), fault(short)
    assert fault(folder).startswith("it is no tar archive")


def linksStayInside(folder):
    round_and_round = {"bin/sh": "-> a", "bin/a": "-> sh", "sbin/init": "-> ../../../../../bin/b", "bin/b": ELF}
    root = board_root.read(archive(folder, round_and_round))
    same(root.real("bin/sh"), None)
    same(root.real("sbin/init"), "bin/b")
    # A link out of the tree is one within it, as on the machine; the host's file is not read.
    same(board_root.read(archive(folder, {"bin/sh": f"-> {sys.executable}"})).real("bin/sh"), None)


def amountsAreBounded(folder):
    before = board_root.MOST_BYTES, board_root.MOST_ENTRIES
    try:
        board_root.MOST_BYTES = 1 << 30
        with tarfile.open(folder / "bomb.tar.gz", "w:gz", compresslevel=1) as tar:
            for number in range(3):
                entry = tarfile.TarInfo(f"zeros{number}")
                entry.size = 1 << 29
                tar.addfile(entry, Zeros())
        same(fault(folder / "bomb.tar.gz"), "it unpacks to more than 1 GB")
        board_root.MOST_ENTRIES = 10
        same(fault(archive(folder, WHOLE)), "it has more than 10 entries")
    finally:
        board_root.MOST_BYTES, board_root.MOST_ENTRIES = before


class Zeros:
    def read(self, size):
        return bytes(size)


def stickHasTheFiles(folder):
    source = folder / "source"
    source.mkdir()
    names = ["10-a_1.0.ipk", "20-b [1]$x;y.ipk", "30-äpfel_1.0.ipk"]
    for name in names:
        (source / name).write_bytes(name.encode())
    image = folder / "stick"
    board.make_stick(image, [(source / name, ("update_ipk", name)) for name in names] + [(source / names[0], (names[0],))])
    there = f"{image}@@{board.FIRST_SECTOR * board.SECTOR}"
    os.environ |= {"LC_ALL": "C.UTF-8", "MTOOLSRC": "/dev/null"}
    same(sorted(output("mdir", "-b", "-/", "-i", there, "::").splitlines()),
         sorted(["::/10-a_1.0.ipk", "::/update_ipk/", *(f"::/update_ipk/{name}" for name in names)]))
    same(output("mtype", "-i", there, f"::/update_ipk/{names[2]}").strip(), names[2])


def namesThatNoStickHasAreAFault(folder):
    (folder / "x").write_bytes(b"")
    for name in ("a:b.ipk", "a*.ipk", "a\nb.ipk", "a.", "a\udcff.ipk", "x" * 256):
        assert board.fat_fault([(folder / "x", (name,))]), name
    assert "ignores the case" in board.fat_fault([(folder / "x", ("a",)), (folder / "x", ("A",))])
    same(board.fat_fault([(folder / "x", ("update_ipk", "a b;c$(d).ipk"))]), None)
    try:
        board.make_stick(folder / "stick", [(folder / "x", ("a:b",))])
    except HostError as error:
        assert "a:b is no name for a stick" in str(error), error
    else:
        raise AssertionError("a stick with such a name")


def renamedFileIsAFault(folder):
    (folder / "30-ä.ipk").write_bytes(b"")  # the tools for sticks would write it with a large letter
    try:
        board.make_stick(folder / "stick", [(folder / "30-ä.ipk", ("update_ipk", "30-ä.ipk"))])
    except HostError as error:
        assert "update_ipk/30-ä.ipk would have another name" in str(error), error
    else:
        raise AssertionError("a stick with another name")
