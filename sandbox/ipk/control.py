"""The fields of a control file and of the package database."""

import os
import re

RELATIONS = {"<<": "lt", "<": "le", "<=": "le", "=": "eq", ">=": "ge", ">": "ge", ">>": "gt"}
_DEPENDENCY = re.compile(r"\s*(?P<name>[^\s(]+)\s*(?:\(\s*(?P<relation>[<>=]+)\s*(?P<version>[^\s)]+)\s*\))?\s*")


def compare(one, relation, other):
    """Whether the versions stand in the relation, one of RELATIONS."""
    return os.spawnlp(os.P_WAIT, "dpkg", "dpkg", "--compare-versions", one, RELATIONS[relation], other) == 0


def stanzas(text):
    """Yields the fields of each stanza, by name; a continued field has its lines as they stand."""
    fields, name = {}, None
    for line in [*text.splitlines(), ""]:
        if not line.strip():
            if fields:
                yield fields
            fields, name = {}, None
        elif line[0] in " \t":
            if name:
                fields[name] += "\n" + line
        else:
            name, colon, value = line.partition(":")
            if colon:
                fields[name] = value.strip()


class Package:
    """A package: one that is installed, or a file that is to be."""

    def __init__(self, fields, status="not-installed", by_user=True, file=None):
        self.fields = fields
        self.status = status  # not-installed, half-installed, unpacked or installed
        self.by_user = by_user
        self.installed_size = 0
        self.installed_time = 0
        self.conffiles = {}  # path: checksum as installed, None before
        self.file = file  # the PackageFile of one that is to be installed
        self.scripts = ""  # where its maintainer scripts are until it is unpacked

    @property
    def name(self):
        return self.fields["Package"]

    @property
    def version(self):
        return self.fields["Version"]

    @property
    def architecture(self):
        return self.fields["Architecture"]

    @property
    def is_there(self):
        """Whether its files are on the machine."""
        return self.status in ("installed", "unpacked")

    def relations(self, name):
        """The packages of a field such as Depends: a list of alternatives each, and the text that says so."""
        text = self.fields.get(name, "")
        return [([_DEPENDENCY.fullmatch(one) for one in entry.split("|")], entry.strip())
                for entry in text.split(",") if entry.strip()]

    def meets(self, dependency):
        """Whether the package is what a dependency asks for: itself, or what it provides."""
        if dependency is None:
            return False
        if dependency["name"] != self.name:
            provided = [one["name"] for alternatives, _ in self.relations("Provides") for one in alternatives if one]
            return dependency["name"] in provided and not dependency["version"]
        relation = dependency["relation"]
        return not relation or relation in RELATIONS and compare(self.version, relation, dependency["version"])
