"""Reads package files (.ipk) as the package manager does, with libarchive.

A package is an ar archive, or a gzip-compressed tar archive, of two more archives: control.tar.* and
data.tar.*, compressed by gzip, xz, bzip2, lz4 or zstd. Everything is streamed: memory does not grow with
the package. Nothing is trusted: a damaged package gives a message and an exception, never more.
"""

import collections
import contextlib
import ctypes
import os

COMPRESSIONS = ("gz", "xz", "bz2", "lz4", "zst")
BUFFER = 32768
CONTROL_LIMIT = 1024 * 1024  # bytes of a control file
# Owner, permissions and times as the package says; a file that is there is removed first.
AS_PACKAGED = 0x01 | 0x02 | 0x04 | 0x08 | 0x10

ARCHIVE_OK, ARCHIVE_EOF, ARCHIVE_WARN = 0, 1, -20
_pointer, _text, _number, _size = ctypes.c_void_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_ssize_t
_OPEN = ctypes.CFUNCTYPE(_number, _pointer, _pointer)
_READ = ctypes.CFUNCTYPE(_size, _pointer, _pointer, ctypes.POINTER(_pointer))
_FUNCTIONS = {  # result, arguments
    "errno": (_number, _pointer),
    "error_string": (_text, _pointer),
    "entry_hardlink": (_text, _pointer),
    "entry_mode": (ctypes.c_uint, _pointer),
    "entry_pathname": (_text, _pointer),
    "entry_set_hardlink": (None, _pointer, _text),
    "entry_set_pathname": (None, _pointer, _text),
    "entry_size": (ctypes.c_int64, _pointer),
    "entry_symlink": (_text, _pointer),
    "filter_bytes": (ctypes.c_int64, _pointer, _number),
    "read_data": (_size, _pointer, _pointer, ctypes.c_size_t),
    "read_extract2": (_number, _pointer, _pointer, _pointer),
    "read_free": (_number, _pointer),
    "read_header_position": (ctypes.c_int64, _pointer),
    "read_new": (_pointer,),
    "read_next_header": (_number, _pointer, ctypes.POINTER(_pointer)),
    "read_open": (_number, _pointer, _pointer, _OPEN, _READ, _OPEN),
    "read_open_filename": (_number, _pointer, _text, ctypes.c_size_t),
    "write_disk_new": (_pointer,),
    "write_disk_set_options": (_number, _pointer, _number),
    "write_disk_set_standard_lookup": (_number, _pointer),
    "write_free": (_number, _pointer),
} | {f"read_support_{what}": (_number, _pointer) for what in (
    "filter_bzip2", "filter_gzip", "filter_lz4", "filter_xz", "filter_zstd",
    "format_ar", "format_empty", "format_tar")}


class _Library:
    """libarchive, with the names of its functions as above."""

    def __init__(self):
        library = ctypes.CDLL("libarchive.so.13")
        for name, (result, *arguments) in _FUNCTIONS.items():
            function = getattr(library, f"archive_{name}")
            function.restype, function.argtypes = result, arguments
            setattr(self, name, function)


_archive = _Library()


class PackageError(Exception):
    """The package is damaged. What is wrong has been reported."""


# A member of control.tar.* or data.tar.*. The path has no "./" or "/" in front; the link is the target of a symbolic
# link, else empty.
Entry = collections.namedtuple("Entry", "path mode size link")


