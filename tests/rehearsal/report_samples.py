"""Facts of rehearsals that the tests of the report are made with."""

import shutil

PICTURE = "docs/success.png"
STAGES = [("idle", "The packages wait", 1.2), ("installing", "A package is installed", 4.9),
          ("control-board", "The control board is updated", 9.8), ("success", "The end", 14.2)]
FILES = ["10-machine-base_1.2.0.ipk", "20-drink-recipes_2.0.1.ipk", "30-user-interface_3.1.0.ipk",
         "40-control-board-firmware_4.1.3.ipk"]
VERSIONS = [{"name": "Update Assistant", "version": "2.3.3"}, {"name": "Qt", "version": "5.15.8"},
            {"name": "opkg (stand-in)", "version": "0.6.1"}, {"name": "Debian", "version": "12.12"}]


def _pictures(project, folder, stages):
    (folder / "pictures").mkdir()
    for name, _, _ in stages:
        shutil.copy(project / PICTURE, folder / f"pictures/{name}.png")
    return [{"name": name, "title": title, "at": at, "file": f"pictures/{name}.png"} for name, title, at in stages]


def _package(file, version, previous="", status="installed", seconds=2.1, size=184_320):
    name = file[3:].partition("_")[0]
    return {"file": file, "name": name, "version": version, "previous": previous, "status": status,
            "architecture": "all", "size": size, "installed_size": 3 * size, "seconds": seconds}


def _lane(lane, *entries):
    return [{"lane": lane, "from": start, "to": end, "label": label, "state": state}
            for start, end, label, state in entries]


def good(project, folder):
    blocks = [[10.3 + 0.008 * i, "nak" if i in (70, 180) else "ok"] for i in range(257)]
    serial = _lane("serial line", (9.5, 9.7, "version query", "good"), (9.7, 10.3, "start command", "wait"),
                   (10.3, 12.4, "firmware transfer", "good"), (12.4, 14, "final waits", "wait"))
    serial[2]["blocks"] = blocks
    return {
        "format": 1, "verdict": "success",
        "findings": [{"level": "warning", "package": FILES[1],
                      "text": "The package does not state its Installed-Size. On a full disk a file would be cut off, "
                              "and the screen would show the success all the same.",
                      "do": "State Installed-Size, in bytes, in the control file."}],
        "order": FILES,
        "packages": [_package(FILES[0], "1.2.0", "1.1.0"), _package(FILES[1], "2.0.1", "2.0.1"),
                     _package(FILES[2], "3.1.0", "3.0.4", size=24_117_248, seconds=2.9),
                     _package(FILES[3], "4.1.3", size=301_056, seconds=0.4)],
        "firmware": {"package": FILES[3], "size": 262_144, "seconds": 38.4, "blocks": 257},
        "source": "/home/builder/release-3.1/update_ipk", "kind": "folder",
        "options": {"--board-version": "V4.1.3", "--architecture": ["arm", "cortexa9"], "--stick": True},
        "started": "2026-11-22T10:00:00Z", "seconds": 15.3, "cause": None,
        "pictures": _pictures(project, folder, STAGES),
        "timeline": [*_lane("packages", (1.8, 3.9, FILES[0], "good"), (3.9, 6, FILES[1], "good"),
                            (6, 8.9, FILES[2], "good"), (8.9, 9.3, FILES[3], "good")),
                     *serial,
                     *_lane("screen", (0, 1.8, "idle", "wait"), (1.8, 14, "installing", "good"),
                            (14, 15.3, "success", "good"))],
        "console": ["qml: start", *[f"Configuring package {number}." for number in range(40)],
                    "qml: result: 0  index: 3 "],
        "transcript": ["  9.512 > 55 aa 01 00 00 00 01", "  9.530 < 55 aa 41 56 34 2e 31 2e 33"],
        "versions": VERSIONS,
    }


def failed(project, folder):
    text = "The package is cut short: the member data.tar.xz ends at byte 81 920 of 120 000."
    do = "Copy the package again, and compare it with the one that you have built."
    facts = good(project, folder)
    return facts | {
        "verdict": "failure",
        "findings": [*facts["findings"], {"level": "error", "package": FILES[2], "text": text, "do": do},
                     {"level": "error", "package": "",
                      "text": "The control board would not be updated, because the update ends before it.",
                      "do": ""}],
        "packages": [facts["packages"][0], facts["packages"][1],
                     facts["packages"][2] | {"status": "failed", "previous": "3.0.4", "seconds": 0.2},
                     facts["packages"][3] | {"status": "not tried", "seconds": None}],
        "firmware": {"package": FILES[3], "size": 262_144, "seconds": 38.4, "blocks": 257},
        "seconds": 8.1,
        "cause": {"seen": "The screen says “Update Fail”, in red.",
                  "why": "The last 40 bytes of a package are wrong, or it was cut short while it was copied.",
                  "do": "The third package in the list is faulty. Put a good copy of it on the stick, alone or under a "
                        "name that sorts first. Empty /tmp/ota, then start the program again.",
                  "rows": ["package-cut-short", "package-bad-end"]},
        "pictures": [*facts["pictures"][:2],
                     {"name": "failed", "title": "The end", "at": 6.2, "file": "pictures/not-there.png"}],
        "timeline": [*_lane("packages", (1.8, 3.9, FILES[0], "good"), (3.9, 6, FILES[1], "good"),
                            (6, 6.2, FILES[2], "bad")),
                     *_lane("screen", (0, 1.8, "idle", "wait"), (1.8, 6.2, "installing", "good"),
                            (6.2, 8.1, "package failed", "bad"))],
        "console": ["pkg_extract_data_file_names_to_stream: Failed to extract data.tar.* from package",
                    "qml: result: 65280  index: 2 "],
        "transcript": [],
    }


