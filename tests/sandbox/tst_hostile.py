"""What the reader of packages and the stand-in package manager make of packages that were made to harm.

A child process with little memory and time reads them (`tst_hostile.py FOLDER`). The same seed gives the same packages.
"""

import bz2
import gzip
import itertools
import lzma
import pathlib
import random
import re
import resource
import subprocess
import sys
import tempfile
import time
import zlib

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / "sandbox"), str(PROJECT / "tests/support")]

from facts import FORCE, opkg, same
from ipk.packagefile import PackageError, PackageFile

MEMORY = 400 << 20  # bytes that the child can have
RESIDENT = 150  # MiB of it that it can use
FILE = 1 << 20  # bytes that it can write to a file
SECONDS = 2  # of the processor, for each step with a package
ENTRIES = 1000  # that it takes of an archive
GIB = 1 << 30
CONTROL = b"Package: hostile\nVersion: 1\nArchitecture: all\n"
END = bytes(1024)
WORST = (0, 1, 511, 512, 513, -1, 0o77777777777, 0o100000000000, 1 << 31, 1 << 32, 1 << 62, (1 << 63) - 1, 1 << 63, -(1 << 63))
NAMES = (b"", b".", b"/", b"..", b"../../../tmp/out", b"/tmp/out", b"./../../x", b"a/../../../b", b"\x1b]0;owned\x07\x1b[2J",
         b"a\nb\rc", b"\xff\xfe\x80", "\u202e".encode(), b"%s%n%n", b"x" * 100, b"control/", b"control\0hidden", b"conffiles")


# ------------------------------------------------------------------ archives of any content

def header(name=b"control", size=0, kind=b"0", field=None, link=b""):
    """A header of a tar archive; `field` replaces (offset, bytes) of it, under a right checksum."""
    block = bytearray(512)
    for offset, value in ((0, name[:100]), (100, b"0000644"), (108, b"0000000"), (116, b"0000000"), (124, number(size)),
                          (136, b"00000000000"), (156, kind), (157, link[:100]), (257, b"ustar\x0000"), field or (0, b"")):
        block[offset:offset + len(value)] = value
    block[148:156] = b" " * 8
    block[148:156] = b"%06o\0 " % sum(block)
    return bytes(block)


def number(value):
    """The 12 bytes of a number in a header: octal, or binary when it is too large for that."""
    return b"%011o\0" % value if 0 <= value < 1 << 33 else b"\x80" + (value % (1 << 88)).to_bytes(11, "big")


def member(name, content, **other):
    return header(name, len(content), **other) + content + bytes(-len(content) % 512)


def pax(*records, kind=b"x"):
    lines = b"".join(b"%d %s=%s\n" % (len(key) + len(value) + 5, key, value) for key, value in records)
    return member(b"pax", lines, kind=kind)


def ar(*members):
    return b"!<arch>\n" + b"".join(
        b"%-16s%-12d%-6d%-6d%-8s%-10d`\n" % (name, 0, 0, 0, b"100644", len(content)) + content + b"\n" * (len(content) % 2)
        for name, content in members)


def squeeze(content):
    return gzip.compress(content, 1, mtime=0)


def package(control=member(b"control", CONTROL) + END, data=member(b"x", b"x") + END, outer=ar, suffix=b"gz",
            compress=squeeze):
    members = ((b"debian-binary", b"2.0\n"), (b"control.tar." + suffix, compress(control)),
               (b"data.tar." + suffix, compress(data)))
    if outer is ar:
        return ar(*members)
    return squeeze(b"".join(itertools.starmap(member, members)) + END)


def tool(*command):
    return lambda content: subprocess.run([*command, "-c"], input=content, stdout=subprocess.PIPE, check=True).stdout


COMPRESSIONS = {b"gz": squeeze, b"xz": lzma.compress, b"bz2": bz2.compress, b"lz4": tool("lz4", "-q"),
                b"zst": tool("zstd", "-q")}


def deflated(content, end=zlib.Z_FULL_FLUSH):
    deflate = zlib.compressobj(9, zlib.DEFLATED, -15)
    return deflate.compress(content) + deflate.flush(end)


ZEROS = deflated(bytes(4 << 20))


def bomb(before, mebibytes, after=b""):
    """A gzip file of some bytes, then so many MiB of zeros, which cost nothing to make."""
    return b"".join((b"\x1f\x8b\x08\0\0\0\0\0\0\x03", deflated(before), ZEROS * (mebibytes >> 2),
                     deflated(after, zlib.Z_FINISH), bytes(8)))


def with_dictionary(xz, size):
    """The xz file with another size of its dictionary: 34 is 512 MiB."""
    head = xz[12:16] + bytes([size]) + xz[17:20]
    return xz[:12] + head + zlib.crc32(head).to_bytes(4, "little") + xz[24:]


# ------------------------------------------------------------------ the child

