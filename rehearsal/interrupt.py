"""How a command of the project meets Ctrl-C."""

import signal


def end_without_traceback():
    """Called before the imports that take a while. become_python() in scripts/lib blocks the signal up to here, where
    Python itself would print a traceback."""
    signal.signal(signal.SIGINT, signal.SIG_DFL)
    signal.pthread_sigmask(signal.SIG_UNBLOCK, [signal.SIGINT])
