"""Explains what a console of the machine printed during an update, in the words of the fault table.

    from explain import Knowledge, explain

    explanation = explain(text, Knowledge.load())   # text: str, bytes, or a binary file of any size
    explanation.status                              # 0 good update, 1 none (yet), 2 none of ours
    explanation.facts()                             # all of it, as `scripts/explain --json` prints it
    report(explanation)                             # as `scripts/explain` prints it

What is known beside the console may be passed: `explain(text, knowledge, screen="updated")` leaves only
the causes after which the screen shows this ([screens] in table.toml).

known.py has the rows of the table and what can be seen of them on a console, console.py reads a console,
explanation.py compares both, report.py puts the result into words. All of it runs on Python 3.9.
"""

from .explanation import Explanation, explain
from .known import Knowledge
from .report import report

__all__ = ["Explanation", "Knowledge", "explain", "report"]
