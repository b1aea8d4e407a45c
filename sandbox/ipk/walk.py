"""Reads a package file once, from its front to its end, for whoever inspects it.

    with Walk(path) as walk:
        for member in walk.members():          # of the package file itself
            for entry in walk.entries(member): # of control.tar.* or data.tar.*
                entry.path, b"".join(walk.data())

Everything is streamed. Damage says which member is damaged, and at which byte of the file.
"""

import collections
import contextlib
import ctypes
import os

from .packagefile import (_OPEN, _READ, _archive, _opened, _relative, ARCHIVE_EOF, ARCHIVE_OK, ARCHIVE_WARN,
                          BUFFER)

AR_MAGIC = b"!<arch>\n"
AR_HEADER = 60

# A member of the package file. `offset` is that of its data in an ar archive, None in a compressed one.
Member = collections.namedtuple("Member", "name offset size")
# A member of control.tar.* or data.tar.*. `path` has no "./" or "/" in front, `raw` is as it stands. `link` is the
# target of a symbolic link, `hardlink` that of a hard one, else they are empty.
Entry = collections.namedtuple("Entry", "path raw mode size link hardlink")


class Damage(Exception):
    """The package is damaged: in which member (empty: in none of them), at which byte of the file, and why."""

    def __init__(self, member, offset, why):
        super().__init__(why)
        self.member, self.offset, self.why = member, offset, why


class Walk:
    """A package file that is read once. One member and one entry at a time."""

    def __init__(self, path):
        self._path = os.fsencode(path)
        self._stack = contextlib.ExitStack()
        self._inner = None
        self._member = None

    def __enter__(self):
        with open(self._path, "rb") as file:
            self._is_ar = file.read(len(AR_MAGIC)) == AR_MAGIC
            self._size = os.fstat(file.fileno()).st_size
        self._outer = self._stack.enter_context(_opened(("ar", "tar"), ("gzip",)))
        if _archive.read_open_filename(self._outer, self._path, BUFFER) != ARCHIVE_OK:
            why = _why(self._outer)
            self._stack.close()
            raise Damage("", 0, why)
        return self

    def __exit__(self, *_):
        self._stack.close()

    def members(self):
        """Yields the members of the package file. Raises Damage."""
        while True:
            self._member = None
            entry = self._next(self._outer)
            if entry is None:
                return
            offset = _archive.read_header_position(self._outer) + AR_HEADER if self._is_ar else None
            name = os.fsdecode(_relative(_archive.entry_pathname(entry)))
            self._member = Member(name, offset, _archive.entry_size(entry))
            if self._is_ar and offset + self._member.size > self._size:
                missing = offset + self._member.size - self._size
                raise Damage(name, self._size, f"the file ends {missing} bytes too early")
            yield self._member

    def entries(self, member):
        """Yields the entries of the member, which has to be the last one of members(). Raises Damage."""
        buffer = ctypes.create_string_buffer(BUFFER)

        def read(_, _context, block):
            block[0] = ctypes.addressof(buffer)
            return _archive.read_data(self._outer, buffer, BUFFER)

        with _opened(("tar", "empty"), ("gzip", "xz", "bzip2", "lz4", "zstd")) as self._inner:
            callbacks = _OPEN(lambda *_: 0), _READ(read), _OPEN(lambda *_: 0)
            try:
                if _archive.read_open(self._inner, None, *callbacks) != ARCHIVE_OK:
                    raise self._damage()
                while True:
                    entry = self._next(self._inner)
                    if entry is None:
                        return
                    raw = _archive.entry_pathname(entry) or b""
                    yield Entry(os.fsdecode(_relative(raw)), os.fsdecode(raw), _archive.entry_mode(entry),
                                _archive.entry_size(entry), os.fsdecode(_archive.entry_symlink(entry) or b""),
                                os.fsdecode(_archive.entry_hardlink(entry) or b""))
            finally:
                self._inner = None

    def data(self):
        """Yields the bytes of the last entry, in pieces. Raises Damage."""
        buffer = ctypes.create_string_buffer(BUFFER)
        while True:
            count = _archive.read_data(self._inner, buffer, BUFFER)
            if count == 0:
                return
            if count < 0:
                raise self._damage()
            yield buffer.raw[:count]

    def _next(self, archive):
        entry = ctypes.c_void_p()
        result = _archive.read_next_header(archive, ctypes.byref(entry))
        if result == ARCHIVE_EOF:
            return None
        if result not in (ARCHIVE_OK, ARCHIVE_WARN):
            raise self._damage()
        return entry.value

    def _damage(self):
        """What is wrong, where the library has stopped reading."""
        archive = self._inner or self._outer
        name, start = "", 0
        if self._member:
            name, start = self._member.name, self._member.offset
        if self._inner and start is not None:
            offset = start + _archive.filter_bytes(self._inner, -1)
        else:
            offset = _archive.filter_bytes(self._outer, -1)
        return Damage(name, min(max(offset, 0), self._size), _why(archive))


def _why(archive):
    text = _archive.error_string(archive)
    return text.decode(errors="replace") if text else "it cannot be read"