HOSTILE = ["<script>window.owned=1;document.title='owned'</script>.ipk",
           "\"><img src=x onerror=\"window.owned=1\">.ipk",
           "</title></style></pre></svg><svg onload=window.owned=1>",
           "javascript:window.owned=1", "{{ 7 * 7 }}{% raw %}", "]]><x>&amp;&lt;",
           "\x1b[31mred\x07\x00\x08\r\n\t\x7f\x85\x9b", "gpj.\u202ekpi.ipk \u2066\u200b\u200f\ufeff", "byte \udcff, half \ud800",
           "שלום.ipk", "Z" + "\u0301\u0489\u20dd" * 200 + "lgo", "\u3164\u2800\uffff\U000e0041\ue000", "升级.ipk", "--option",
           "a" * 255, "W" * 250, "x y" * 900, "%s%n\\x1b", " ", "\u2028\u2029"]


def hostile(project, folder):
    """Each text of the facts is one of HOSTILE."""
    facts = failed(project, folder)
    number = 0

    def spoiled(value, name=""):
        nonlocal number
        if isinstance(value, dict):
            return {key: spoiled(entry, key) for key, entry in value.items()}
        if isinstance(value, list):
            return [spoiled(entry, name) for entry in value]
        if not isinstance(value, str) or name in ("level", "lane", "state", "status", "verdict", "started"):
            return value
        number += 1
        return HOSTILE[number % len(HOSTILE)]

    for key in sorted(facts.keys() - {"verdict", "options"}):
        facts[key] = spoiled(facts[key], key)
    facts["source"] = HOSTILE[2]
    facts["options"] = {"--board-version": HOSTILE[0], HOSTILE[6]: [HOSTILE[7], HOSTILE[8]]}
    facts["order"] = HOSTILE
    facts["packages"] = [_package(name, name, name, status) | {"name": name, "architecture": name}
                         for name, status in zip(HOSTILE, ["installed", "failed", "not tried", "<b>"] * 5)]
    facts["findings"] = [{"level": level, "package": name, "text": name, "do": name}
                         for name in HOSTILE for level in ("warning", "error")]
    facts["pictures"] = [{"name": name, "title": name, "at": 1, "file": file} for name, file in zip(
        HOSTILE, ["pictures/idle.png", "../../../etc/passwd", "/etc/hostname", "\x00", "pictures", "http://x.invalid/a.png"])]
    facts["timeline"] = [{"lane": lane, "from": at, "to": at + 1, "label": name, "state": state}
                         for at, (lane, name, state) in enumerate(zip(
                             ["packages", "serial line", "screen", "<lane>"] * 5, HOSTILE,
                             ["good", "bad", "wait", "\"><b>"] * 5))]
    facts["console"] = facts["transcript"] = [*HOSTILE, "z" * 100_000, "", "\u202e\x1b[2J" * 10_000]
    return facts


def huge(project, folder):
    facts = good(project, folder)
    files = [f"{number:03}-{'recipes-of-the-world' if number % 7 else 'user-interface-translations-' + 'and-more-' * 6}"
             f"_{number}.0.1.ipk" for number in range(300)]
    packages = [_package(file, f"{number}.0.1", "1.0" if number % 2 else "", "installed", 0.1 + number % 9 / 10,
                         1_000_000) for number, file in enumerate(files)]
    ends = []
    now = 2.0
    for package in packages:
        ends.append((now, now + package["seconds"], package["file"], "good"))
        now += package["seconds"]
    packages[151]["status"] = "failed"
    blocks = [[now + 5 + 0.087 * number, "ok" if number % 401 else "nak"] for number in range(5000)]
    end = blocks[-1][0] + 12
    serial = _lane("serial line", (now, now + 0.2, "version query", "good"), (now + 0.2, now + 5, "start command", "wait"),
                   (now + 5, end - 12, "firmware transfer", "good"), (end - 12, end, "final waits", "wait"))
    serial[2]["blocks"] = blocks
    return facts | {
        "findings": [{"level": "warning", "package": file, "text": facts["findings"][0]["text"],
                      "do": facts["findings"][0]["do"]} for file in files[:200]] +
                    [{"level": "error" if number == 40 else "warning", "package": file,
                      "text": f"The dependency on machine-base (>= {number}) is not met.",
                      "do": "Bring the package, under a name that sorts before."} for number, file in enumerate(files[200:260])],
        "order": files, "packages": packages,
        "firmware": {"package": files[-1], "size": 5_119_000, "seconds": 447.2, "blocks": 5000}, "seconds": end + 2,
        "timeline": [*_lane("packages", *ends), *serial,
                     *_lane("screen", (0, 2, "idle", "wait"), (2, end, "installing", "good"), (end, end + 2, "success", "good"))],
        "console": [f"{number} Configuring package {number}." for number in range(4001)],
        "transcript": [f"{number:10.3f} > 02 {number % 256:02x} " + "1a " * 120 for number in range(4001)],
    }


def empty(project, folder):
    """The least that facts may have."""
    del project, folder
    return {"format": 1, "verdict": "failure", "findings": [], "order": [], "packages": [], "firmware": None}


ALL = {"good": good, "failed": failed, "hostile": hostile, "huge": huge, "empty": empty}
