"""Compares what happened on the line with the requirements. The judgement of a frame is the tap's, that of a reply as a
whole the program's: its calls return a result, or do not return."""

from dataclasses import dataclass
from urllib.parse import unquote

MET, NOT_MET, NOT_SEEN = "met", "not met", "not seen"
REPLY_WINDOW_S = 2.1  # in which the program reads the reply to the start command
FRAMES = ("start frame", "block ", "EOT", "end frame", "further end frame")  # of a transfer


@dataclass
class Finding:
    """What is said of a requirement."""

    status: str = NOT_SEEN
    seen: str = ""  # for people


class Judgement:
    def __init__(self, requirements):
        self.findings = {one.name: Finding(seen=one.unseen) for one in requirements}

    def met(self, *names, seen=""):
        """`seen` is for the last one."""
        for name in names:
            self.findings[name] = Finding(MET, seen if name == names[-1] else "")

    def not_met(self, name, seen):
        self.findings[name] = Finding(NOT_MET, seen)

    def line(self, exchanges, has_gone):
        if has_gone:
            last = next((one.meaning for one in reversed([e for x in exchanges for e in x.events]) if one.mark != "--"), "the start")
            self.not_met("line-stays", f"the device went away after: {last}")
        elif any(exchange.replies() for exchange in exchanges):
            self.met("line-stays")

    def version(self, exchange, has_gone):
        requests, replies = exchange.requests(), exchange.replies()
        text = version_text(exchange)
        if text is None and has_gone or not requests:
            return
        took = f"{replies[0].seconds - requests[0].seconds:.2f} s after the query" if replies else ""
        before = [one for reply in replies for one in reply.violations if "before the" in one]
        sound = next((reply for reply in replies if reply.meaning.startswith("version answer")), None)
        if not replies:
            self.not_met("version-reply", "nothing came")
        elif before:
            self.met("version-reply", "version-size", "version-pace")
            self.not_met("version-alone", before[0])
        elif text is None and sound:
            self.met("version-reply", "version-size")
            self.not_met("version-pace", f"the last byte came {sound.seconds - requests[0].seconds:.2f} s after the query")
        elif text is None:
            self.met("version-reply")
            self.not_met("version-size", faults_of(replies))
        else:
            self.met("version-reply", seen=f"it came {took}")
            self.met("version-size", "version-pace", "version-alone")
            self._text("version-text", text)
            if text and "V4" in text:
                self.met("version-v4")
            elif text:
                self.not_met("version-v4", f'the text is "{text}"')

    def handshake_v3(self, exchange):
        count = handshake_result(exchange, "handshake-v3")[0]
        if count is not None and count > 0:
            self.met("handshake-v3", seen=f"{count} bytes")
        elif count is not None:
            self.not_met("handshake-v3", came_late(exchange) or "nothing came within 1 s")

    def handshake_v4(self, exchange):
        count, text = handshake_result(exchange, "handshake-v4")
        if count is not None and count > 0:
            self.met("handshake-v4", seen=f"{count} bytes")
            self._text("handshake-v4-text", text)
        elif count is not None:
            self.not_met("handshake-v4", faults_of(exchange.replies()) if exchange.replies() else "nothing came within 1 s")

    def _text(self, name, text):
        if text:
            self.met(name, seen=f'"{text}"')
        else:
            self.not_met(name, "the text is empty")

    def start(self, exchange):
        result = exchange.results.get("start-command")
        if result is None:
            return
        names = ["start-reply", "start-pace", "start-alone", "start-frame", "start-sum"]
        if result == "0":
            self.met(*names)
        elif result == "-1":
            self.not_met("start-reply", came_late(exchange) or "nothing came within 1 s")
        elif result == "-3":
            self.met(*names[:-1])
            self.not_met("start-sum", faults_of(exchange.replies()))
        else:
            self.met("start-reply")
            self._start_format(exchange)

    def _start_format(self, exchange):
        command = exchange.requests()[0]
        replies = [one for one in exchange.replies(command) if one.seconds <= command.seconds + REPLY_WINDOW_S]
        others = [one for one in replies if not one.meaning.startswith("start command answer")]
        if others and len(others) < len(replies):
            self.not_met("start-alone", f"with it came: {others[0].meaning}")
        elif others:
            self.not_met("start-frame", faults_of(others))
        else:
            self.not_met("start-pace", "it came in pieces, too late for one read")

    def transfer(self, exchange, has_gone):
        """Returns whether the board has taken all frames."""
        frames = [one for one in exchange.requests() if one.meaning.startswith(FRAMES)]
        if not frames:
            if not has_gone:
                others = [one.meaning for one in exchange.replies() if "start command" not in one.meaning]
                self.not_met("request", f"no `C` came, but {others[0]}" if others else "no `C` came")
            return False
        self.met("request")
        if has_gone:
            return False
        for frame in frames:
            self._frame(exchange, frame)
        end = next((one for one in frames if one.meaning.startswith("end frame")), None)
        if not end or any(self.findings[name].status == NOT_MET for name in ("frame-reply", "frame-accepted", "control-first")):
            return False
        self.met("frame-reply", "frame-accepted", "control-first")
        controls = [one for one in until_request(exchange, end) if asks(one)]
        if controls:
            self.met("end-reply")
        else:
            self.not_met("end-reply", faults_of(until_request(exchange, end)) or "nothing came")
        if exchange.given_up:
            self.not_met("silent-end", "bytes came again and again")
        else:
            self.met("silent-end")
        return True

    def _frame(self, exchange, frame):
        """Judges the reply to the start frame, a block or EOT."""
        if "end frame" in frame.meaning:
            return
        replies, is_last = until_request(exchange, frame), frame is exchange.requests()[-1]
        refused = any("NAK" in one.meaning or "CA" in one.meaning.split() for one in replies)
        if refused and not any("ACK" in one.meaning for one in replies):
            self.not_met("frame-accepted", f"{short(replies[0].meaning)} after {short(frame.meaning)}")
        elif is_last and any(not asks(one) for one in replies):
            self.not_met("control-first", f"{faults_of(replies)}, after {short(frame.meaning)}")
        elif is_last:
            late = f"it came {replies[0].seconds - frame.seconds:.0f} s" if replies else "nothing came"
            self.not_met("frame-reply", f"{late} after {short(frame.meaning)}")

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


def came_late(exchange):
    requests, replies = exchange.requests(), exchange.replies()
    return f"it came {replies[0].seconds - requests[0].seconds:.2f} s after the request" if requests and replies else ""


def faults_of(replies):
    faults = [fault for reply in replies for fault in reply.violations]
    return "; ".join(faults or [f"{reply.meaning}, {reply.size} bytes" for reply in replies][:2])


def until_request(exchange, request):
    """The replies up to the next frame to the board."""
    replies = []
    for event in exchange.events[exchange.events.index(request) + 1:]:
        if event.mark == "->":
            break
        if event.mark == "<-":
            replies.append(event)
    return replies


def asks(reply):
    """Whether the program takes it for the request of a frame."""
    return reply.meaning.startswith(("ACK", "'C'"))


def short(meaning):
    return meaning.partition(",")[0].partition(":")[0]
