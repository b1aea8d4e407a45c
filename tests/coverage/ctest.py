"""What ctest knows about the tests of a build tree."""

import json
import pathlib
import subprocess

ELF = b"\x7fELF"


def tests(build):
    """The tests that have a command, as ctest describes them."""
    description = subprocess.run(["ctest", "--show-only=json-v1"], cwd=build, check=True,
                                 stdout=subprocess.PIPE, text=True).stdout
    return [test for test in json.loads(description)["tests"] if "command" in test]


def is_program(path):
    if not path.is_file():
        return False
    with open(path, "rb") as file:
        return file.read(len(ELF)) == ELF


def programs(build):
    """Every program of the build tree that some test starts."""
    words = {pathlib.Path(word) for test in tests(build) for word in test["command"]}
    return sorted(path for path in words if path.is_relative_to(build) and is_program(path))
