"""What the program needs of the machine, read from its file.

PROGRAM is the program, QT the major version of its Qt. READELF is a readelf that knows its processor, DEB_HOST_ARCH Debian's name of the
processor; neither is needed for this machine's own.
"""

import os
import pathlib
import re
import subprocess

from facts import output, same
from machine.paths import PROJECT
from machine.watch import text_of

PROGRAM = pathlib.Path(os.environ["PROGRAM"])
QT = os.environ["QT"]
# The README's words on Qt: the oldest version, and the modules.
README = text_of(PROJECT / "README.md")
QT_VERSION = re.search(rf"Qt\s+({QT}\.[0-9]+)", README)[1]
QT_MODULES = re.search(r"modules\s+([A-Za-z,\s]+)\.", README)[1]
PORTING = text_of(PROJECT / "docs/porting.md")


def elf(option):
    """What readelf says of the program."""
    return output(os.environ.get("READELF", "readelf"), "--wide", option, PROGRAM)


def field(name, option):
    """A field of the file's headers."""
    return re.search(rf"^ *{name}: *(.*)$", elf(option), re.MULTILINE)[1]


def newest(prefix):
    """The newest version of a library's symbols that the program imports."""
    versions = re.findall(rf"Name: {prefix}_([0-9.]+)", elf("-V"))
    return max(versions, key=lambda version: [int(part) for part in version.split(".")])


def usesHardFloat(_):
    same("ELF32", field("Class", "-h"))
    same("ARM", field("Machine", "-h"))
    same("0x5000400, Version5 EABI, hard-float ABI", field("Flags", "-h"))
    same("VFP registers", field("Tag_ABI_VFP_args", "-A"))


def needsTheNamedLibrariesOnly(_):
    modules = re.findall(r"\w+", QT_MODULES)
    same(["Core", "Gui", "Network", "Qml", "Quick"], sorted(set(modules) - {"and"}))
    needed = re.findall(r"\(NEEDED\).*\[(.*)\]", elf("-d"))
    assert f"libQt{QT}Core.so.{QT}" in needed
    named = re.compile(rf"libQt{QT}({'|'.join(modules)})\.so\.{QT}|libstdc\+\+\.so\.6|libgcc_s\.so\.1"
                       r"|libc\.so\.6|libm\.so\.6|libpthread\.so\.0|ld-linux-.*\.so\..")
    same([], [library for library in needed if not named.fullmatch(library)])
    same([], re.findall(r"\((?:RPATH|RUNPATH)\).*", elf("-d")))


# The page on porting names the oldest C library that will do.
def needsTheNamedCLibrary(_):
    same(re.search(r"glibc ([0-9.]+) or newer", PORTING)[1], newest("GLIBC"))
    same(re.search(r"`GLIBCXX_([0-9.]+)`", PORTING)[1], newest("GLIBCXX"))


# What it uses of the C library, whichever that is: look a name up in POSIX before you add it.
C_LIBRARY = """
    close open read write select getpid uname
    fgets fflush fputs perror printf puts snprintf vfprintf stderr
    popen pclose system
    memcpy memmove memset strcmp strerror strlen strncpy strnlen strstr strtol
    cfsetispeed cfsetospeed tcflush tcgetattr tcsetattr
""".split()
# Beyond POSIX: modem lines have no call of their own, older issues had usleep, and large files have
# their open by another name.
C_LIBRARY += ["ioctl", "usleep", "open64", "fcntl64"]
# What compilers and headers add by themselves.
C_LIBRARY += ["abort", "memchr", "__cxa_atexit", "__cxa_finalize", "__errno_location", "__libc_start_main"]


def callsNothingBeyondPosix(_):
    used = set(re.findall(r" UND ([^@ ]+)@GLIBC_", elf("--dyn-syms")))
    assert "tcsetattr" in used
    same(set(), used - set(C_LIBRARY))


# dpkg-shlibdeps names the library packages with the version in which the newest symbol came that the
# program imports.
def importsNothingNewerThanTheOldestQt(folder):
    same({f"Qt_{QT}"}, set(re.findall(r"Name: (Qt_\S+)", elf("-V"))))
    (folder / "debian").mkdir()
    (folder / "debian/control").write_text("Source: program\n\nPackage: program\nArchitecture: any\n",
                                           encoding="ascii")
    needs = re.findall(rf"libqt{QT}[a-z0-9]+ \(>= ([^)]+)\)", subprocess.run(
        ["dpkg-shlibdeps", "-O", f"-e{PROGRAM}"], cwd=folder, stdout=subprocess.PIPE, text=True, check=True).stdout)
    same(5, len(needs))
    major, minor = QT_VERSION.split(".")
    for version in needs:
        output("dpkg", "--compare-versions", version, "lt", f"{major}.{int(minor) + 1}")
