"""Writes the report of a rehearsal.

    from rehearsal import report
    report.write(facts, folder)                   # FOLDER/index.html and FOLDER/rehearsal.json
    report.write(facts, folder, junit="out.xml")  # JUnit XML, too

docs/rehearsal.md describes the facts, a dict of JSON types. The same facts give the same bytes. Names and texts in
the facts may be hostile. The pictures lie in the folder and become a part of the page.
"""

import pathlib

from .form import as_json, complete
from .junit import as_junit
from .page import as_html


def write(facts, folder, junit=None):
    """Writes the report into the folder, which must exist. Returns the path of the page. Raises OSError."""
    folder = pathlib.Path(folder)
    facts = complete(facts)
    (folder / "rehearsal.json").write_text(as_json(facts), encoding="ascii")
    if junit is not None:
        pathlib.Path(junit).write_bytes(as_junit(facts))
    page = folder / "index.html"
    page.write_text(as_html(facts, folder), encoding="utf-8")
    return page
