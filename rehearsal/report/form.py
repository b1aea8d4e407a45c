"""The form of the facts: which names there are, in which order, and what stands for one that is missing."""

import json

FORMAT = 1

# Every name of the facts in the order of the file, with its value where the rehearsal did not come so far.
FACTS = {
    "format": FORMAT, "verdict": "failure", "findings": [], "order": [], "packages": [], "firmware": None,
    "source": "", "kind": "", "options": {}, "started": "", "seconds": None, "cause": None,
    "pictures": [], "timeline": [], "console": [], "transcript": [], "versions": [],
}
PARTS = {
    "findings": {"level": "error", "package": "", "text": "", "do": ""},
    "packages": {"file": "", "name": "", "version": "", "previous": "", "status": "not tried", "architecture": "",
                 "size": None, "installed_size": None, "seconds": None},
    "firmware": {"package": "", "size": None, "seconds": None, "blocks": None},
    "cause": {"seen": "", "why": "", "do": "", "rows": []},
    "pictures": {"name": "", "title": "", "at": None, "file": ""},
    "timeline": {"lane": "", "from": 0, "to": 0, "label": "", "state": "good", "blocks": []},
    "versions": {"name": "", "version": ""},
}


def _with_defaults(values, defaults):
    """The values in the order of the defaults, then those of other names in the order of these."""
    names = [*defaults, *sorted(values.keys() - defaults.keys())]
    return {name: values.get(name, defaults.get(name)) for name in names}


def complete(facts):
    """The facts with every name, in the order of the file."""
    whole = _with_defaults(facts, FACTS)
    for name, defaults in PARTS.items():
        part = whole[name]
        if isinstance(part, list):
            whole[name] = [_with_defaults(entry, defaults) for entry in part]
        elif part is not None:
            whole[name] = _with_defaults(part, defaults)
    return whole


def as_json(facts):
    """The facts as text in ASCII: what no UTF-8 can carry, as a byte of a file name, is there as an escape."""
    return json.dumps(facts, indent=2, allow_nan=False) + "\n"
