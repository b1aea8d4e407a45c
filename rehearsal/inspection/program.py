"""What the program does, read from its sources: command lines, places, and the waits of the serial line."""

import pathlib
import re

PROJECT = pathlib.Path(__file__).resolve().parents[2]


def _stated(file, expression):
    """The text that the group of the expression has in a source file."""
    found = re.search(expression, (PROJECT / file).read_text(encoding="utf-8"))
    if not found:
        raise LookupError(f"{file} does not say: {expression}")
    return found[1]


def _number(file, name):
    return int(_stated(file, rf"\b{name}(?: =|\{{) *(\d+)"))


SCREEN = "qml/main.qml"
INSTALL = _stated(SCREEN, r'threadExe\("(opkg install [^"]*)"')
STAGED_PATTERN = _stated(SCREEN, r'getIpkList\("(/tmp/[^"]*)"')
STICK_PATTERN = _stated(SCREEN, r'getIpkList\("(/mnt/[^"]*\.ipk)"')
IMAGE_PATTERN = _stated(SCREEN, r'getIpkList\("(/mnt/[^"]*\.bin)"')
IMAGE = pathlib.PurePath(_stated(SCREEN, r'exe\("cp (/mnt/\S*\.bin) ')).name
NO_PACKAGE = _stated(SCREEN, r'qsTr\("(File ipk [^"]*)"')
STAGED = STAGED_PATTERN.rpartition("/")[0] + "/"
STICK_FOLDER = pathlib.PurePath(STICK_PATTERN).parent.name  # on the stick; that of IMAGE_PATTERN is the same

PIECE = _number("src/fileio_files.cpp", "kPieceSize")
FIRMWARE_FOLDER = _stated("src/paths.h", r'kFirmwareDir\[\] = "([^"]*)"')
FIRMWARE_FILE = _stated("src/paths.h", r'kFirmwareFile\[\] = "([^"]*)"')
FIRMWARE = FIRMWARE_FOLDER + FIRMWARE_FILE

# The serial line. Times in seconds.
BAUD = int(_stated("src/paths.h", r'kBoardBaud\[\] = "(\d+)"'))
BITS = 10  # of a byte on the line: start bit, 8 data bits, stop bit
BLOCK = _number("src/serial/cymodem.cpp", "kLargePayload")
SMALL_BLOCK = _number("src/serial/cymodem.cpp", "kSmallPayload")
FRAME = _number("src/serial/cymodem.cpp", "kHeadSize") + _number("src/serial/cymodem.cpp", "kCrcSize")
ANSWER_PAUSE = _number("src/fileio_board.cpp", "kAnswerPauseUs") / 1e6
IDLE_PASSES = _number("src/serial/serialport.cpp", "kIdlePasses")
TIMER_SLACK = 50e-6  # by which Linux lets a wait of a process be late
PASS = _number("src/serial/serialport.cpp", "kPassUs") / 1e6 + TIMER_SLACK
SILENT_READS = _number("src/serial/ymodemtransfer.cpp", "kSilentReads")
START_COMMAND = int(_stated("src/serial/boardframes.h", r"kUpdateStart = boardFrame<(\d+)>"))
LARGEST_IMAGE = 2 ** 31 - 1  # its size is an int

# What a board does, as far as it is known: the simulated one waits so long before it asks for the start frame.
BOOT_DELAY = _number("simulator/options.h", "bootDelay") / 1e3


def commands(name):
    """The command lines by which the program installs what the listing says of a package file, as the shell gets them.

    The listing is read in pieces, as Latin-1, and the commands are written as UTF-8.
    """
    lines = (STAGED.encode() + name).split(b"\n")
    pieces = []
    for line in lines:
        line += b"\n"
        pieces += [line[at:at + PIECE - 1].removesuffix(b"\n") for at in range(0, len(line), PIECE - 1)]
    return [f"{INSTALL}{piece.decode('latin-1')}" for piece in pieces]


def blocks(size):
    """The data blocks of an image. A size that is a multiple of a block's is followed by one of padding."""
    return size // BLOCK + 1


def transfer_time(size):
    """Seconds from the start command to the success on a line of the real speed, with a board that replies at once."""
    byte = BITS / BAUD
    rest_of_read = (IDLE_PASSES - 1) * PASS  # after its first byte a read waits for more
    small, large = ((FRAME + payload) * byte for payload in (SMALL_BLOCK, BLOCK))
    asked = 2 * START_COMMAND * byte + BOOT_DELAY + byte
    first_read = max(ANSWER_PAUSE, (START_COMMAND + 1) * byte) + rest_of_read  # of the reply to the start command
    replies = blocks(size) + 3  # to start frame, blocks, EOT and end frame
    frames = 2 * small + blocks(size) * large + byte
    silence = SILENT_READS * IDLE_PASSES * PASS
    return max(asked, first_read) + rest_of_read + frames + replies * (byte + rest_of_read) + silence