def read_all(folder):
    """Reads, lists and extracts each package; anything but a PackageError is a failure."""
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY, MEMORY))
    resource.setrlimit(resource.RLIMIT_FSIZE, (FILE, FILE))
    refused = 0
    for path in sorted(folder.iterdir()):
        said = []
        file = PackageFile(path, lambda function, text: said.append(text), lambda text: None, data_limit=FILE)
        for step in (file.control, lambda: listed(file, "control"), lambda: listed(file, "data"),
                     lambda: file.extract("control", f"{folder}.out/control."),
                     lambda: file.extract("data", f"{folder}.out/", 0x1f)):
            print(path.name, flush=True)
            begun = time.process_time()
            try:
                step()
            except PackageError:
                refused += 1
                assert said, "a refused package has no message"
            took = time.process_time() - begun
            assert took < SECONDS, f"took {took:.1f} s"
    most = re.search(r"VmHWM:\s+(\d+)", pathlib.Path("/proc/self/status").read_text(encoding="ascii"))
    print(refused, int(most[1]) >> 10)


def listed(file, part):
    return list(itertools.islice(file.entries(part), ENTRIES))


def check(packages):
    """The child must survive the packages, by their names. Returns how many steps it refused."""
    folder = pathlib.Path(tempfile.mkdtemp())
    for name, content in packages.items():
        (folder / name).write_bytes(content)
    child = subprocess.run([sys.executable, "-B", __file__, folder], stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False)
    *read, last = child.stdout.decode().splitlines() or [""]
    assert child.returncode == 0, f"{last}: ended with {child.returncode}\n{child.stderr.decode()}"
    same(5 * len(packages), len(read))
    refused, resident = map(int, last.split())
    used = resource.getrusage(resource.RUSAGE_CHILDREN)
    print(f"{len(packages)} packages, {refused} steps refused, {resident} MiB, {used.ru_utime + used.ru_stime:.1f} s")
    assert resident < RESIDENT, f"{resident} MiB"
    return refused


# ------------------------------------------------------------------ facts

def interesting(content):
    """Offsets at which something of a package begins or ends."""
    for word in b"!<arch>\n", b"`\n", b"debian-binary", b"control.tar", b"data.tar", b"\x1f\x8b", b"\xfd7zXZ", b"BZh":
        start = content.find(word)
        while start >= 0:
            yield from (start, start + 1, start + len(word))
            start = content.find(word, start + 1)
    yield from (0, 1, len(content) - 1)


def mutated(content, dice):
    """The content with a few bytes flipped, replaced, removed or doubled."""
    content = bytearray(content)
    for _ in range(dice.choice((1, 1, 2, 5))):
        start = dice.randrange(len(content))
        length = dice.choice((1, 1, 2, 4, 12, 100))
        what = dice.randrange(6)
        if what <= 2:
            content[start] ^= 1 << dice.randrange(8)
        elif what == 3:
            content[start:start + length] = dice.choice((b"\0", b"\xff", b"7", b" ", b"\x80")) * length
        elif what == 4:
            del content[start:start + length]
            content += b"x"
        else:
            content[start:start] = content[start:start + length]
    return bytes(content)


def damagedPackagesAreReadOrRefused(_machine):
    dice = random.Random(4)
    control = member(b"./", b"", kind=b"5") + member(b"./control", CONTROL) + member(b"./postinst", b"#!/bin/sh\n") + END
    data = (member(b"./etc/", b"", kind=b"5") + member(b"./etc/x", bytes(3000)) + header(b"./l", kind=b"2", link=b"etc/x")
            + header(b"./h", kind=b"1", link=b"./etc/x") + END)
    packages = {}
    for outer, (suffix, compress) in itertools.product((ar, None), COMPRESSIONS.items()):
        whole = package(control, data, outer, suffix, compress)
        name = f"{'ar' if outer else 'tar'}-{suffix.decode()}"
        for offset in {*interesting(whole), *(dice.randrange(len(whole)) for _ in range(10))}:
            packages[f"{name}-cut-{offset}"] = whole[:offset]
        packages |= {f"{name}-{i}": mutated(whole, dice) for i in range(20)}
    for i in range(100):  # below the compression, whose checksums hide the rest
        packages[f"control-{i}"] = package(mutated(control, dice), data)
        packages[f"data-{i}"] = package(control, mutated(data, dice))
        packages[f"outer-{i}"] = squeeze(mutated(gzip.decompress(package(control, data, None)), dice))
    assert check(packages) > len(packages)


