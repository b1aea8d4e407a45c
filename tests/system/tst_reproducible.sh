#!/usr/bin/env bash
# Builds the program and its package twice, from copies in two folders with other dates, and compares.
set -euo pipefail

if [ "${1:-}" = --help ] || [ $# -ne 1 ]; then
    echo "Usage: tests/system/tst_reproducible.sh FOLDER"
    echo "FOLDER is made anew; CXX chooses the compiler."
    [ "${1:-}" = --help ] && exit 0
    exit 2
fi

project=$(dirname -- "$(dirname -- "$(dirname -- "$(realpath -e -- "$0")")")")
folder=$1
export CCACHE_DISABLE=1 # it would give the first build's objects to the second
unset SOURCE_DATE_EPOCH # the build has to do without it

# package_from COPY BUILD DATE: from a copy of the project, to the folder of COPY's name in packages/.
package_from() {
    local copy=$folder/$1
    mkdir -p "$copy"
    cp -r "$project"/{CMakeLists.txt,LICENSE,cmake,packaging,qml,scripts,src} "$copy/"
    find "$copy" -exec touch -d "$3" {} +
    cmake -G Ninja -S "$copy" -B "$copy/$2" -DCMAKE_BUILD_TYPE=Release -DUPDATE_ASSISTANT_SIMULATOR=OFF
    cmake --build "$copy/$2"
    SOURCE_DATE_EPOCH=1577836800 "$copy/scripts/package" --build "$copy/$2" --output "$folder/packages/$(basename "$1")"
}

rm -rf -- "$folder"
package_from first build 2001-01-01
(
    umask 077
    export TZ=Asia/Shanghai LC_ALL=C
    package_from in/another/second build/release 2002-02-02
)
cmp "$folder"/packages/first/*.ipk "$folder"/packages/second/*.ipk
sha256sum "$folder"/packages/*/*.ipk
