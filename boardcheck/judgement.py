"""Compares what happened on the line with the requirements. The judgement of a frame is the tap's, that of a reply as a
whole the program's: its calls return a result, or do not return."""

from dataclasses import dataclass
from urllib.parse import unquote

MET, NOT_MET, NOT_SEEN = "met", "not met", "not seen"
REPLY_WINDOW_S = 2.1  # in which the program reads the reply to the start command
ONE_READ_S = 1  # after the command; a reply that is whole by then came in time for one read
TRANSFER_WAIT_S = 11  # the longest time in which the program reads a reply in the transfer
FRAMES = ("start frame", "block ", "EOT", "end frame", "further end frame")  # of a transfer
CONTROLS = ("ACK", "NAK", "CA", "'C'")


@dataclass
class Finding:
    """What is said of a requirement."""

    status: str = NOT_SEEN
    seen: str = ""  # for people


class Judgement:
    """Where the device has gone away, only what came before tells anything."""

    def __init__(self, requirements):
        self.findings = {one.name: Finding(seen=one.unseen) for one in requirements}

    def met(self, *names, seen=""):
        """`seen` is for the last one."""
        for name in names:
            self.findings[name] = Finding(MET, seen if name == names[-1] else "")

    def not_met(self, name, seen):
        self.findings[name] = Finding(NOT_MET, seen)

    def line(self, exchanges):
        frames = [event for exchange in exchanges for event in exchange.events if event.mark != "--"]
        if any(exchange.gone for exchange in exchanges):
            self.not_met("line-stays", f"the device went away after: {frames[-1].meaning}")
        elif any(frame.mark == "<-" for frame in frames):
            self.met("line-stays")

    def version(self, exchange):
        if not exchange.events:
            return
        query, text = exchange.requests()[0], version_text(exchange)
        replies = exchange.replies(query)
        before = [one for reply in replies for one in reply.violations if "before the" in one]
        sound = next((reply for reply in replies if reply.meaning.startswith("version answer")), None)
        if text is not None and replies and not before:
            self.met("version-reply", seen=f"it came {replies[0].seconds - query.seconds:.3f} s after the query")
            self.met("version-size", "version-pace", "version-alone")
            self._text("version-text", text)
            if "V4" in text:
                self.met("version-v4")
            elif text:
                self.not_met("version-v4", f'the text is "{text}"')
        elif exchange.gone:
            return
        elif not replies:
            self.not_met("version-reply", "nothing came")
        elif before:
            self.met("version-reply", "version-size", "version-pace")
            self.not_met("version-alone", before[0])
        elif sound:
            self.met("version-reply", "version-size")
            self.not_met("version-pace", f"the last byte came {sound.seconds - query.seconds:.3f} s after the query")
        else:
            self.met("version-reply")
            self.not_met("version-size", faults_of(replies))

    def handshakes(self, exchange):
        counts = {name: handshake_result(exchange, name) for name in ("handshake-v3", "handshake-v4")}
        for request, (name, (count, text)) in zip(exchange.requests(), counts.items()):
            replies = exchange.replies(request)
            if count is not None and count > 0:
                self.met(name, seen=f"{count} bytes")
                if name == "handshake-v4":
                    self._text("handshake-v4-text", text)
            elif not exchange.gone:
                self.not_met(name, faults_of(replies) if replies else "nothing came within 1 s")

    def _text(self, name, text):
        if text:
            self.met(name, seen=f'"{text}"')
        else:
            self.not_met(name, "the text is empty")

    def start(self, exchange):
        result = exchange.results.get("start-command")
        command, *frames = exchange.requests() or [None]
        if result is None or exchange.gone and not frames:
            return
        replies = exchange.replies(command)
        names = ["start-reply", "start-pace", "start-alone", "start-frame", "start-sum"]
        if result == "0":
            self.met(*names)
        elif result == "-1":
            late = [reply for reply in replies if reply.meaning.endswith("start command answer")]
            self.not_met("start-reply", f"it came {late[0].seconds - command.seconds:.3f} s after the command" if late else
                         "nothing came within 1 s")
        elif result == "-3":
            self.met(*names[:-1])
            self.not_met("start-sum", faults_of(replies[:1]))
        else:
            self.met("start-reply")
            self._start_format(command, [one for one in replies if one.seconds <= command.seconds + REPLY_WINDOW_S])

    def _start_format(self, command, replies):
        others = [one for one in replies if not one.meaning.startswith("start command answer")]
        if others and len(others) < len(replies):
            self.not_met("start-alone", f"with it came: {others[0].meaning}")
        elif others:
            self.not_met("start-frame", faults_of(others))
        elif replies and replies[-1].seconds < command.seconds + ONE_READ_S:
            self.findings["start-pace"] = Finding(seen="this host was too busy to read it in time")
        else:
            self.not_met("start-pace", "it came in pieces, too late for one read")

    def transfer(self, exchange):
        """Returns whether the board has taken all frames."""
        frames = [one for one in exchange.requests() if one.meaning.startswith(FRAMES)]
        if not frames:
            if exchange.events and not exchange.gone:
                others = [one.meaning for one in exchange.replies(exchange.requests()[0]) if "start command" not in one.meaning]
                self.not_met("request", f"no 'C' came, but: {others[0]}" if others else "no 'C' came")
            return False
        self.met("request")
        if exchange.gone:
            return False
        for frame in frames:
            if "end frame" not in frame.meaning:
                self._frame(frame, exchange.replies(frame), is_last=frame is frames[-1])
        end = next((one for one in frames if one.meaning.startswith("end frame")), None)
        names = ("frame-reply", "frame-accepted", "control-first")
        if not end or any(self.findings[name].status == NOT_MET for name in names):
            return False
        self.met(*names)
        replies = exchange.replies(end)
        further = [one for frame in frames[frames.index(end) + 1:] for one in exchange.replies(frame)]  # to frames sent early
        if any(asks(one) and one.seconds <= end.seconds + TRANSFER_WAIT_S for one in [*replies, *further]):
            self.met("end-reply")
        else:
            self.not_met("end-reply", faults_of(replies) or "nothing came in time")
        if exchange.given_up:
            self.not_met("silent-end", "bytes came again and again")
        else:
            self.met("silent-end")
        return True

    def _frame(self, frame, replies, is_last):
        """Judges the reply to the start frame, a block or EOT."""
        where = f"after {short(frame.meaning)}"
        controls = [one for one in replies if one.meaning.startswith(CONTROLS)]
        refused = next((one for one in controls if "NAK" in one.meaning or "CA" in one.meaning.split()), None)
        if refused and not any("ACK" in one.meaning for one in controls):
            self.not_met("frame-accepted", f"{refused.meaning} {where}")
        elif is_last and any(not asks(one) for one in replies):
            self.not_met("control-first", f"{faults_of(replies)} {where}")
        elif replies and (is_last or replies[0].seconds > frame.seconds + TRANSFER_WAIT_S):  # a busy host waits longer
            self.not_met("frame-reply", f"it came {replies[0].seconds - frame.seconds:.0f} s {where}")
        elif is_last:
            self.not_met("frame-reply", f"nothing came {where}")

    def application(self, before, after):
        if after:
            self.met("application", seen=f'"{after}", as before' if after == before else f'"{after}", and "{before}" before')
        else:
            self.not_met("application", "no version text came")


def version_text(exchange):
    """None while the program waits for it."""
    result = exchange.results.get("version")
    return None if result is None else unquote(result)


def goes_on(exchange):
    """Whether the program sends the start command after this version query."""
    return "V4" in (version_text(exchange) or "")


def was_sent(exchange):
    """Whether the program has ended the transfer after the end frame."""
    return "transfer" in exchange.results and any(one.meaning.startswith("end frame") for one in exchange.requests())


def handshake_result(exchange, name):
    """The number of bytes, or -1, and the version text."""
    count, _, text = exchange.results.get(name, "").partition(" ")
    return (int(count) if count else None), unquote(text)


def faults_of(replies):
    faults = [fault for reply in replies for fault in reply.violations]
    return "; ".join(faults or [f"{reply.meaning}, {reply.size} bytes" for reply in replies][:2])


def asks(reply):
    """Whether the program takes it for the request of a frame."""
    return reply.meaning.startswith(("ACK", "'C'"))


def short(meaning):
    return meaning.partition(",")[0].partition(":")[0]
