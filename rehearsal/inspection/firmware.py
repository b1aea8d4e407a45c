"""The firmware of the control board: which package brings it, and how long its transfer takes."""

import dataclasses

from . import program, scripts
from .words import error, shown, some, warning

LONG = 30 * 60  # seconds of a transfer, during which the screen stands still


@dataclasses.dataclass
class Firmware:
    """The firmware of the last package with one. `seconds` are those on a real line, the final waits included."""

    package: str
    path_in_package: str
    size: int
    sha256: str
    blocks: int
    seconds: float


def find(packages):
    """The firmware that remains when all packages are installed, or None, and the findings."""
    bringing = [package for package in packages if package.firmware]
    if not bringing:
        return None, list(_without(packages))
    findings = []
    if len(bringing) > 1:
        listed = some((one.file for one in bringing), 10)
        findings.append(warning(bringing[-1].file, f"{len(bringing)} packages bring {program.FIRMWARE}: {listed}. The "
                                f"control board gets that of the last one, {shown(bringing[-1].file)}.",
                                "Put the firmware into one package."))
    last = bringing[-1]
    facts = last.firmware
    fault = _fault(last.file, facts)
    if fault:
        return None, [*findings, fault]
    size = facts["size"]
    firmware = Firmware(last.file, facts["path"], size, facts["sha256"], program.blocks(size),
                        program.transfer_time(size))
    if firmware.seconds > LONG:
        findings.append(warning(last.file, f"{shown(last.file)}: the firmware has {size} bytes, and its transfer takes "
                                f"{firmware.seconds / 60:.0f} minutes, in which the screen does not change.",
                                "Check that it is the image of the control board."))
    return firmware, findings


def _without(packages):
    if any(scripts.brings_firmware(package) or not package.is_readable for package in packages):
        return  # it may be there
    beside = [(package.file, path) for package in packages for path in package.beside_firmware]
    if beside:
        file, path = beside[-1]
        yield error(file, f"No package brings {program.FIRMWARE}, but {shown(file)} brings {shown(path)}. The program "
                    "sends only the former, so the update of a control board with V4 in its version fails.",
                    f"Name the firmware {program.FIRMWARE_FILE}.")
    elif packages:
        yield warning("", f"No package brings the firmware of the control board, {program.FIRMWARE}, and no script "
                      "seems to write it. The update of a control board with V4 in its version fails.",
                      f"Add a package with the firmware at {program.FIRMWARE}.")


def _fault(file, facts):
    sent = {"folder": "is a folder: the program sends an empty image, and shows a success",
            "link": f"is a link to {shown(facts['target'])}, which the package has not"}.get(facts["what"])
    if not sent and facts["size"] == 0:
        sent = "is empty, and the update of a control board with V4 in its version fails"
    if not sent and facts["size"] > program.LARGEST_IMAGE:
        sent = f"is too large: the program sends at most {program.LARGEST_IMAGE} bytes"
    return sent and error(file, f"{shown(file)}: the firmware {program.FIRMWARE} {sent}.",
                          "Put the image itself into the package.")
