"""The exchanges on the serial line as bars of a time line."""

import collections
import re

MOST_BARS = 2000
MOST_EXCHANGES = 20_000  # of a kind
MOST_BLOCKS = 25_000  # more than a recording of 64 MiB can have
BLOCK = re.compile(r"block \d+ of \d+,")
REPLIES = {"ACK": "ok", "NAK": "nak", "CA CA": "cancel"}
# The exchanges of the serial line, by how their first frame begins in the transcript.
EXCHANGES = {"version query": "version", "update start command": "start command", "start frame": "firmware",
             "V3 handshake": "V3 handshake", "V4 handshake": "V4 handshake", "connect packet": "boot-loader packets"}


def bar(lane, start, end, label, state, **more):
    return {"lane": lane, "from": round(max(start, 0), 3), "to": round(max(end, start, 0), 3), "label": label, "state": state,
            **more}


def exchanges_of(events):
    """One bar for each exchange; that of the firmware has the blocks. An event is a time, a mark and what happened."""
    exchanges, current, counts = [], None, collections.Counter()
    for at, mark, what in events:
        label = next((label for begin, label in EXCHANGES.items() if mark == "->" and what.startswith(begin)), None)
        if label and not what.endswith(", again"):
            current = Exchange(label, at)
            counts[label] += 1
            if counts[label] <= MOST_EXCHANGES:
                exchanges.append(current)
        elif current:
            current.take(at, mark, what)
    yield from (exchange.bar() for exchange in exchanges)


class Exchange:
    def __init__(self, label, at):
        self._label, self._from, self._to = label, at, at
        self._state = "wait"
        self._blocks = []
        self._block_at = None

    def take(self, at, mark, what):
        if what.startswith("board is "):
            return
        self._to = at
        if mark == "!!":
            self._state = "bad"
        if mark == "->" and BLOCK.match(what):
            self._block_at = at
        elif mark == "<-":
            if self._state == "wait" and self._label != "firmware":
                self._state = "good"
            reply = next((state for begin, state in REPLIES.items() if what.startswith(begin)), None)
            if self._block_at is not None and reply and len(self._blocks) < MOST_BLOCKS:
                self._blocks.append([round(self._block_at, 3), reply])
                self._block_at = None
        elif mark == "->" and what.startswith("end frame") and self._state == "wait":
            self._state = "good"

    def bar(self):
        more = {"blocks": self._blocks} if self._label == "firmware" else {}
        return bar("serial line", self._from, self._to, self._label, self._state, **more)