def strangeHeadersAreReadOrRefused(_machine):
    good = member(b"control", CONTROL) + END
    strange = {f"size-{i}": header(b"control", field=(124, number(size))) + good for i, size in enumerate(WORST)}
    strange |= {f"text-{i}": header(b"control", field=(offset, b"-1 %s\xff" * 2)) + good
                for i, offset in enumerate((0, 100, 108, 116, 124, 136, 157, 257, 329, 345))}
    for kind in range(256):
        strange[f"kind-{kind}"] = member(b"control", CONTROL, kind=bytes([kind])) + good
    for i, name in enumerate(NAMES):
        long = b"deep/" * 20000 + name
        strange |= {
            f"name-{i}": member(name, CONTROL) + good,
            f"link-{i}": header(b"x", kind=b"2", link=name) + header(b"control", kind=b"1", link=name) + good,
            f"folder-{i}": header(name, kind=b"5") + good,
            f"long-{i}": member(b"L", long, kind=b"L") + member(b"K", long, kind=b"K") + good,
            f"pax-{i}": pax((b"path", name), (b"linkpath", name), (b"uname", name)) + good,
            f"global-{i}": pax((b"path", name), kind=b"g") + good,
        }
    for key in b"size", b"GNU.sparse.realsize", b"GNU.sparse.size", b"GNU.sparse.numblocks", b"SCHILY.realsize", b"mtime":
        for i, value in enumerate(WORST):
            strange[f"{key.decode()}-{i}"] = pax((b"GNU.sparse.major", b"1"), (key, b"%d" % value)) + good
    strange["pax-loop"] = pax((b"path", b"x")) * 3000 + good
    strange["sparse-map"] = member(b"x", b"999999999\n" + b"1\n" * 5000, kind=b"S") + good
    strange["inside-itself"] = package(package())
    packages = {f"{name}-{part}": package(**{part: content})
                for name, content in strange.items() for part in ("control", "data")}
    whole = package()
    for i, size in enumerate((b"9999999999", b"-1        ", b"4294967296", b"abc       ", b"          ", b"0         ")):
        packages[f"ar-size-{i}"] = whole[:56] + size + whole[66:]
    for i, name in enumerate((b"//", b"/999999", b"#1/9999999999", b"#1/-1", b"/SYM64/", b"../../x", b"\xff\n\x1b", b"")):
        packages[f"ar-name-{i}"] = ar((name, b"x" * 3), (b"control.tar.gz", squeeze(good)), (b"data.tar.gz", squeeze(good)))
    check(packages)


def whatNeedsMuchMemoryIsRefused(_machine):
    packages = {f"twice-{suffix.decode()}": package(suffix=suffix, compress=lambda content, compress=compress: compress(compress(content)))
                for suffix, compress in COMPRESSIONS.items()}
    packages["dictionary"] = package(suffix=b"xz", compress=lambda content: with_dictionary(lzma.compress(content), 34))
    same(5 * len(packages), check(packages))


def bombsAreBounded(_machine):
    """Each would unpack to 4 GiB."""
    good, mebibytes = member(b"control", CONTROL) + END, 1 << 12
    sizes = {"file": header(b"control", 4 * GIB), "before": header(b"x", 4 * GIB),
             "pax": header(b"x", 4 * GIB, kind=b"x"), "long": header(b"x", 4 * GIB, kind=b"L"),
             "sparse": header(b"x", 4 * GIB, kind=b"S", field=(483, number(1))), "headers": b"", "noise": b"\1" * 512}
    packages = {}
    for name, before in sizes.items():
        huge = bomb(before, mebibytes, good)
        packages[f"control-{name}"] = ar((b"control.tar.gz", huge), (b"data.tar.gz", squeeze(good)))
        packages[f"data-{name}"] = ar((b"control.tar.gz", squeeze(good)), (b"data.tar.gz", huge))
        if name != "file":
            packages[f"outer-{name}"] = bomb(before, mebibytes, member(b"control.tar.gz", squeeze(good)) + END)
    assert check(packages) >= 2 * len(packages)


def entriesOfABombCanBeLeft(_machine):
    path = pathlib.Path("/tmp/bomb.ipk")
    path.write_bytes(ar((b"data.tar.gz", bomb(header(b"x", 4 * GIB), 1 << 12))))
    begun = time.process_time()
    same(("x", 4 * GIB), next(PackageFile(path, print, print).entries())[:3:2])
    assert time.process_time() - begun < SECONDS


def standInRefusesThemByItsWords(machine):
    """A traceback is none of them."""
    def install(name, **parts):
        path = pathlib.Path(f"/tmp/{name}.ipk")
        path.write_bytes(package(**parts))
        said = machine.run("opkg", "install", *FORCE, path)
        assert said.returncode in (0, 255) and "Traceback" not in said.stdout, f"{name}: {said.stdout}"

    for i, name in enumerate((b"", b"/", b"../../../tmp/out", b"a\nb\rc", b"\xff\xfe\x80", b"%s%n%n", b"control\0hidden")):
        install(f"names-{i}", control=member(b"control", CONTROL) + member(b"conffiles", name + b"\n/" + name) + END,
                data=member(name, b"x") + header(name, kind=b"1", link=name) + END)
        for field in b"Package", b"Version", b"Depends":
            install(f"{field.decode()}-{i}", control=member(b"control", CONTROL + field + b": " + name + b"\n") + END)
    for size in b"9" * 5000, b"-1", b"1e99", b"\xd9\xa1":
        install("size", control=member(b"control", CONTROL + b"Installed-Size: " + size + b"\n") + END)
    opkg(machine, "list-installed")


if __name__ == "__main__":
    read_all(pathlib.Path(sys.argv[1]))
