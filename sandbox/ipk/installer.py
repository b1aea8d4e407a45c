"""Installs packages as the machine's package manager does, with its messages, statuses and traces.

What the console, the exit status and the disk show after a success, a failure or a kill is the same: files of the old
version go before those of the new one come, the database is written once at the end, and a write that finds no room
is a warning. Tests run the same cases with both. What nothing here needs is refused.
"""

import contextlib
import errno
import fcntl
import glob
import os
import re
import sys
import time

from .control import Package, compare, stanzas
from .packagefile import AS_PACKAGED, PackageError, PackageFile

SETTINGS = "/etc/opkg/opkg.conf"
DATABASE = "/var/lib/opkg/status"
INFO = "//var/lib/opkg/info/"  # as it stands in messages
LOCK = "/var/run/opkg.lock"
TEMPORARY = "/tmp"
ROOT = "/"
FAILED = 255
KEPT_FIELDS = ("Package", "Version", "Depends", "Pre-Depends", "Recommends", "Suggests", "Provides", "Replaces",
               "Conflicts")


class Failure(Exception):
    """An installation that cannot go on. Why has been said."""


def notice(text):
    print(text)


def error(function, text):
    print(f" * {function}: {text}", file=sys.stderr)


def system_error(function, text, fault):
    error(function, f"{text}: {fault.strerror}.")


