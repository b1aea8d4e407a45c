"""The program and its package, built twice. CXX chooses the compiler, QT the Qt."""

import os

from facts import output
from machine.paths import PROJECT

SOURCES = ("CMakeLists.txt", "LICENSE", "cmake", "packaging", "qml", "scripts", "src")


def package_from(copy, build, date, packages, **variables):
    """Makes the package from a copy of the project. Returns its bytes."""
    environment = os.environ | {
        "CCACHE_DISABLE": "1",  # it would give the first build's objects to the second
        **variables,
    }
    environment.pop("SOURCE_DATE_EPOCH", None)  # the build has to do without it
    copy.mkdir(parents=True)
    output("cp", "-r", *(PROJECT / source for source in SOURCES), copy)
    output("find", copy, "-exec", "touch", "-d", date, "{}", "+")
    output("cmake", "-G", "Ninja", "-S", copy, "-B", copy / build, "-DCMAKE_BUILD_TYPE=Release",
           "-DUPDATE_ASSISTANT_SIMULATOR=OFF", f"-DUPDATE_ASSISTANT_QT={os.environ['QT']}", environment=environment)
    output("cmake", "--build", copy / build, environment=environment)
    output(copy / "scripts/package", "--build", copy / build, "--output", packages,
           environment=environment | {"SOURCE_DATE_EPOCH": "1577836800"})
    package, = packages.glob("*.ipk")
    return package.read_bytes()


def foldersDatesAndSettingsLeaveNoTrace(folder):
    first = package_from(folder / "first", "build", "2001-01-01", folder / "packages")
    os.umask(0o077)
    second = package_from(folder / "in/another/second", "build/release", "2002-02-02", folder / "other-packages",
                          TZ="Asia/Shanghai", LC_ALL="C")
    assert first == second
