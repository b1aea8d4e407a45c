"""Puts an explanation into words."""

import textwrap

WIDTH = 100
MOST_FAULTS = 6  # of one remedy
MOST_STEPS = 12

SAYS = {
    "good": "GOOD: the update ended as it should.",
    "failed": "FAILED.",
    "undecided": "UNDECIDED: the console does not say how the update ended. The screen does.",
    "idle": "UNDECIDED: no update was begun. The program waited for its button.",
    "unknown": "UNKNOWN: this is not the console of an update; no line of the program is in it.",
}


def report(explanation):
    """The explanation for a reader, as one text."""
    facts = explanation.facts()
    lines = [SAYS[facts["verdict"]]]
    if facts["runs"]:
        *earlier, last = facts["runs"]
        if [screen["name"] for screen in last["screens"]] == ["idle"]:
            lines = [SAYS["idle"]]
        lines += _last_run(last, len(facts["runs"]) + facts["dropped_runs"])
        if earlier:
            lines += ["", "Earlier runs:"]
            if facts["dropped_runs"]:
                lines.append(f"  - {facts['dropped_runs']} before these")
            lines += [_item(_in_one_line(run)) for run in earlier]
    return "\n".join(lines) + "\n"


def _item(text, indent=2):
    return textwrap.fill(text, WIDTH, initial_indent=" " * indent + "- ", subsequent_indent=" " * (indent + 2),
                         break_long_words=True, break_on_hyphens=False)


def _last_run(run, count):
    which = f"the last of {count} runs" if count > 1 else "the only run"
    yield f"This is {which}, lines {run['first_line']} to {run['last_line']}. It ended at: {run['ended_at']}."
    yield ""
    yield from _screens(run["screens"])
    yield "Done:"
    steps = run["steps"] or ["nothing that the console shows"]
    if len(steps) > MOST_STEPS:
        left_out = len(steps) - MOST_STEPS
        steps = [*steps[:MOST_STEPS // 2], f"... {left_out} more ...", *steps[-MOST_STEPS // 2:]]
    yield from map(_item, steps)
    yield ""
    yield from _causes(run)
    if run["others"]:
        yield "Also on the console, as after other faults:"
        remedies = [cause["do"] for cause in run["causes"]]
        for other in run["others"]:
            do = "" if other["do"] in remedies else f". Do: {other['do']}"
            yield _item(f"line {other['line']}, {other['text']}: {'; or '.join(other['faults'])}{do}")
        yield ""
    if run["unknown"]:
        yield "Messages that nobody knows yet:"
        for message in run["unknown"]:
            times = f" ({message['times']} times)" if message["times"] > 1 else ""
            yield _item(f"line {message['line']}{times}: {message['text']}")
        if run["more_unknown"]:
            yield f"  - and {run['more_unknown']} more lines"


def _screens(screens):
    for screen in screens:
        if screen["name"] == "":
            yield "There is no screen."
            continue
        yield "The screen shows:" if screen is screens[0] else "or:"
        tips = [tip for tip in screen["tips"] if tip]
        yield from (f"    {tip}" for tip in tips or [f"nothing ({screen['name']})"])
        if "success" in screen:
            yield f"    {screen['success']}"
    yield ""


def _on_screen(screen):
    if not screen["name"]:
        return "there is no screen"
    tips = [tip for tip in screen["tips"] if tip]
    return f'the screen shows "{tips[0]}"' if tips else "the screen shows nothing"


def _causes(run):
    if not run["causes"]:
        yield "No known fault leaves such a console."
        yield ""
        return
    if not run["cause_is_known"]:
        yield "The console does not show a cause that is known. These end in the same way:"
        yield ""
    rows = sum(len(fault["rows"]) for cause in run["causes"] for fault in cause["faults"])
    if run["verdict"] == "good" and not all(cause["good"] for cause in run["causes"]):
        yield "All is well, unless one of the less likely cases below has come about, which look the same."
        yield ""
    if run["may_go_on"]:
        yield "If the console is cut off here, the update may have gone on."
        yield ""
    names = {screen["name"]: screen for screen in run["screens"]}
    said = None
    for cause in run["causes"]:
        if len(names) > 1 and cause["screen"] != said:
            said = cause["screen"]
            yield f"If {_on_screen(names[said])}:"
            yield ""
        yield textwrap.fill(f"Do: {cause['do']}", WIDTH)
        if cause["good"] and (run["verdict"] == "good" or len(run["causes"]) > 1):
            yield "  - nothing is wrong, or nothing that matters"
            yield ""
            continue
        for fault in cause["faults"][:MOST_FAULTS]:
            steps = f" ({', '.join(fault['steps'])})" if fault["steps"] else ""
            why = f". Meant so: {fault['why']}" if fault["why"] else ""
            yield _item(f"{fault['fault']}{steps}{why}")
        if len(cause["faults"]) > MOST_FAULTS:
            yield f"  - and {len(cause['faults']) - MOST_FAULTS} more (--json has all)"
        yield ""
    if rows > 1:
        yield f"The console cannot tell these {rows} cases of the fault table apart."
        yield ""


def _in_one_line(run):
    fault = run["causes"][0]["faults"][0]["fault"] if run["causes"] and run["cause_is_known"] else "cause unknown"
    return (f"lines {run['first_line']} to {run['last_line']}: {run['verdict']}, ended at: {run['ended_at']}"
            + (f"; {fault}" if run["verdict"] != "good" else ""))
