"""What facts assert beyond `assert`, and what they have in common."""

from machine.packages import INSTALL


def same(expected, actual):
    assert expected == actual, f"\n   expected: {expected!r}\n   actual:   {actual!r}"


def install_calls(*files):
    return [f"{INSTALL} {file}" for file in files]


def start_on_screen(machine, *arguments):
    """Starts the program on a display of its own, and waits for its window."""
    machine.screen.open()
    machine.program.start(*arguments)
    machine.screen.find_window()


def start_quick_board(machine, *options):
    """The control bytes come ten at a time, as the program reads them: it goes on at once."""
    machine.board.start("--control-repeat", "10", *options)
