"""Package files and the package database."""

import pathlib
import shutil
import subprocess

from ipk.control import stanzas

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
        """The "STATUS VERSION" of each package that the database knows, by its name."""
        return {fields["Package"]: f"{fields['Status'].split()[-1]} {fields['Version']}"
                for fields in stanzas(text_of(paths.DATABASE))}

    def installed(self):
        """The installed packages as "NAME VERSION", sorted."""
        return sorted(f"{name} {state.removeprefix('installed ')}" for name, state in self.states().items()
                      if state.startswith("installed "))
