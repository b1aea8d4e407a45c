"""The fields of a package, as its control file states them, and what is wrong with them."""

import logging
import re

from debian.deb822 import Deb822, PkgRelation
from debian.debian_support import NativeVersion

from .words import error, shown, warning

NEEDED = ("Package", "Version", "Architecture")
RELATIONS = ("Pre-Depends", "Depends", "Provides", "Conflicts")
LONGEST_FIELD = 65536
MOST_RELATIONS = 1000

logging.getLogger("debian.deb822").disabled = True  # what it cannot parse is a finding

# The package manager puts names and versions into paths and into shell commands.
FORMS = {
    "Package": r"[A-Za-z0-9][A-Za-z0-9+._-]*",
    "Version": r"[A-Za-z0-9.+:~_-]+",
    "Architecture": r"[A-Za-z0-9_-]+",
}
UNSAFE = "has a {} that is no proper one ({}): the package manager puts it into paths and shell commands"


def read_control(data, file):
    """The fields that matter, with the relations parsed, and the findings. The fields are None when one is missing."""
    try:
        stated = _stated(data)
    except (ValueError, TypeError, IndexError) as fault:
        return None, [error(file, f"{shown(file)} has a malformed control file: {shown(fault)}.",
                            "Write one field a line: NAME: VALUE.")]
    findings = [error(file, f"{shown(file)} does not state {name} in its control file: the package manager calls it "
                      "malformed, and the update ends there.", f"Add the field {name} to the control file.")
                for name in NEEDED if not stated.get(name)]
    if findings:
        return None, findings
    findings = list(_findings(stated, file))
    fields = {name: stated[name] for name in NEEDED} | {"Installed-Size": _size(stated.get("Installed-Size", ""))}
    for name in RELATIONS:
        fields[name] = _relations(stated.get(name, ""))
    return fields, findings


def _stated(data):
    """The fields by name. The package manager knows their names in this spelling only."""
    text = data.decode("utf-8", "surrogateescape").replace("\r\n", "\r\r\n")  # a CR stays a part of the value
    paragraph = next(Deb822.iter_paragraphs(re.split(r"\n", text), use_apt_pkg=False), {})
    return {name: paragraph[name].strip(" \t") for name in paragraph}


def _findings(stated, file):
    for name, form in FORMS.items():
        if not re.fullmatch(form, stated[name]):
            yield error(file, f"{shown(file)} " + UNSAFE.format(name, shown(stated[name])) + ".",
                        f"Use only letters, digits and simple signs in {name}.")
    version = stated["Version"]
    if re.fullmatch(FORMS["Version"], version) and not _is_ordered(version):
        yield warning(file, f"{shown(file)} has the version {version}, whose order among others is not certain.",
                      "Begin the version with a digit.")
    strange = [name for name, value in stated.items() if re.search(r"[\x00-\x08\x0b-\x1f\x7f]", value)]
    if strange:
        yield error(file, f"{shown(file)} has control characters in the fields {', '.join(map(shown, strange[:5]))}.",
                    "Remove them; end the lines of the control file with a line feed only.")
    long = [name for name in RELATIONS if len(stated.get(name, "")) > LONGEST_FIELD]
    if long:
        yield error(file, f"{shown(file)} has too long a field: {', '.join(long)}.", "Shorten it.")


def _is_ordered(version):
    try:
        NativeVersion(version)
    except ValueError:
        return False
    return version[0].isdigit()


def _size(text):
    """Installed-Size as the package manager reads it; 0 when it is not stated."""
    return int(text) if re.fullmatch(r"\d{1,18}", text) else 0


def _relations(text):
    """The entries of a field such as Depends: text and alternatives, each a name and, or not, a relation and a version.

    The package manager knows no architectures and profiles here; an alternative with one has no name.
    """
    entries = [entry.strip() for entry in text[:LONGEST_FIELD].split(",")]
    return [{"text": entry, "alternatives": [_alternative(one) for one in PkgRelation.parse_relations(entry)[0]]}
            for entry in entries[:MOST_RELATIONS] if entry]


def _alternative(parsed):
    name, (relation, version) = parsed["name"], parsed["version"] or ("", "")
    if parsed["archqual"] or parsed["arch"] or parsed["restrictions"] or re.search(r"[\s()]", name):
        name = ""
    return [name, relation, version]
