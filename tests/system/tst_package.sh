# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154,SC2119,SC2120 # shared with run-fact and the files that it sources
# The program's package: what arrives, its start script, and the program that installs itself.

force=(--force-downgrade --force-reinstall --force-overwrite)
root=/run/machine/root
build=${program%/src/update-assistant}
plain=$(echo "$build"/tests/system/packages/plain/*.ipk)
revised=$(echo "$build"/tests/system/packages/revised/*.ipk)
version=$(sed -n 's/^ *VERSION \([0-9.]*\)$/\1/p' "$project/CMakeLists.txt")
installed_program=$root/usr/bin/update-assistant
start_script=$root/usr/bin/update-assistant-start

# The package may be for another processor than this machine's own.
SANDBOX_ARCHITECTURE=$(dpkg-deb --field "$plain" Architecture)
export SANDBOX_ARCHITECTURE

state() {
    package_state update-assistant
}

files() {
    (cd $root && find . -path ./var -prune -o -type f -printf '%m %P\n' | sort -k 2)
}

screen_is_up() {
    printed "ota================="
}

filesArriveAtTheirPlaces() {
    opkg install "${force[@]}" "$plain"
    same "the database" "installed $version" "$(state)"
    same "the files" "755 usr/bin/update-assistant
755 usr/bin/update-assistant-start
644 usr/share/doc/update-assistant/copyright
755 usr/share/doc/update-assistant/examples/update-assistant.init
644 usr/share/doc/update-assistant/examples/update-assistant.service" "$(files)"
    that "the licence is the project's" cmp "$project/LICENSE" $root/usr/share/doc/update-assistant/copyright
    that "the program has no symbols" \
        test "$(stat -c %s $installed_program)" -lt "$(stat -c %s "$program")"
}

# What every opkg can read, and nothing that it would have to look up or run.
packageIsPlain() {
    same "its members" "debian-binary
control.tar.gz
data.tar.gz" "$(ar t "$plain")"
    same "its fields" "Package: update-assistant
Version: $version
Architecture: $SANDBOX_ARCHITECTURE
Maintainer: Example Maintainer <maintainer@example.com>
Section: utils
Priority: optional
Description: On-device software update with control-board firmware transfer" "$(dpkg-deb --field "$plain")"
    same "its control files" "./ ./control" "$(dpkg-deb --ctrl-tarfile "$plain" | tar -t | paste -sd' ')"
    same "its name" "update-assistant_${version}_$SANDBOX_ARCHITECTURE.ipk" "$(basename "$plain")"
    same "owners and dates" "root/root 2030-01-01" \
        "$(dpkg-deb --contents "$plain" | awk '{ print $2, $4 }' | sort -u)"
}

isReinstalledDowngradedAndRemoved() {
    build_packages
    opkg install "${force[@]}" /tmp/packages/good/10-*.ipk "$plain"
    same "when installed" "installed $version" "$(state)"
    rm $installed_program
    opkg install "${force[@]}" "$plain"
    that "the program is back when reinstalled" test -x $installed_program
    opkg install "${force[@]}" "$revised"
    same "when upgraded" "installed $version-1" "$(state)"
    opkg install "${force[@]}" "$plain"
    same "when downgraded" "installed $version" "$(state)"
    opkg remove update-assistant
    same "what is still installed" "machine-base - 1.2.0" "$(opkg list-installed)"
    same "the files" "644 etc/machine/active-release
644 etc/machine/release
644 etc/machine/settings.ini" "$(files)"
}

# started_with [NAME=VALUE...]: what the start script gives to the program beside it.
started_with() {
    mkdir -p /tmp/bin
    cp "$project/packaging/update-assistant-start" /tmp/bin/
    # shellcheck disable=SC2016 # expanded when it runs
    printf '#!/bin/sh\nenv | grep -E "^(QT_|HOME=)" | sort\necho "arguments: $*"\n' >/tmp/bin/update-assistant
    chmod +x /tmp/bin/update-assistant
    env -i PATH="$PATH" UPDATE_ASSISTANT_CONSOLE=/nowhere/console "$@" \
        sh /tmp/bin/update-assistant-start 2 'two words'
}

largest_font() { # FOLDER
    find -L "$1" -maxdepth 3 -name '*.[ot]t[cf]' -printf '%s\n' | sort -rn | head -n 1
}

startScriptSetsWhatTheDisplayNeeds() {
    same "with nothing set" "HOME=/root
QT_QPA_FONTDIR=/fonts
QT_QPA_PLATFORM=linuxfb
QT_QUICK_BACKEND=software
arguments: 2 two words" "$(started_with QT_QPA_FONTDIR=/fonts)"
    same "with OpenGL" "HOME=/root
QT_QPA_FONTDIR=/fonts
QT_QPA_PLATFORM=eglfs
arguments: 2 two words" "$(started_with QT_QPA_FONTDIR=/fonts QT_QPA_PLATFORM=eglfs)"
    same "with all set" "HOME=/home
QT_QPA_FONTDIR=/fonts
QT_QPA_PLATFORM=linuxfb:size=800x480
QT_QUICK_BACKEND=other
arguments: 2 two words" "$(started_with HOME=/home QT_QPA_FONTDIR=/fonts \
        QT_QPA_PLATFORM=linuxfb:size=800x480 QT_QUICK_BACKEND=other)"
    that "the home that an init has is none" grep -qx HOME=/root <<<"$(started_with HOME=/)"
    local folder
    folder=$(started_with | sed -n 's/^QT_QPA_FONTDIR=//p')
    that "the fonts of the machine are found" compgen -G "$folder/*.[ot]t[cf]"
    same "the largest font there" "$(largest_font /usr/share/fonts)" "$(largest_font "$folder")"
}

startScriptWritesToTheConsole() {
    started_with >/tmp/expected
    that "without a console the caller sees it" grep -q ^arguments: /tmp/expected
    started_with UPDATE_ASSISTANT_CONSOLE=/tmp/console >/tmp/said 2>&1
    same "what the caller sees" "" "$(cat /tmp/said)"
    that "the console has it all" diff /tmp/expected /tmp/console
}

# The installed start script. It starts what lies beside it: under an emulator that is, at another
# place with a link to the script, the installed program in the emulator's hands.
installed_start_script() {
    if [ ${#emulator[@]} -eq 0 ]; then
        echo $start_script
        return
    fi
    local bin=/run/machine/emulated
    mkdir -p $bin
    ln -sf $start_script $bin/
    printf '#!/bin/sh\nexec %s "$@"\n' "${emulator[*]} $installed_program" >$bin/update-assistant
    chmod +x $bin/update-assistant
    echo $bin/update-assistant-start
}

# The packaged program by its start script.
start_installed() {
    local program
    program=$(installed_start_script)
    local emulator=() # the script is no program of another processor
    UPDATE_ASSISTANT_CONSOLE=$program_log start_program "$@"
}

runs_from_the_package() { # PID
    tr '\0' '\n' <"/proc/$1/cmdline" | grep -qx $installed_program
}

startScriptStartsTheInstalledProgram() {
    opkg install "${force[@]}" "$plain"
    start_installed
    await "the screen" screen_is_up
    that "it is the installed one" runs_from_the_package "$program_pid"
    same "the pid file" "$program_pid" "$(cat /tmp/ota.pid)"
}

# quoted TEXT: in the messages and in the page about what is missing.
quoted() {
    grep -qF -- "$1" "$program_log" && grep -qF -- "$1" "$project/docs/porting.md"
}

# ends_by_abort NAME=VALUE...: the start script, with these in its environment.
ends_by_abort() {
    local script status=0
    script=$(installed_start_script)
    env -u QT_QPA_PLATFORM UPDATE_ASSISTANT_CONSOLE="$program_log" "$@" "$script" \
        >>"$program_log" 2>&1 || status=$?
    same "the status" 134 "$status"
}

missingDisplayIsSaid() {
    opkg install "${force[@]}" "$plain"
    ends_by_abort
    that "the frame buffer is missed" quoted 'linuxfb: Failed to initialize screen'
    ends_by_abort QT_QPA_PLATFORM_PLUGIN_PATH=/nowhere QT_QPA_PLATFORM=none
    that "the plugin is missed" quoted 'Could not find the Qt platform plugin'
}

programUpdatesItselfFromTheStick() {
    opkg install "${force[@]}" "$plain"
    mkdir -p "$stick"
    cp "$revised" "$stick/"
    start_display
    export QT_QPA_PLATFORM=xcb
    start_installed
    find_window
    await "an enabled button" shows_colour 200x40+540+380 '#333333'
    local first=$program_pid inode status=0
    inode=$(stat -c %i $installed_program)

    press_button
    await "the package" package_ended 0 0
    same "the calls" "$(install_calls "$plain" "/tmp/ota/$(basename "$revised")")" "$(calls)"
    same "the database" "installed $version-1" "$(state)"
    never "the program's file is the old one" test "$(stat -c %i $installed_program)" = "$inode"
    that "the first instance still runs" is_running "$first"

    : >"$program_log"
    start_installed
    await "the second screen" screen_is_up
    that "the killing is announced" printed "enter kill"
    never "the first still runs" is_running "$first"
    wait "$first" || status=$?
    same "the first's status" 137 "$status"
    that "the second is the installed one" runs_from_the_package "$program_pid"
    same "the pid file" "$program_pid" "$(cat /tmp/ota.pid)"
}

unitStartsTheStartScript() {
    opkg install "${force[@]}" "$plain"
    that "it is the command" grep -qx 'ExecStart=/usr/bin/update-assistant-start' \
        $root/usr/share/doc/update-assistant/examples/update-assistant.service
}

# The init script, with the path to where packages lie on this machine.
init() { # WORD
    sed "s,/usr/bin/update-assistant-start,$(installed_start_script)," \
        $root/usr/share/doc/update-assistant/examples/update-assistant.init >/tmp/init
    UPDATE_ASSISTANT_CONSOLE=$program_log sh /tmp/init "$1"
}

initScriptStartsTheProgram() {
    local first
    opkg install "${force[@]}" "$plain"
    init start
    await "the screen" screen_is_up
    first=$(cat /tmp/ota.pid)
    that "it is the installed one" runs_from_the_package "$first"
    init stop
    that "it is not stopped" is_running "$first"

    : >"$program_log"
    init restart
    await "the next screen" screen_is_up
    never "the first still runs" is_running "$first"
    never "it takes any word" init hurry
}
