"""Rehearses an update on the simulated machine; scripts/rehearse is the command.

    __main__      the command: inspects, runs, compares, reports
    options       its command line
    inspection/   what can be said of the packages before anything runs
    host          starts the simulated machine, and follows what runs there
    machine_run   the part that runs there: previous release, board, program, pictures
    screen        its display, read from memory
    comparison    what happened against what should have
    progress      what the user sees meanwhile
    report/       the page, rehearsal.json and the JUnit file; docs/rehearsal.md has their form
"""
