"""What the program finds in a folder of packages, or on a stick."""

import dataclasses
import fnmatch
import itertools
import os
import pathlib
import re
import stat

from . import program
from .words import error, shown, some, warning

MOST_FILES = 5000
SEARCHED = 2000  # entries among which packages at other places are looked for
SAFE_NAME = "Use only letters, digits and the characters . _ - in the name."

# What the shell does to a name that a command line has without quotes.
SHELL = [
    (r"\n", "the listing makes two entries of it, and each is installed"),
    (r"[;&|]", "the shell ends the command there and runs the rest of the name as another command"),
    (r"`|\$\(", "the shell runs the part of the name between the marks as a command"),
    (r"[<>]", "the shell redirects the command to a file"),
    (r"[ \t]", "the shell splits the name at the blank"),
    (r"[()]", "the shell takes the parenthesis for its own and runs nothing"),
    (r"['\"]", "the shell takes the quote for its own"),
    (r"\$[\w{@*#?$!-]", "the shell puts the value of a variable there"),
    (r"\\", "the shell removes the backslash"),
]

# Files that are not listed, and what a builder may have meant.
UNLISTED = [
    (lambda name: name.startswith(".") and name.lower().endswith(".ipk"), warning,
     "is hidden: the machine does not list names that begin with a dot, and does not install it",
     "Remove it, or give it a name without the dot if it is to be installed."),
    (lambda name: name.lower().endswith(".ipk"), error,
     "is not listed: the machine looks for names that end in .ipk in small letters, and does not install it",
     "Let the name end in .ipk, in small letters."),
    (lambda name: re.search(r"\.(ipk.|deb$|opk$)", name.lower()), warning,
     "is not listed: its name does not end in .ipk, and the machine does not install it",
     "Let the name end in .ipk if it is a package, or remove it."),
]


@dataclasses.dataclass
class Found:
    """What the program finds. `paths` are those of the packages by name, in the order of the listing."""

    kind: str
    staging: pathlib.Path
    paths: dict = dataclasses.field(default_factory=dict)
    findings: list = dataclasses.field(default_factory=list)
    has_image: bool = False
    is_too_much: bool = False


def find(folder, kind="auto"):
    """Lists the folder as the program does. `kind` is "folder", "stick" or "auto"."""
    folder = pathlib.Path(folder)
    names = _entries(folder)
    if kind == "auto":
        kind = "stick" if any(map(_is_like_stick_folder, names)) else "folder"
    found = Found(kind, folder / program.STICK_FOLDER if kind == "stick" else folder)
    if kind == "stick":
        names = _look_at_root(found, folder, names)
    if len(names) > MOST_FILES:
        found.findings.append(error("", f"The folder has more than {MOST_FILES} files; the rehearsal takes no more.",
                                    "Remove what does not belong to the update."))
        found.is_too_much = True
    _sort(found, names[:MOST_FILES])
    for name in found.paths:
        found.findings += _name_findings(name, found)
    if not found.paths:
        found.findings.append(_nothing_found(found, folder))
    return found


def _entries(folder):
    """The names in a folder, in the order of `ls`: that of their bytes. None but a folder has any."""
    try:
        with os.scandir(folder) as entries:
            names = [entry.name for entry in itertools.islice(entries, MOST_FILES + 1)]
    except OSError:
        return []
    return sorted(names, key=os.fsencode)


def _is_like_stick_folder(name):
    return name.lower().replace("-", "_").replace(" ", "_") in (program.STICK_FOLDER,
                                                               program.STICK_FOLDER.replace("_", ""))


def _look_at_root(found, folder, names):
    """What lies beside the folder with the packages. Returns the names in that folder."""
    for name in names:
        if name != program.STICK_FOLDER and _is_like_stick_folder(name):
            found.findings.append(error(
                "", f"The stick has a folder {shown(name)}, but the machine looks into {program.STICK_FOLDER}.",
                f"Rename the folder to {program.STICK_FOLDER}."))
        elif name.endswith(".ipk") and not name.startswith("."):
            found.findings.append(_beside(name, name, f"Move it into {program.STICK_FOLDER}."))
    inside = _entries(found.staging)
    if found.staging.exists() and not found.staging.is_dir():
        found.findings.append(error("", f"{program.STICK_FOLDER} is a file on the stick. The machine needs a folder.",
                                    f"Make a folder {program.STICK_FOLDER} and put the packages there."))
    elif program.IMAGE in names:
        found.findings.append(_beside("", program.IMAGE, f"Move it into {program.STICK_FOLDER}, or remove it."))
    images = [name for name in inside if name.endswith(".bin") and not name.startswith(".")]
    if images:
        found.has_image = True
        found.findings.append(_image_finding(images))
    return inside


