"""Writes the command as one file: an archive of this folder and what it knows, the same bytes each time."""

import io
import json
import pathlib
import zipapp
import zipfile

from .known import INSIDE

START = """\
import sys
from explain.__main__ import main
sys.exit(main())
"""


def write(knowledge, path):
    folder = pathlib.Path(__file__).parent
    files = {f"explain/{module.name}": module.read_text(encoding="utf-8") for module in sorted(folder.glob("*.py"))}
    files[f"explain/{INSIDE}"] = json.dumps(knowledge.data, ensure_ascii=False, sort_keys=True)
    files["__main__.py"] = START
    archive = io.BytesIO()
    with zipfile.ZipFile(archive, "w", zipfile.ZIP_DEFLATED) as file:
        for name, text in files.items():
            file.writestr(zipfile.ZipInfo(name), text, zipfile.ZIP_DEFLATED)  # no date, no mode
    archive.seek(0)
    zipapp.create_archive(archive, path, interpreter="/usr/bin/env python3")
