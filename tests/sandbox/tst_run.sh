#!/usr/bin/env bash
# The private machine, seen from the host.
set -euo pipefail

if [ "${1:-}" = --help ] || [ $# -ne 1 ]; then
    echo "Usage: tst_run.sh FACT"
    [ "${1:-}" = --help ] && exit 0
    exit 2
fi

project=$(dirname -- "$(dirname -- "$(dirname -- "$(realpath -e -- "$0")")")")
sandbox=$project/sandbox/run
# shellcheck source=tests/support/asserts
source "$project/tests/support/asserts"

own=$(mktemp -d /tmp/tst_run.XXXXXX) # hidden on the machine, unless it is shown there
trap 'rm -rf -- "$own"' EXIT

skip() {
    echo "skipped: $*"
    exit 77
}

# status COMMAND...: prints its status; what it says is in $own/said.
status() {
    local status=0
    "$@" >"$own/said" 2>&1 || status=$?
    echo $status
}

says() {
    grep -qF -- "$1" "$own/said" || {
        cat "$own/said" >&2
        return 1
    }
}

exitStatusIsTheCommands() {
    same "success" 0 "$(status "$sandbox" true)"
    same "failure" 7 "$(status "$sandbox" -- sh -c 'exit 7')"
    same "killed" 137 "$(status "$sandbox" sh -c 'kill -9 $$')"
}

ownFaultsAre125() {
    same "no command" 125 "$(status "$sandbox")"
    same "unknown option" 125 "$(status "$sandbox" --magic true)"
    that "the option is named" says "unknown option --magic"
    same "option without its value" 125 "$(status "$sandbox" --state)"
    same "folder that is not there" 125 "$(status "$sandbox" --bind "$own/none" true)"
    same "unknown package manager" 125 "$(status "$sandbox" --opkg apt true)"
    same "command that is not there" 125 "$(status "$sandbox" "$own/none")"
}

userIsZero() {
    same "the user" 0 "$("$sandbox" id -u)"
    same "the group" 0 "$("$sandbox" id -g)"
    same "the mark" 1 "$("$sandbox" printenv UPDATE_ASSISTANT_SANDBOX)"
}

foldersAreTheMachinesOwn() {
    touch "$own/of-the-host"
    local name=${own##*/} folder
    for folder in /tmp /root /mnt /run /dev; do
        that "$folder is writable" "$sandbox" sh -c "touch '$folder/$name.inside'"
        never "$folder of the host is written" test -e "$folder/$name.inside"
    done
    never "the host's /tmp is visible" "$sandbox" test -e "$own/of-the-host"
    same "what is in /root" Hmi "$("$sandbox" ls /root)"
    same "the own pseudo-terminals" ptmx "$("$sandbox" ls /dev/pts)"
}

hostIsReadOnly() {
    local name=${own##*/} folder
    for folder in /etc /usr /var/lib "$project"; do
        never "$folder is writable" "$sandbox" sh -c "touch '$folder/$name' 2>/dev/null"
    done
}

bindIsWritable() {
    "$sandbox" --bind "$own" sh -c "echo inside >'$own/file'"
    same "the file" inside "$(cat "$own/file")"
}

bindInAShownFolderIsWritable() {
    mkdir "$own/build"
    "$sandbox" --bind "$own/build" --show "$own" sh -c "echo inside >'$own/build/file'"
    same "the file" inside "$(cat "$own/build/file")"
}

showIsReadOnly() {
    echo host >"$own/file"
    same "the file" host "$("$sandbox" --show "$own/file" cat "$own/file")"
    never "it is writable" "$sandbox" --show "$own/file" sh -c "echo inside >'$own/file'" 2>/dev/null
    same "the file" host "$(cat "$own/file")"
}

stateIsKept() {
    "$project/sandbox/packages" "$own/packages"
    "$sandbox" --state "$own/state" --show "$own/packages" \
        opkg install "$own/packages/good/10-machine-base_1.2.0.ipk"
    same "the packages" "machine-base - 1.2.0" "$("$sandbox" --state "$own/state" opkg list-installed)"
    same "the packages of another machine" "" "$("$sandbox" opkg list-installed)"
    that "the root is the host's to read" test -f "$own/state/root/etc/machine/release"
    same "the calls" 2 "$(grep -c ^opkg "$own/state/calls.log")"
}

smallFolderGetsFull() {
    same "what fits" 8192 "$("$sandbox" --small /tmp=8192 sh -c \
        'head -c 20000 /dev/zero >/tmp/file 2>/dev/null; stat --format=%s /tmp/file')"
    same "the status without a size" 125 "$(status "$sandbox" --small /tmp true)"
}

readOnlyFolderIsNotWritten() {
    echo host >"$own/file"
    same "what is shown in it" host "$("$sandbox" --read-only /tmp --show "$own/file" cat "$own/file")"
    never "it is writable" "$sandbox" --read-only /tmp sh -c 'touch /tmp/file 2>/dev/null'
    never "a folder in it is writable" "$sandbox" --read-only /tmp/ota sh -c 'touch /tmp/ota/file 2>/dev/null'
    that "what is beside it is" "$sandbox" --read-only /tmp/ota touch /tmp/file
}

projectUnderTmpIsVisible() {
    mkdir "$own/project"
    cp -r "$project/sandbox" "$own/project/"
    touch "$own/project/file"
    that "the project is there" "$own/project/sandbox/run" test -e "$own/project/file"
    same "its stand-in" "$own/project/sandbox/bin/opkg" \
        "$("$own/project/sandbox/run" sh -c 'command -v opkg')"
    touch "$own/beside"
    never "what is beside it is there" "$own/project/sandbox/run" test -e "$own/beside"
}

buildTreeOfTheCommandIsVisible() {
    mkdir -p "$own/build/tests"
    touch "$own/build/CMakeCache.txt"
    printf '#!/bin/sh\n[ -e "%s" ]\n' "$own/build/CMakeCache.txt" >"$own/build/tests/program"
    chmod +x "$own/build/tests/program"
    that "the tree is there" "$sandbox" "$own/build/tests/program"
}

relativeCommandIsFound() {
    mkdir "$own/bin"
    printf '#!/bin/sh\necho found\n' >"$own/bin/program"
    chmod +x "$own/bin/program"
    cd "$own"
    same "what it prints" found "$("$sandbox" bin/program)"
}

plainUserInstallsPackages() {
    [ "$(id -u)" -eq 0 ] || skip "this is a plain user already: every other fact tests it"
    local as_nobody=(setpriv --reuid 65534 --regid 65534 --clear-groups)
    "${as_nobody[@]}" test -r "$sandbox" || skip "a plain user cannot read the project"
    "$project/sandbox/packages" "$own/packages"
    chmod 755 "$own"
    same "the user" 0 "$("${as_nobody[@]}" "$sandbox" id -u)"
    same "the package" "machine-base - 1.2.0" "$("${as_nobody[@]}" "$sandbox" --show "$own/packages" sh -c \
        "opkg install '$own/packages/good/10-machine-base_1.2.0.ipk' >&2; opkg list-installed")"
}

displayIsUsable() {
    local cookie display server
    cookie=$(printf '%032d' 7)
    export XAUTHORITY=$own/cookies
    touch "$XAUTHORITY"
    mkfifo "$own/display"
    xauth -q -f "$XAUTHORITY" add :0 . "$cookie" # the number is not known yet, the cookie is
    Xvfb -displayfd 3 -screen 0 320x200x24 -nolisten tcp -auth "$XAUTHORITY" \
        3>"$own/display" 2>/dev/null &
    server=$!
    read -r display <"$own/display"
    xauth -q -f "$XAUTHORITY" add ":$display" . "$cookie"
    local geometry
    geometry=$(DISPLAY=:$display "$sandbox" xdotool getdisplaygeometry) || true
    kill "$server"
    same "the display" "320 200" "$geometry"
}

runs_on_host() {
    grep -qsF "$1" /proc/[0-9]*/cmdline
}

machineEndsWithItsRunner() {
    local runner seconds=98765$RANDOM
    mkfifo "$own/started"
    "$sandbox" --bind "$own" sh -c "echo yes >'$own/started'; exec sleep $seconds" &
    runner=$!
    cat "$own/started" >/dev/null
    that "it runs before" runs_on_host "$seconds"
    kill "$runner"
    wait "$runner" || true
    while runs_on_host "$seconds"; do # a hang is ended by ctest
        sleep 0.05
    done
}

# Tools that the runner needs, in a folder of their own.
few_tools() {
    local tool
    mkdir "$own/bin"
    for tool in bash dirname realpath env mkdir cat; do
        ln -s "$(command -v "$tool")" "$own/bin/"
    done
}

missingBubblewrapIsSaid() {
    few_tools
    same "the status" 125 "$(PATH=$own/bin status "$sandbox" cat)"
    that "the package is named" says "install the package bubblewrap"
}

forbiddenNamespacesAreSaid() {
    few_tools
    printf '#!/bin/sh\necho "No permissions to create new namespace" >&2\nexit 1\n' >"$own/bin/bwrap"
    chmod +x "$own/bin/bwrap"
    ln -s /bin/sh "$own/bin/sh"
    same "the status" 125 "$(PATH=$own/bin status "$sandbox" cat)"
    that "the reason is told" says "No permissions to create new namespace"
}

missingRealOpkgIsSaid() {
    ! command -v opkg >/dev/null || skip "this host has an opkg"
    same "the status" 125 "$(status "$sandbox" --opkg real true)"
    that "the reason is told" says "this host has no opkg"
}

realOpkgGetsThePrivateRoot() {
    mkdir "$own/bin"
    printf '#!/bin/sh\necho "real: $*"\n' >"$own/bin/opkg"
    chmod +x "$own/bin/opkg"
    same "the call" "real: --offline-root /run/machine/root --add-arch all:1 install a.ipk" \
        "$(PATH=$own/bin:$PATH "$sandbox" --state "$own/state" --show "$own/bin" --opkg real opkg install a.ipk)"
    same "the record" "opkg install a.ipk" "$(cat "$own/state/calls.log")"
}

"$1"
