"""Update sets as data: sets.toml has one row for each. Builds their packages, byte for byte the same each time.

    for row in load():
        built = row.build(folder)
        built.source      # the folder or the stick
        built.arguments   # of scripts/rehearse, beside the source

The fields of a row are those of Set; sets.toml describes packages.
"""

import dataclasses
import gzip
import bz2
import io
import lzma
import pathlib
import random
import tarfile
import tomllib

FOLDER = pathlib.Path(__file__).parent
COMPRESS = {
    "gz": lambda data: gzip.compress(data, 6, mtime=0),
    "xz": lzma.compress,
    "bz2": bz2.compress,
    "none": lambda data: data,
}
KINDS = {"symlink": tarfile.SYMTYPE, "hardlink": tarfile.LNKTYPE, "device": tarfile.CHRTYPE,
         "fifo": tarfile.FIFOTYPE, "folder": tarfile.DIRTYPE, "file": tarfile.REGTYPE}


@dataclasses.dataclass
class Built:
    source: pathlib.Path
    arguments: list


@dataclasses.dataclass
class Set:
    """A row. `put` has what lies in the folder, or on the stick, by path: the name of a package, or a table."""

    name: str
    put: dict
    verdict: str  # of the run alone: success or failure
    templates: dict
    findings: list = dataclasses.field(default_factory=list)  # all of them: level, package, part of the text
    at_fault: str = None  # the package that the run's own error names; default: one of those in `findings`
    kind: str = "folder"
    installed: dict = dataclasses.field(default_factory=dict)  # the previous release, as in `put`
    stick: bool = False  # press the button
    board_version: str = ""
    no_board: bool = False
    fault: list = dataclasses.field(default_factory=list)
    architecture: list = dataclasses.field(default_factory=list)
    room: dict = dataclasses.field(default_factory=dict)

    def build(self, folder):
        folder = pathlib.Path(folder)
        source = folder / "source"
        self._put(source, self.put)
        arguments = []
        if self.installed:
            self._put(folder / "installed", self.installed)
            arguments += ["--installed", str(folder / "installed")]
        arguments += ["--stick"] if self.stick else []
        arguments += ["--board-version", self.board_version] if self.board_version else []
        arguments += ["--no-board"] if self.no_board else []
        for option, values in (("--fault", self.fault), ("--architecture", self.architecture),
                               ("--room", [f"{place}={size}" for place, size in self.room.items()])):
            for value in values:
                arguments += [option, value]
        return Built(source, arguments)

    def _put(self, folder, files):
        folder.mkdir(parents=True)
        for name, what in files.items():
            path = folder / name
            path.parent.mkdir(parents=True, exist_ok=True)
            what = {"like": what} if isinstance(what, str) else what
            what = self.templates.get(what.get("like"), {}) | what
            if what.get("is") == "folder":
                path.mkdir()
            elif "link" in what:
                path.symlink_to(what["link"])
            else:
                path.write_bytes(content_of(what))


def load():
    """The rows of sets.toml."""
    with open(FOLDER / "sets.toml", "rb") as file:
        data = tomllib.load(file)
    return [Set(templates=data["packages"], **row) for row in data["set"]]


def content_of(what):
    """The bytes of a file: a text, noise, or a package, perhaps damaged."""
    if "text" in what:
        data = what["text"].encode()
    elif "noise" in what:
        data = random.Random(what["noise"]).randbytes(what["noise"])
    else:
        data = package(**{name: value for name, value in what.items() if name not in ("like", "cut", "flip")})
    if "flip" in what:
        at = what["flip"] % len(data)
        data = data[:at] + bytes([data[at] ^ 0xff]) + data[at + 1:]
    return data[:what.get("cut", len(data))]


def package(name="base", version="1.0", architecture="all", fields=None, without=(), files=None, scripts=None,
            entries=(), control_entries=(), firmware=None, size=None, form="ar", compression="gz",
            members=("control", "data"), script_mode=0o755, control=None):
    """The bytes of a package file.

    `files` has contents by path, `entries` special members of data.tar (path, kind, target, mode, content or `zeros`,
    `claims` for a size without the bytes, `times` for many of them), `control_entries` those of control.tar. `firmware`
    is the size of an image at root/mcu/UpdataSystem.bin. `size` is the stated Installed-Size, 0 for none; default: the
    true one. `form` is ar or tar.gz. `control` is the text of the control file.
    """
    files = {path: content.encode() for path, content in (files or {}).items()}
    if firmware is not None:
        files["root/mcu/UpdataSystem.bin"] = random.Random(firmware).randbytes(firmware)
    true = sum(map(len, files.values())) + sum(len(one.get("content", "")) + one.get("zeros", 0) for one in entries)
    stated = {"Package": name, "Version": version, "Architecture": architecture,
              "Maintainer": "Example Maintainer <maintainer@example.com>", "Description": "Example"} | (fields or {})
    size = true if size is None else size
    if size:
        stated["Installed-Size"] = str(size)
    text = control if control is not None else "".join(
        f"{key}: {value}\n" for key, value in stated.items() if key not in without)
    inside = [] if text == "" else [{"path": "./control", "content": text}]
    for script, lines in (scripts or {}).items():
        start = "" if lines.startswith("#!") else "#!/bin/sh\nset -e\n"
        inside.append({"path": f"./{script}", "content": start + lines + "\n", "mode": script_mode})
    data = [{"path": f"./{path}", "content": content} for path, content in files.items()]
    parts = {"control": _tar([*inside, *control_entries]), "data": _tar([*data, *entries])}
    ending = "" if compression == "none" else f".{compression}"
    inner = {f"{part}.tar{ending}": COMPRESS[compression](parts[part]) for part in members}
    inner = {"debian-binary": b"2.0\n"} | inner
    if form == "tar.gz":
        outer = _tar([{"path": f"./{member}", "content": content} for member, content in inner.items()])
        return gzip.compress(outer, mtime=0)
    return b"!<arch>\n" + b"".join(_ar_member(member, content) for member, content in inner.items())


def _ar_member(name, content):
    head = f"{name:<16}{0:<12}{0:<6}{0:<6}{'100644':<8}{len(content):<10}`\n".encode()
    return head + content + b"\n" * (len(content) % 2)


def _tar(entries):
    file = io.BytesIO()
    with tarfile.open(fileobj=file, mode="w", format=tarfile.GNU_FORMAT) as archive:
        for entry in entries:
            _add(archive, entry)
    return file.getvalue()


def _add(archive, entry):
    content = entry.get("content", bytes(entry.get("zeros", 0)))
    content = content.encode() if isinstance(content, str) else content
    member = tarfile.TarInfo(entry["path"])
    member.type = KINDS[entry.get("kind", "file")]
    member.mode = entry.get("mode", 0o755 if member.type == tarfile.DIRTYPE else 0o644)
    member.uname = member.gname = "root"
    member.mtime = 1577836800
    member.linkname = entry.get("target", "")
    if "claims" in entry:
        member.size = entry["claims"]
        archive.fileobj.write(member.tobuf(tarfile.GNU_FORMAT))
        archive.offset += 512
    elif "times" in entry:
        archive.fileobj.write(member.tobuf(tarfile.GNU_FORMAT) * entry["times"])
        archive.offset += 512 * entry["times"]
    else:
        member.size = len(content)
        archive.addfile(member, io.BytesIO(content))
