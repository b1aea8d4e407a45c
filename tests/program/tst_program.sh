#!/usr/bin/env bash
# What the ARM program needs of the machine, read from its file.
set -euo pipefail

if [ "${1:-}" = --help ] || [ $# -ne 2 ]; then
    echo "Usage: tst_armprogram.sh FACT PROGRAM"
    echo "READELF is a readelf that knows ARM, DEB_HOST_ARCH Debian's name of the program's processor."
    [ "${1:-}" = --help ] && exit 0
    exit 2
fi

project=$(dirname -- "$(dirname -- "$(dirname -- "$(realpath -e -- "$0")")")")
program=$(realpath -e -- "$2")
# shellcheck source=tests/support/asserts
source "$project/tests/support/asserts"

own=$(mktemp -d)
trap 'rm -rf -- "$own"' EXIT

# named_qt SED-REPLACEMENT: the README's words on Qt, \1 its oldest version and \2 its modules.
named_qt() {
    tr '\n' ' ' <"$project/README.md" |
        sed -nE "s/.*Qt ([0-9]+\.[0-9]+) or newer \(([A-Za-z, ]+)\).*/$1/p"
}

# field NAME FLAG: a field of the file's headers.
field() {
    "$READELF" "$2" "$program" | sed -n "s/^ *$1: *//p"
}

usesHardFloat() {
    same "the class" ELF32 "$(field Class -h)"
    same "the processor" ARM "$(field Machine -h)"
    same "the calling convention" "0x5000400, Version5 EABI, hard-float ABI" "$(field Flags -h)"
    same "where arguments of floating point go" "VFP registers" "$(field Tag_ABI_VFP_args -A)"
}

needsTheNamedLibrariesOnly() {
    local modules library others=()
    modules=$(named_qt '\2' | tr -d ' ')
    same "the modules in the README" Core,Gui,Network,Qml,Quick "$(tr , '\n' <<<"$modules" | sort | paste -sd,)"
    while read -r library; do
        case $library in
            libQt5*.so.5)
                library=${library#libQt5}
                [[ ,$modules, == *,${library%.so.5},* ]] || others+=("libQt5$library")
                ;;
            libstdc++.so.6 | libgcc_s.so.1) ;;
            libc.so.6 | libm.so.6 | libpthread.so.0 | ld-linux-armhf.so.3) ;;
            *) others+=("$library") ;;
        esac
    done < <("$READELF" -d "$program" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    same "other libraries" "" "${others[*]}"
    same "paths to libraries" "" "$("$READELF" -d "$program" | grep -E 'RPATH|RUNPATH' || true)"
}

# The library packages with the version in which the newest symbol came that the program imports.
newest_symbols() {
    mkdir "$own/debian"
    printf 'Source: program\n\nPackage: program\nArchitecture: any\n' >"$own/debian/control"
    (cd "$own" && dpkg-shlibdeps -O -e"$program" 2>"$own/said") || {
        cat "$own/said" >&2
        return 1
    }
}

importsNothingNewerThanTheOldestQt() {
    local oldest next needs library version
    oldest=$(named_qt '\1')
    next=${oldest%.*}.$((${oldest#*.} + 1))
    needs=$(newest_symbols | grep -oE 'libqt5[a-z0-9]+ \(>= [^)]+\)' | tr -d '()')
    same "the libraries of Qt" 5 "$(wc -l <<<"$needs")"
    while read -r library _ version; do
        that "what it imports from $library is older than $next: the newest came in $version" \
            dpkg --compare-versions "$version" lt "$next"
    done <<<"$needs"
}

"$1"