def _beside(package, name, do):
    return warning(package, f"{shown(name)} lies beside the folder {program.STICK_FOLDER}: the machine does not find "
                   "it there.", do)


def _image_finding(images):
    copied = "" if program.IMAGE in images else (
        f" Nothing is copied to /root/ota, since the program copies only {program.IMAGE}.")
    return warning("", f"{some(images)} on the stick is an application image: when the button is pressed, the program "
                   "updates the control board at once, before any package and so without its firmware, and again "
                   f"after the last package.{copied}", "Remove the image from the stick unless both runs are wanted.")


def _sort(found, names):
    for name in names:
        path = found.staging / name
        try:
            mode, target = os.lstat(path).st_mode, os.stat(path).st_mode
        except OSError:
            mode = target = stat.S_IFLNK
        if name.endswith(".ipk") and not name.startswith("."):
            fault = _not_a_file(name, mode, target, found.kind)
            if fault:
                found.findings.append(fault)
            else:
                found.paths[name] = path
            continue
        for is_like, level, text, do in UNLISTED:
            if is_like(name):
                found.findings.append(level(name, f"{shown(name)} {text}.", do))
                break


def _not_a_file(name, mode, target, kind):
    """What is wrong when a name that is listed is not that of a file."""
    if stat.S_ISLNK(mode) and (kind == "stick" or not stat.S_ISREG(target)):
        return error(name, f"{shown(name)} is a link. The machine copies the link and not the file, so the package is "
                     "missing.", "Replace the link by the file.")
    if stat.S_ISDIR(target):
        return error(name, f"{shown(name)} is a folder: the machine lists what it contains, and takes each line of "
                     "that for a package, so the update fails.", "Rename or remove the folder.")
    if not stat.S_ISREG(target):
        return error(name, f"{shown(name)} is no file.", "Remove it.")
    return None


def _nothing_found(found, folder):
    pattern = program.STICK_PATTERN if found.kind == "stick" else program.STAGED_PATTERN
    elsewhere = _packages_below(folder)
    at = f" There are some elsewhere: {some(elsewhere)}." if elsewhere else ""
    place = f"the folder {program.STICK_FOLDER} of the stick" if found.kind == "stick" else "the folder itself"
    return error("", f"There is no package where the program looks ({pattern}).{at} The screen shows "
                 f'"{program.NO_PACKAGE}".', f"Put the packages into {place}, with names that end in .ipk.")


def _packages_below(folder):
    """Packages at other places of the folder, as far as a short search finds them."""
    def entries():
        for place, folders, files in os.walk(folder):
            folders.sort()
            for name in sorted(files):
                yield os.path.relpath(os.path.join(place, name), folder)

    return [path for path in itertools.islice(entries(), SEARCHED) if path.lower().endswith(".ipk")]


def _name_findings(name, found):
    """What becomes of a name in the listing and in the shell."""
    text = name
    data = os.fsencode(name)
    commands = program.commands(data)
    said = "; ".join(shown(command, 400) for command in commands)
    ways = [what for expression, what in SHELL if re.search(expression, text)]
    if not data.isascii():
        ways.append("the program reads the listing as Latin-1 and writes the command as UTF-8, so the command names a "
                    "file that does not exist")
    if len(program.STAGED.encode() + data) >= program.PIECE - 1:
        ways.append(f"the program reads the listing in pieces of {program.PIECE - 1} characters, so the name makes two "
                    "entries")
    if ways:
        yield error(name, f"{shown(name)} is not installed: {', and '.join(ways)}. The shell gets: {said}", SAFE_NAME)
    elif re.search(r"[*?[]", text):
        yield _pattern_finding(name, found, said)
    elif re.search(r"\{.*(,|\.\.).*\}", text):
        yield warning(name, f"{shown(name)}: some shells make several names of the braces. The shell gets: {said}",
                      SAFE_NAME)
    elif re.search(r"[^\x20-\x7e]", text):
        yield warning(name, f"{shown(name)} has control characters in its name. The shell gets: {said}", SAFE_NAME)
    elif found.kind == "stick" and len(program.STICK_PATTERN) - len("*.ipk") + len(data) >= program.PIECE - 1:
        yield warning(name, f"{shown(name)} has so long a path on the stick that the screen lists it twice.",
                      "Use at most 180 characters in the name.")


def _pattern_finding(name, found, said):
    fitting = [other for other in found.paths if fnmatch.fnmatchcase(other, name)]
    if fitting in ([], [name]):
        return warning(name, f"{shown(name)} is a pattern for the shell. It works only as long as no other file fits "
                       f"it. The shell gets: {said}", SAFE_NAME)
    return error(name, f"{shown(name)} is a pattern for the shell, which installs what fits it instead: "
                 f"{some(fitting)}. The shell gets: {said}", SAFE_NAME)
