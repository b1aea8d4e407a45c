"""Where compressed data is damaged. The package manager does not compare the checksum of gzip; it is compared here."""

import bz2
import collections
import lzma
import tarfile
import zlib

STEP = 65536
MOST = 1024 * 1024  # unpacked bytes at a time
ENOUGH = 3 * 1024 ** 3  # unpacked bytes, of which the rest is not compared
MEMORY = 256 * 1024 * 1024
DECODERS = {
    "gz": lambda: zlib.decompressobj(31),
    "xz": lambda: lzma.LZMADecompressor(memlimit=MEMORY),
    "bz2": bz2.BZ2Decompressor,
}

Fault = collections.namedtuple("Fault", "offset why")


class Unpacked:
    """The unpacked data of a part of a file, in pieces. `at` is the offset behind what was read, `before` that before
    the last step. From `careful_from` on each byte is a step."""

    def __init__(self, path, start, end, compression, careful_from=None):
        self.at = self.before = start
        self._end, self._careful_from = end, end if careful_from is None else careful_from
        self._path, self._decoder = path, DECODERS[compression]()
        self._unpacked = 0

    def __iter__(self):
        """Raises EOFError, or what the decoder raises."""
        with open(self._path, "rb") as file:
            file.seek(self.at)
            while self.at < self._end and not self._decoder.eof:
                rest = self._careful_from - self.at
                data = file.read(min(STEP, rest if rest > 0 else 1, self._end - self.at))
                self.before, self.at = self.at, self.at + len(data)
                if not data:
                    break
                yield from self._unpack(data)
                if self._unpacked > ENOUGH:
                    return
        if not self._decoder.eof:
            raise EOFError("the data ends too early")

    def _unpack(self, data):
        while True:
            piece = self._decoder.decompress(data, MOST)
            self._unpacked += len(piece)
            yield piece
            data = getattr(self._decoder, "unconsumed_tail", b"")
            is_empty = not data and getattr(self._decoder, "needs_input", len(piece) < MOST)
            if is_empty or self._decoder.eof or self._unpacked > ENOUGH:
                return


def fault(path, start, end, compression):
    """The Fault in a part of a file, or None. Where the decoder notices it, that is, not always where it is."""
    unpacked = Unpacked(path, start, end, compression)
    why = _exhaust(unpacked)
    if why is None:
        return None
    unpacked = Unpacked(path, start, end, compression, unpacked.before)
    why = _exhaust(unpacked) or why
    return Fault(unpacked.at if unpacked.at == end else unpacked.before, why)


def _exhaust(unpacked):
    try:
        collections.deque(unpacked, maxlen=0)
    except (EOFError, OSError, zlib.error, lzma.LZMAError) as reason:
        return str(reason)
    return None


def member_at_fault(path, size):
    """The last member of a compressed tar file that can be seen before its damage; empty if none."""
    name = ""
    try:
        reader = _Reader(Unpacked(path, 0, size, "gz", 0))
        with tarfile.open(fileobj=reader, mode="r|", bufsize=tarfile.BLOCKSIZE) as archive:
            for member in archive:
                name = member.name
    except (tarfile.TarError, ValueError, OverflowError, zlib.error, EOFError, OSError):
        pass
    return name.removeprefix("./")


class _Reader:
    """What of the data can be read before its damage."""

    def __init__(self, unpacked):
        self._pieces, self._rest = iter(unpacked), b""

    def read(self, size):
        while len(self._rest) < size:
            try:
                self._rest += next(self._pieces)
            except (StopIteration, zlib.error, EOFError):
                break
        data, self._rest = self._rest[:size], self._rest[size:]
        return data
