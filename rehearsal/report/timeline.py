"""The time line as lanes: where each bar stands, in hundredths of the width."""

import string

from markupsafe import Markup

from .shown import plain

LANES = ("packages", "serial line", "screen")
STATES = {"good": "done", "bad": "failed", "wait": "waiting"}
MOST_BARS = 1000  # in a lane
MOST_KEYS = 40  # lines that explain the bars of a lane
STEPS = (0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 21600)
MOST_STEPS = 6  # on the axis
COLUMNS = 1000  # places for blocks; those of one place are drawn as one
ENLARGED_BELOW = 25  # hundredths: a shorter transfer is drawn a second time, over the whole width

# A text of N letters at the size of a bar's label, in pixels, and the widths for which the page is drawn.
LETTER, PADDING = 6.8, 9
WIDE, NARROW = 900, 330


def _share(seconds, whole):
    return round(100 * seconds / whole, 3)


def _fitting(texts, width, page):
    """The first of the texts that fits into the width."""
    return next((text for text in texts if len(text) * LETTER + PADDING <= width * page / 100), "")


def _marks(count):
    """Letters for the bars that have no number of a package: a, b, ... z, aa, ab, ..."""
    letters = string.ascii_lowercase
    return [(letters[i // 26 - 1] if i >= 26 else "") + letters[i % 26] for i in range(min(count, 26 * 27))]


def axis(whole, spell):
    step = next((step for step in STEPS if whole / step <= MOST_STEPS), whole)
    return [{"at": _share(i * step, whole), "text": spell(i * step)} for i in range(int(whole / step + 1e-9) + 1)]


def _path(columns):
    """The ticks as lines in a drawing of COLUMNS by 10."""
    return Markup("".join(f"M{column} 0V10" for column in sorted(columns)))


def ticks(blocks, start, whole):
    """The blocks as two paths, those that were taken and those that were not."""
    good, bad = set(), set()
    for at, state in blocks:
        column = int((at - start) / whole * COLUMNS)
        (good if state == "ok" else bad).add(max(0, min(COLUMNS - 1, column)))
    return {"good": _path(good), "bad": _path(bad)}


def transfer(blocks, total, spell):
    """What is said of the blocks, and their drawing over the whole width if they are narrow otherwise."""
    if not blocks:
        return None
    first, last = min(at for at, _ in blocks), max(at for at, _ in blocks)
    span = max(last - first, 1e-3)
    return {"count": len(blocks), "bad": sum(state != "ok" for _, state in blocks), "from": first, "to": last,
            "ticks": ticks(blocks, first, span * 1.001),
            "axis": axis(span, spell),
            "is_enlarged": _share(span, total) < ENLARGED_BELOW}


def _bar(entry, mark, whole):
    start, end = max(0, entry["from"]), max(0, entry["from"], entry["to"])
    left = min(_share(start, whole), 99.8)
    width = max(_share(end - start, whole), 0.2)
    texts = [mark] if entry["state"] != "bad" else [f"✕ {mark}", "✕"]
    label = f"{texts[0]} {plain(entry['label'])}"
    return {
        **entry, "mark": mark, "left": left, "width": width, "from": start, "to": end,
        "state": entry["state"] if entry["state"] in STATES else "good",
        "long": _fitting([label, *texts], width, WIDE),
        "short": _fitting(texts, width, NARROW),
    }


def lanes(entries, files, spell, lanes_first=LANES):
    """The lanes with bars, axis and transfer, or None without entries. `spell` gives a time as text."""
    if not entries:
        return None
    whole = max([0.001, *(entry["to"] for entry in entries)])
    numbers = {file: str(number) for number, file in enumerate(files, 1)}
    names = dict.fromkeys([*lanes_first, *(entry["lane"] for entry in entries)])
    result, blocks = [], []
    for name in names:
        own = sorted((entry for entry in entries if entry["lane"] == name), key=lambda entry: entry["from"])
        # A transfer is drawn in any case.
        kept = sorted(own, key=lambda entry: not entry["blocks"])[:MOST_BARS]
        own, left_out = sorted(kept, key=lambda entry: entry["from"]), len(own) - len(kept)
        marks = [numbers.get(entry["label"]) for entry in own]
        are_numbered = bool(own) and all(marks)
        if not are_numbered:
            marks = _marks(len(own)) + [""] * len(own)
        bars = [_bar(entry, mark, whole) for entry, mark in zip(own, marks)]
        in_lane = [block for entry in own for block in entry["blocks"]]
        blocks += in_lane
        result.append({
            "name": name, "bars": bars, "left_out": left_out, "are_numbered": are_numbered,
            "legend": [] if are_numbered else bars[:MOST_KEYS], "more_legend": 0 if are_numbered else len(bars[MOST_KEYS:]),
            "ticks": ticks(in_lane, 0, whole) if in_lane else None,
        })
    return {"lanes": result, "axis": axis(whole, spell), "transfer": transfer(blocks, whole, spell)}