class PackageFile:
    """A package file at a path.

    Messages go to report(function, text), with the names and the words of the package manager; the warnings, which
    do not stop it, to warn(text).
    """

    def __init__(self, path, report, warn):
        self.path = str(path)
        self._report = report
        self._warn = warn

    def control(self):
        """The bytes of the control file. Raises PackageError."""
        with self._open("control", "pkg_extract_control_file_to_stream") as archive:
            while True:
                entry = self._next(archive)
                if entry is None:
                    break
                if _relative(_archive.entry_pathname(entry)) == b"control":
                    return self._data(archive)
        self._report("pkg_extract_control_file_to_stream",
                     f"Failed to extract control file from package '{self.path}'.")
        raise PackageError

    def entries(self, part="data"):
        """Yields the entries of the part, "control" or "data". Raises PackageError."""
        with self._open(part, "pkg_extract_data_file_names_to_stream") as archive:
            while True:
                entry = self._next(archive, may_end=True)
                if entry is None:
                    return
                yield Entry(os.fsdecode(_relative(_archive.entry_pathname(entry))), _archive.entry_mode(entry),
                            _archive.entry_size(entry), os.fsdecode(_archive.entry_symlink(entry) or b""))

    def extract(self, part, prefix, flags=0):
        """Writes the members of the part to paths that begin with `prefix`. Returns their bytes in all. A write that
        fails, for lack of room too, is a warning and goes on. Raises PackageError."""
        size = 0
        function = {"control": "pkg_extract_control_files_to_dir_with_prefix",
                    "data": "pkg_extract_data_files_to_dir"}[part]
        disk = _archive.write_disk_new()
        try:
            _archive.write_disk_set_options(disk, flags)
            _archive.write_disk_set_standard_lookup(disk)
            with self._open(part, function) as archive:
                while True:
                    entry = self._next(archive, may_end=True)
                    if entry is None:
                        return size
                    if _place(entry, os.fsencode(prefix)):
                        self._extract_entry(archive, entry, disk)
                        size += _archive.entry_size(entry)
        finally:
            _archive.write_free(disk)

    def _extract_entry(self, archive, entry, disk):
        result = _archive.read_extract2(archive, entry, disk)
        if result == ARCHIVE_OK:
            return
        path = os.fsdecode(_archive.entry_pathname(entry))
        if result == ARCHIVE_WARN:
            self._warn(f"Warning when extracting archive entry '{path}': {_why(archive)}")
            return
        self._report("extract_entry", f"Failed to extract archive entry '{path}': {_why(archive)}")
        raise PackageError

    def _data(self, archive):
        """The bytes of the entry. Raises PackageError."""
        data, buffer = b"", ctypes.create_string_buffer(BUFFER)
        while len(data) <= CONTROL_LIMIT:
            count = _archive.read_data(archive, buffer, BUFFER)
            if count == 0:
                return data
            if count < 0:
                self._report("read_data", f"Failed to read data from archive: {_why(archive)}")
                raise PackageError
            data += buffer.raw[:count]
        self._report("read_data", "Failed to read data from archive: it is too large")
        raise PackageError

    def _next(self, archive, may_end=False):
        """The next entry, or None: at the end, or after a fault unless the archive `may_end`."""
        entry = ctypes.c_void_p()
        result = _archive.read_next_header(archive, ctypes.byref(entry))
        if result == ARCHIVE_EOF:
            return None
        if result == ARCHIVE_WARN:
            self._warn(f"Warning when reading ar archive header: {_why(archive)}")
        elif result != ARCHIVE_OK:
            self._report("read_header", f"Failed to read archive header: {_why(archive)}")
            if may_end:
                raise PackageError
            return None
        return entry.value

    @contextlib.contextmanager
    def _open(self, part, function):
        """The archive of the part. Its compression is found by its name, one after the other."""
        with contextlib.ExitStack() as stack:
            for compression in COMPRESSIONS:
                archive = self._open_inner(f"{part}.tar.{compression}".encode(), stack)
                if archive:
                    yield archive
                    return
            self._report(function, f"Failed to extract {part}.tar.* from package '{self.path}'.")
            raise PackageError

    def _open_inner(self, name, stack):
        outer = stack.enter_context(_opened(("ar", "tar"), ("gzip",)))
        if _archive.read_open_filename(outer, os.fsencode(self.path), BUFFER) != ARCHIVE_OK:
            self._report("open_outer", f"Failed to open package '{self.path}': {_why(outer)}")
            return None
        while True:
            entry = self._next(outer)
            if entry is None:
                return None
            if _relative(_archive.entry_pathname(entry)) == name:
                break
        buffer = ctypes.create_string_buffer(BUFFER)

        def read(_, _context, block):
            block[0] = ctypes.addressof(buffer)
            return _archive.read_data(outer, buffer, BUFFER)

        callbacks = (_OPEN(lambda *_: 0), _READ(read), _OPEN(lambda *_: 0))
        stack.callback(lambda _: None, callbacks)  # they must outlive the archive that calls them
        inner = stack.enter_context(_opened(("tar", "empty"), ("gzip", "xz", "bzip2", "lz4", "zstd")))
        if _archive.read_open(inner, None, *callbacks) != ARCHIVE_OK:
            self._report("open_inner", f"Failed to open inner archive: {_why(inner)}")
            return None
        return inner


@contextlib.contextmanager
def _opened(formats, filters):
    archive = _archive.read_new()
    try:
        for name in formats:
            getattr(_archive, f"read_support_format_{name}")(archive)
        for name in filters:
            getattr(_archive, f"read_support_filter_{name}")(archive)
        yield archive
    finally:
        _archive.read_free(archive)


def _why(archive):
    text = _archive.error_string(archive)
    return f"{text.decode(errors='replace') if text else '(null)'} (errno={_archive.errno(archive)})"


def _relative(path):
    """The path without what leads to the root; empty for the root itself."""
    path = path or b""
    while path.startswith(b"./"):
        path = path[2:]
    path = path.lstrip(b"/")
    return b"" if path == b"." else path


def _place(entry, prefix):
    """Puts the entry below the prefix. Returns whether there is anything to write."""
    path = _relative(_archive.entry_pathname(entry))
    if not path:
        return False
    _archive.entry_set_pathname(entry, prefix + path)
    link = _archive.entry_hardlink(entry)
    if link:
        if not _relative(link):
            return False
        _archive.entry_set_hardlink(entry, prefix + _relative(link))
    return True
