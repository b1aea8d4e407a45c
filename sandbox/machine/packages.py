"""Package files and the package database."""

import pathlib
import re
import shutil
import subprocess

from . import paths
from .watch import text_of

# The program calls the package manager like this, followed by the file.
INSTALL = "opkg install --force-downgrade --force-reinstall --force-overwrite"


class Packages:
    """The package files in a folder (default: those of sandbox/packages) and the package database."""

    def __init__(self, folder=None):
        self._folder = folder and pathlib.Path(folder)

    def build(self, *options):
        """Builds the example packages with options of sandbox/packages."""
        self._folder = pathlib.Path("/tmp/packages")
        subprocess.run([paths.PROJECT / "sandbox/packages", *options, self._folder], check=True)

    @property
    def folder(self):
        if not self._folder:
            self.build()
        return self._folder

    def stage(self, *files, folder=paths.STAGED):
        """Copies package files to a folder in which the program finds them."""
        folder.mkdir(parents=True, exist_ok=True)
        for file in files:
            shutil.copy(self.folder / file, folder)

    def states(self):
        """The "STATUS VERSION" of each package in the database, by its name."""
        listing = subprocess.run(
            ["dpkg-query", f"--root={paths.ROOT}", "--show",
             "--showformat=${Package} ${db:Status-Status} ${Version}\n"],
            stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False).stdout
        return dict(line.split(" ", 1) for line in listing.splitlines())

    def installed(self):
        """The installed packages as "NAME VERSION", in the order of their installation."""
        log = text_of(paths.STATE / "dpkg.log")
        times = {name: time for time, name in enumerate(re.findall(r" status installed ([^:]*):", log))}
        states = sorted(self.states().items(), key=lambda state: times.get(state[0], -1))
        return [f"{name} {state.removeprefix('installed ')}" for name, state in states
                if state.startswith("installed ")]
