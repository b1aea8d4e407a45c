"""What the packages find when their turn comes: architecture, versions, dependencies."""

from debian.debian_support import NativeVersion

from .words import error, shown, some, warning

MET_BY = {"<<": lambda one: one < 0, "<": lambda one: one <= 0, "<=": lambda one: one <= 0, "=": lambda one: one == 0,
          ">=": lambda one: one >= 0, ">": lambda one: one >= 0, ">>": lambda one: one > 0}


def compare(one, other):
    """Below 0, 0 or above 0, as the versions are ordered. One that is malformed is ordered as text."""
    try:
        left, right = NativeVersion(one), NativeVersion(other)
    except ValueError:
        left, right = one, other
    return (left > right) - (left < right)


class Machine:
    """The packages that are installed, as far as it is known. Each has a version and the names that it provides."""

    def __init__(self, installed, architectures):
        self.packages = {name: package if hasattr(package, "version") else _Known(package)
                         for name, package in installed.items()}
        self.architectures = set(architectures)

    def meets(self, alternative, package):
        """Whether another package is what the alternative asks for."""
        name, relation, version = alternative
        if not name or name == package.name:
            return False
        other = self.packages.get(name)
        if other and (not relation or relation in MET_BY and MET_BY[relation](compare(other.version, version))):
            return True
        return not relation and any(name in other.provides for other in self.packages.values() if other is not package)


class _Known:
    """An installed package of which only the version is known."""

    provides = ()
    installed_size = 0

    def __init__(self, version):
        self.version = version


def findings(packages, installed, architectures):
    """Goes through the packages in their order. Packages without fields are passed over."""
    machine = Machine(installed, architectures)
    readable = [package for package in packages if package.name]
    for number, package in enumerate(readable):
        previous = machine.packages.get(package.name)
        if package.architecture not in machine.architectures:
            yield _foreign(package, machine, previous)
            continue
        yield from _unmet(package, machine, readable[number + 1:])
        yield from _conflicts(package, machine)
        if previous and compare(package.version, previous.version) < 0 and not _is_later(previous, readable):
            yield warning(package.file, f"{shown(package.file)} is a downgrade: {shown(package.name)} "
                          f"{shown(package.version)} replaces the installed {shown(previous.version)}.",
                          "Nothing, if you want the older version.")
        machine.packages[package.name] = package
    yield from _twice(readable, machine.architectures)


def _is_later(previous, packages):
    return any(previous is package for package in packages)


def _foreign(package, machine, previous):
    accepted = ", ".join(sorted(machine.architectures))
    happens = "refuses it, and the update ends there"
    if previous:
        happens = f"keeps {shown(previous.version)}, says that it is up to date, and the update goes on without it"
    return error(package.file, f"{shown(package.file)} is for the architecture {shown(package.architecture)}; the "
                 f"machine takes {accepted}. The package manager {happens}.",
                 "Build it for the machine, or name its architecture by --architecture.")


def _unmet(package, machine, later):
    missing = [entry for entry in package.relations
               if not any(machine.meets(one, package) for one in entry["alternatives"])]
    if not missing:
        return
    coming = Machine({other.name: other for other in later}, ())
    for entry in missing:
        found = [other.file for other in later if any(one[0] in (other.name, *other.provides) and one[0]
                                                      for one in entry["alternatives"])]
        if found and any(coming.meets(one, package) for one in entry["alternatives"]):
            do = f"{some(found, 1)} brings it, but later: rename it so that it sorts before {shown(package.file)}."
        elif found:
            do = f"{some(found, 1)} brings another version: add the right one, under a name that sorts before."
        elif not all(one[0] for one in entry["alternatives"]):
            do = "Write it as NAME or NAME (>= VERSION): the package manager knows no other form."
        else:
            do = "Add a package that brings it, under a name that sorts before, or have it installed before the update."
        yield error(package.file, f"{shown(package.file)} depends on {shown(entry['text'])}, which is neither "
                    "installed nor brought by a package before it. The package manager refuses it, and the update "
                    "ends there.", do)


def _conflicts(package, machine):
    for entry in package.conflicts:
        if any(machine.meets(one, package) for one in entry["alternatives"]):
            yield warning(package.file, f"{shown(package.file)} conflicts with {shown(entry['text'])}, which is "
                          "installed by then. The package manager may refuse it.",
                          "Remove the conflict, or the other package.")


def _twice(packages, architectures):
    """Several files with one package: which of them remains."""
    by_name = {}
    for package in packages:
        if package.architecture in architectures:
            by_name.setdefault(package.name, []).append(package)
    for name, files in by_name.items():
        if len(files) < 2:
            continue
        last = files[-1]
        listed = some((f"{one.file} ({one.version})" for one in files), 10)
        older = any(compare(last.version, one.version) < 0 for one in files)
        remains = "the older one" if older else "the last one"
        yield warning(last.file, f"{shown(name)} is there {len(files)} times: {listed}. The machine installs them one "
                      f"after the other, and {remains} remains: {shown(last.version)} of {shown(last.file)}.",
                      "Put one version of it on the stick.")