@contextlib.contextmanager
def locked():
    """Keeps other calls out. Raises Failure when one is at work."""
    try:
        os.makedirs(os.path.dirname(LOCK), exist_ok=True)
        file = open(LOCK, "w", encoding="ascii")
    except OSError as fault:
        system_error("opkg_lock", f"Could not create lock file {LOCK}", fault)
        raise Failure from fault
    with file:
        try:
            fcntl.lockf(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError as fault:
            system_error("opkg_lock", f"Could not lock {LOCK}", fault)
            system_error("opkg_cmd_exec", "Command failed to capture privilege lock", fault)
            raise Failure from fault
        yield
        os.unlink(LOCK)


class Installer:
    """One call of the package manager. Options are named as on its command line."""

    def __init__(self, force_downgrade=False, force_reinstall=False, force_overwrite=False):
        self._force_downgrade = force_downgrade
        self._force_reinstall = force_reinstall
        self._force_overwrite = force_overwrite
        self._architectures = {line.split()[1] for line in _text(SETTINGS).splitlines() if line.startswith("arch ")}
        self._packages = {package.name: package for package in _read_database()}
        self._owners = {}  # path: name of the package
        self._is_changed = False

    # ------------------------------------------------------------------ verbs

    def install(self, paths):
        """Installs package files. Returns the exit status."""
        self._read_owners()
        try:
            files = [self._prepare(path) for path in paths]
        except (Failure, PackageError):
            return FAILED
        status = 0
        with _temporary_folder("opkg") as scripts:
            for number, package in enumerate(files):
                try:
                    self._install_file(package, files, f"{scripts}/{number}")
                except Failure:
                    error("opkg_solver_install", f"Cannot install package {package.name}.")
                    status = FAILED
            if not self._configure_all():
                status = FAILED
            self._write_database()
        return status

    def remove(self, names):
        """Removes packages. Returns the exit status."""
        status, removed = 0, False
        self._read_owners()
        for name in names:
            package = self._packages.get(name)
            if not package:
                continue
            dependents = [other for other in self._packages.values() if other.is_there and other is not package and any(
                package.meets(one) for alternatives, _ in other.relations("Depends") for one in alternatives)]
            if dependents:
                error("print_dependents_warning", f"Package {name} is depended upon by packages:")
                for other in dependents:
                    error("print_dependents_warning", f"\t{other.name}")
                status = FAILED
                continue
            notice(f"Removing {name} ({package.version}) from root...")
            self._is_changed = True
            if self._run_script(package, "prerm", "remove"):
                error("opkg_remove_pkg", f'not removing package "{name}", prerm script failed')
                notice("You can force removal of packages with failed prerm scripts with the option: \n\t--force-remove")
                status = FAILED
                break
            self._remove_files(package)
            if self._run_script(package, "postrm", "remove"):
                status = FAILED
            else:
                removed = True
            self._remove_scripts(package)
            del self._packages[name]
        if not removed:
            notice("No packages removed.")
        self._write_database()
        return status

    def list_installed(self):
        """Lists the packages whose files are there."""
        for name, package in sorted(self._packages.items()):
            if package.is_there:
                notice(f"{name} - {package.version}")

    # ------------------------------------------------------------------ before anything is changed

    def _prepare(self, path):
        """The package of a file. Raises Failure or PackageError."""
        if not os.path.lexists(path):
            error("opkg_prepare_url_for_install", f"Couldn't find anything to satisfy '{path}'.")
            raise Failure
        file = PackageFile(path, error, notice)
        copy = f"{TEMPORARY}/{os.path.basename(path)}.control.{os.getpid()}"
        try:
            with _removed_at_the_end(copy), open(copy, "wb", buffering=0) as control:
                with contextlib.suppress(OSError):  # a copy without room is an empty control file
                    control.write(file.control())
                text = _text(copy)
        except PackageError:
            error("pkg_init_from_file", f"Failed to extract control file from {path}.")
            raise
        except OSError as fault:
            system_error("pkg_init_from_file",
                         f"Failed to make temp file {TEMPORARY}/{os.path.basename(path)}.control.XXXXXX", fault)
            raise Failure from fault
        fields = next(stanzas(text), {})
        if not all(fields.get(name) for name in ("Package", "Version", "Architecture")):
            error("pkg_init_from_file", f"Malformed package file {path}.")
            raise Failure
        package = Package(fields, file=file)
        with contextlib.suppress(ValueError):
            package.installed_size = int(fields.get("Installed-Size", 0))
        old = self._installed(package.name)
        if old and not self._force_reinstall and compare(old.version, "=", package.version):
            error("opkg_prepare_file_for_install", f"Refusing to load file '{path}' as it matches the installed version "
                  f"of {package.name} ({old.version}).")
            raise Failure
        return package

    def _installed(self, name):
        package = self._packages.get(name)
        return package if package and package.status in ("installed", "unpacked", "half-installed") else None

    def _install_file(self, package, given, scripts):
        """Raises Failure."""
        old = self._installed(package.name)
        if package.architecture not in self._architectures:
            notice(f"Not selecting {package.name} {package.version} due to incompatible architecture.")
            if not old:
                notice(f"Unknown package '{package.name}'.")
                raise Failure
            package = old
        if package is old or old and package.is_there:
            notice(f"Package {old.name} ({old.version}) installed in root is up to date.")
            return
        if old and not self._announce(package, old):
            return
        self._check_dependencies(package, given)
        notice(f"Installing {package.name} ({package.version}) on root.")
        self._check_room(package)
        os.mkdir(scripts)
        package.scripts = scripts
        try:
            self._unpack(package, old)
        except (Failure, PackageError, OSError):
            package.status, package.by_user = "half-installed", False
            self._packages[package.name] = package
            notice(f"To remove package debris, try `opkg remove {package.name}`.")
            notice(f"To re-attempt the install, try `opkg install {package.name}`.")
            raise Failure from None

    def _announce(self, package, old):
        """Says what becomes of the old version. Returns whether anything is to be done."""
        if compare(package.version, "<<", old.version):
            if not self._force_downgrade:
                notice(f"Not downgrading package {old.name} on root from {old.version} to {package.version}.")
                return False
            notice(f"Downgrading {old.name} from {old.version} to {package.version} on root.")
        elif compare(package.version, "=", old.version):
            notice(f"Reinstalling {old.name} ({old.version}) on root.")
        else:
            notice(f"Upgrading {old.name} from {old.version} to {package.version} on root.")
        return True

    def _check_dependencies(self, package, given):
        there = [other for other in self._packages.values() if other.is_there and other.name != package.name]
        there += [other for other in given if other is not package]
        missing = [text for name in ("Pre-Depends", "Depends") for alternatives, text in package.relations(name)
                   if not any(other.meets(one) for one in alternatives for other in there)]
        if missing:
            error("calculate_dependencies_for", f"Cannot satisfy the following dependencies for {package.name}:")
            print(*(f" * \t{text}" for text in missing), " * ", sep="", file=sys.stderr)
            raise Failure

    def _check_room(self, package):
        """Only a package that states its size is refused for lack of room."""
        needed = (package.installed_size + 1023) // 1024
        disk = os.statvfs(ROOT)
        available = disk.f_bavail * disk.f_frsize // 1024
        if needed and needed >= available:
            error("verify_pkg_installable", f"Only have {available}kb available on filesystem {ROOT}, "
                  f"pkg {package.name} needs {needed}")
            raise Failure

    # ------------------------------------------------------------------ the installation

    def _unpack(self, package, old):
        """Raises Failure, PackageError or OSError. The old version is gone for the database from its start."""
        package.file.extract("control", package.scripts + "/")
        files = list(package.file.entries())
        paths = [ROOT + entry.path.rstrip("/") for entry in files]
        self._is_changed = True
        if old:
            self._packages.pop(old.name)
        self._claim(paths, package, old)
        if old and self._run_script(old, "prerm", f"upgrade {package.version}"):
            error("prerm_upgrade_old_pkg", f'prerm script for package "{old.name}" failed')
            raise Failure
        if self._run_script(package, "preinst", f"upgrade {old.version}" if old else "install"):
            error("preinst_configure", f"Aborting installation of {package.name}.")
            raise Failure
        kept = self._back_up_settings(package, old)
        self._check_clashes(files, package, old)
        if old and self._run_script(old, "postrm", f"upgrade {package.version}"):
            error("postrm_upgrade_old_pkg", f'postrm script for package "{old.name}" failed')
            raise Failure
        if old:
            self._remove_obsolete(old, paths)
            self._remove_files(old)
            self._remove_scripts(old)
        os.makedirs(INFO, exist_ok=True)
        self._extract(package, "control", f"{INFO}{package.name}.", 0,
                      f"Failed to extract maintainer scripts for {package.name}. Package debris may remain!")
        package.installed_size += self._extract(
            package, "data", ROOT, AS_PACKAGED, f"Failed to extract data files for {package.name}. "
            "Package debris may remain!")
        for path in paths:
            self._owners[path] = package.name
        self._write_list(package, files)
        self._restore_settings(package, kept)
        package.status, package.installed_time = "unpacked", int(time.time())
        self._packages[package.name] = package

    def _extract(self, package, part, prefix, flags, complaint):
        try:
            return package.file.extract(part, prefix, flags)
        except PackageError:
            error("opkg_install_pkg", complaint)
            raise

    def _claim(self, paths, package, old):
        for path in paths:
            if self._owners.get(path) in (None, old and old.name):
                self._owners[path] = package.name

    def _check_clashes(self, files, package, old):
        for entry in files:
            path = ROOT + entry.path.rstrip("/")
            owner = self._owners.get(path)
            if (self._force_overwrite or not os.path.lexists(path) or os.path.isdir(path)
                    or owner in (None, package.name, old and old.name)):
                continue
            error("check_data_file_clashes", f"Package {package.name} wants to install file {path}\n"
                  f"\tBut that file is already provided by package  * {owner}")
            raise Failure

    def _remove_obsolete(self, old, paths):
        """What the old version has and the new one has not."""
        failed = False
        for path in self._list(old):
            if path in paths or os.path.isdir(path) or self._owners.get(path) != old.name:
                continue
            notice(f"Removing obsolete file {path}.")
            try:
                os.unlink(path)
            except OSError as fault:
                system_error("remove_obsolesced_files", f"unlinking {path} failed", fault)
                failed = True
        if failed:
            error("opkg_install_pkg", f"Failed to determine obsolete files from previously installed {old.name}")

    def _remove_files(self, package):
        """Those that are still its own."""
        folders = []
        for path in self._list(package):
            if not path or self._owners.get(path) != package.name:
                continue
            if os.path.isdir(path) and not os.path.islink(path):
                folders.append(path)
                continue
            settings = package.conffiles.get(path)
            if settings and os.path.exists(path) and _checksum(path) != settings:
                notice(f"Not deleting modified conffile {path}.")
                continue
            with contextlib.suppress(OSError):
                os.unlink(path)
            del self._owners[path]
        for path in sorted(folders, reverse=True):
            with contextlib.suppress(OSError):
                os.rmdir(path)
        with contextlib.suppress(FileNotFoundError):
            os.unlink(f"{INFO}{package.name}.list")

    def _remove_scripts(self, package):
        for path in glob.glob(f"{INFO}{glob.escape(package.name)}.*"):
            if not path.endswith(".list"):
                os.unlink(path)

    def _run_script(self, package, name, arguments):
        """Returns the status of the maintainer script, 0 without one."""
        path = f"{INFO}{package.name}.{name}" if package.status != "not-installed" else f"{package.scripts}/{name}"
        if not os.path.exists(path):
            return 0
        os.environ["PKG_ROOT"] = ROOT
        status = os.spawnv(os.P_WAIT, "/bin/sh", ["/bin/sh", "-c", f"{path} {arguments}"])
        if status < 0:
            error("xsystem", f"/bin/sh: Child killed by signal {-status}.")
            status = -1
        if status:
            error("pkg_run_script", f'package "{package.name}" {name} script returned status {status}.')
        return status

    def _configure_all(self):
        """Configures every package that is only unpacked, also of earlier calls. Returns whether all succeeded."""
        try:
            with _temporary_folder("opkg-intercept"):
                pass
        except OSError as fault:
            system_error("opkg_prep_intercepts", f"Failed to make temp dir {TEMPORARY}", fault)
            return False
        succeeded = True
        for package in self._packages.values():
            if package.status != "unpacked":
                continue
            notice(f"Configuring {package.name}.")
            status = self._run_script(package, "postinst", "configure")
            if status == 0:
                package.status = "installed"
                self._is_changed = True
            else:
                error("opkg_configure", f"{package.name}.postinst returned {status}.")
                succeeded = False
        return succeeded

    # ------------------------------------------------------------------ settings that a user has changed

    def _back_up_settings(self, package, old):
        """Copies of changed configuration files, by path."""
        listed = f"{package.scripts}/conffiles"
        if os.path.exists(listed):
            package.conffiles = {ROOT + line.strip().lstrip("/"): None
                                 for line in _text(listed).splitlines() if line.strip()}
        changed = [path for path, checksum in (old.conffiles if old else {}).items()
                   if os.path.exists(path) and _checksum(path) != checksum]
        changed += [path for path in package.conffiles
                    if os.path.exists(path) and not (old and path in old.conffiles)]
        for path in changed:
            _write(path + "-opkg.backup", _text(path))
        return changed

    def _restore_settings(self, package, kept):
        for path in package.conffiles:
            package.conffiles[path] = _checksum(path) if os.path.exists(path) else ""
        for path in kept:
            backup = path + "-opkg.backup"
            if package.conffiles.get(path) and _checksum(backup) != package.conffiles[path]:
                notice(f"Existing conffile {path} is different from the conffile in the new package.\n"
                       f" The new conffile will be placed at {path}-opkg.")
                os.rename(path, path + "-opkg")
                os.rename(backup, path)
            else:
                os.unlink(backup)

    # ------------------------------------------------------------------ the database

    def _list(self, package):
        """The paths of a package, as its list has them. A kill amid an upgrade leaves none."""
        path = f"{INFO}{package.name}.list"
        try:
            return [line.split("\t")[0] for line in _text(path).splitlines()]
        except OSError as fault:
            if package.status != "half-installed":
                system_error("pkg_get_installed_files", f"Failed to open {path}", fault)
            return []

    def _read_owners(self):
        self._owners = {path: package.name for package in self._packages.values() if package.is_there
                        for path in self._list(package)}

    def _write_list(self, package, files):
        # The folder of all files has no name in the list. The next version takes it for an obsolete file.
        lines = ["\t".join(["/" + entry.path.rstrip("/"), f"0{entry.mode:o}", *filter(None, [entry.link])])
                 if entry.path else "" for entry in files]
        _write(f"{INFO}{package.name}.list", "\n".join(lines) + "\n")

    def _write_database(self):
        """Without room for it the database is empty afterwards, and nobody is told."""
        if not self._is_changed:
            return
        try:
            os.makedirs(os.path.dirname(DATABASE), exist_ok=True)
            _write(DATABASE, "".join(map(_stanza, self._packages.values())))
        except OSError as fault:
            system_error("opkg_conf_write_status_files", f"Can't open status file /{DATABASE}", fault)


def _write(path, text):
    """Writes a file. A lack of room is not noticed."""
    try:
        with open(path, "w", encoding="utf-8", errors="surrogateescape") as file:
            file.write(text)
    except OSError as fault:
        if fault.errno != errno.ENOSPC:
            raise


def _text(path):
    """The text of a file. A line ends at a NUL, too."""
    with open(path, encoding="utf-8", errors="surrogateescape") as file:
        return re.sub("\0.*", "", file.read())


@contextlib.contextmanager
def _removed_at_the_end(path):
    try:
        yield
    finally:
        with contextlib.suppress(OSError):
            os.unlink(path)


@contextlib.contextmanager
def _temporary_folder(name):
    """A folder that goes with all that is in it. Raises OSError."""
    path = f"{TEMPORARY}/{name}-{os.getpid()}"
    os.mkdir(path, 0o700)
    try:
        yield path
    finally:
        for folder, folders, files in os.walk(path, topdown=False):
            for file in files:
                os.unlink(f"{folder}/{file}")
            for inner in folders:
                link = os.path.islink(f"{folder}/{inner}")
                (os.unlink if link else os.rmdir)(f"{folder}/{inner}")
        os.rmdir(path)


def _checksum(path):
    import hashlib  # only a package with configuration files needs it, and each call would wait for it

    with open(path, "rb") as file:
        return hashlib.file_digest(file, "md5").hexdigest()


def _read_database():
    if not os.path.exists(DATABASE):
        return
    for fields in stanzas(_text(DATABASE)):
        *_, by, status = fields["Status"].split()
        package = Package(fields, status=status, by_user=by == "user")
        package.installed_size = int(fields.get("Installed-Size", 0))
        package.installed_time = int(fields.get("Installed-Time", 0))
        package.conffiles = dict(re.findall(r"^ (\S+) (\S+)$", fields.get("Conffiles", ""), re.MULTILINE))
        yield package


def _stanza(package):
    fields = {name: package.fields[name] for name in KEPT_FIELDS if name in package.fields}
    fields["Status"] = f"install {'user' if package.by_user else 'ok'} {package.status}"
    fields["Architecture"] = package.architecture
    if package.conffiles:
        fields["Conffiles"] = "".join(f"\n {path} {checksum}" for path, checksum in package.conffiles.items())
    if package.installed_size:
        fields["Installed-Size"] = package.installed_size
    if package.installed_time:
        fields["Installed-Time"] = package.installed_time
    return "".join(f"{name}: {value}\n" for name, value in fields.items()) + "\n"
