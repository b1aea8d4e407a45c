#!/usr/bin/env bash
# What the program needs of the machine, read from its file.
set -euo pipefail

if [ "${1:-}" = --help ] || [ $# -ne 2 ]; then
    echo "Usage: tst_program.sh FACT PROGRAM"
    echo "READELF is a readelf that knows the program's processor, DEB_HOST_ARCH Debian's name of the"
    echo "processor; neither is needed for this machine's own."
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

# What readelf says of the program.
elf() { # OPTION...
    "${READELF:-readelf}" --wide "$@" "$program"
}

# newest PREFIX: the newest version of a library's symbols that the program imports.
newest() {
    elf -V | grep -oE "Name: $1_[0-9.]+" | sed 's/.*_//' | sort -uV | tail -n 1
}

# field NAME OPTION: a field of the file's headers.
field() {
    elf "$2" | sed -n "s/^ *$1: *//p"
}

usesHardFloat() {
    same "the class" ELF32 "$(field Class -h)"
    same "the processor" ARM "$(field Machine -h)"
    same "the calling convention" "0x5000400, Version5 EABI, hard-float ABI" "$(field Flags -h)"
    same "where arguments of floating point go" "VFP registers" "$(field Tag_ABI_VFP_args -A)"
}

needsTheNamedLibrariesOnly() {
    local modules needed library others=()
    modules=$(named_qt '\2' | tr -d ' ')
    same "the modules in the README" Core,Gui,Network,Qml,Quick "$(tr , '\n' <<<"$modules" | sort | paste -sd,)"
    needed=$(elf -d | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
    that "Qt is among them" grep -qx libQt5Core.so.5 <<<"$needed"
    while read -r library; do
        case $library in
            libQt5*.so.5)
                library=${library#libQt5}
                [[ ,$modules, == *,${library%.so.5},* ]] || others+=("libQt5$library")
                ;;
            libstdc++.so.6 | libgcc_s.so.1) ;;
            libc.so.6 | libm.so.6 | libpthread.so.0 | ld-linux-*.so.?) ;;
            *) others+=("$library") ;;
        esac
    done <<<"$needed"
    same "other libraries" "" "${others[*]}"
    same "paths to libraries" "" "$(elf -d | grep -E 'RPATH|RUNPATH' || true)"
}

# The page on porting names the oldest C library that will do.
needsTheNamedCLibrary() {
    same "the symbols of the C library" "$(sed -nE 's/.*glibc ([0-9.]+) or newer.*/\1/p' "$project/docs/porting.md")" \
        "$(newest GLIBC)"
    # shellcheck disable=SC2016 # the marks of code
    same "those of the C++ library" "$(sed -nE 's/.*`GLIBCXX_([0-9.]+)`.*/\1/p' "$project/docs/porting.md")" \
        "$(newest GLIBCXX)"
}

# What it uses of the C library, whichever that is: look a name up in POSIX before you add it.
c_library=(
    close open read write select getpid uname
    fgets fflush fputs perror printf puts snprintf vfprintf stderr
    popen pclose system
    memcpy memmove memset strcmp strerror strlen strncpy strnlen strstr strtol
    cfsetispeed cfsetospeed tcflush tcgetattr tcsetattr
)
# Beyond POSIX: modem lines have no call of their own, older issues had usleep, and large files have
# their open by another name.
c_library+=(ioctl usleep open64 fcntl64)
# What compilers and headers add by themselves.
c_library+=(abort __cxa_atexit __cxa_finalize __errno_location __libc_start_main)

callsNothingBeyondPosix() {
    local used
    used=$(elf --dyn-syms | sed -nE 's/.* UND ([^@ ]+)@GLIBC_.*/\1/p' | sort -u)
    that "the terminal is among it" grep -qx tcsetattr <<<"$used"
    same "what else it uses" "" "$(grep -vxF "$(printf '%s\n' "${c_library[@]}")" <<<"$used" || true)"
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
    same "the versions of Qt's symbols" "Name: Qt_5" "$(elf -V | grep -oE 'Name: Qt_[^ ]+' | sort -u)"
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
