# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154,SC2119 # shared with run-fact and the files that it sources
# Starts of the unchanged program: the pid file, and the mode that the argument chooses.

pid_file=/tmp/ota.pid

pid_file_has() {
    [ "$(cat "$pid_file")" = "$1" ]
}

screen_is_up() {
    printed "ota================="
}

firstStartRecordsItsPid() {
    start_program
    await "the screen" screen_is_up
    same "the pid file" "$program_pid" "$(cat "$pid_file")"
    never "something is killed" printed "enter kill"
}

secondStartEndsTheFirst() {
    local first
    start_program
    first=$program_pid
    await "the first screen" screen_is_up
    : >"$program_log"
    start_program
    await "the second screen" screen_is_up
    that "the killing is announced" printed "enter kill"
    local status=0
    wait "$first" || status=$?
    same "the first's status" 137 "$status"
    that "the second runs" is_running "$program_pid"
    same "the pid file" "$program_pid" "$(cat "$pid_file")"
}

shorterPidKeepsTheOldTail() {
    printf 999999999 >"$pid_file" # nobody's
    start_program
    await "the screen" screen_is_up
    local tail=999999999
    same "the pid file" "$program_pid${tail:${#program_pid}}" "$(cat "$pid_file")"
    that "the killing is announced" printed "enter kill"
}

pidFileOutlivesTheProgram() {
    start_program
    await "the screen" screen_is_up
    local pid=$program_pid
    stop_program
    same "the pid file" "$pid" "$(cat "$pid_file")"
}

folderInPlaceOfThePidFileIsLeftAlone() {
    mkdir "$pid_file"
    start_program
    await "the screen" screen_is_up
    never "something is killed" printed "enter kill"
    same "what is in the folder" "" "$(ls -A "$pid_file")"
}

garbageInThePidFileEndsTheOwnGroup() {
    echo nobody >"$pid_file"
    local status=0
    setsid "${emulator[@]}" "$program" >"$program_log" 2>&1 || status=$? # in a group without this script
    same "the program's status" 137 "$status"
    that "the killing is announced" printed "enter kill"
}

# status_picture FILE ARG...: the status screen of these arguments.
status_picture() {
    local file=$1
    shift
    start_program "$@"
    await "the status screen" painted "$file"
    stop_program
}

# Whether the display shows anything, and twice the same.
painted() {
    import -silent -window root "$1"
    import -silent -window root /tmp/again.png
    [ "$(identify -format %k "$1")" -gt 1 ] && [ "$(signature "$1")" = "$(signature /tmp/again.png)" ]
}

signature() {
    identify -format '%#' "$1"
}

argumentChoosesTheStatusScreen() {
    build_packages
    stage "$staged" good/10-machine-base_1.2.0.ipk
    start_display
    export QT_QPA_PLATFORM=xcb

    local whole=1280x800+0+0
    status_picture /tmp/waiting.png 0000
    that "the texts are white" has_colour /tmp/waiting.png $whole '#ffffff'
    never "a text is green" has_colour /tmp/waiting.png $whole '#008000'

    status_picture /tmp/success.png 2
    that "the texts are green" has_colour /tmp/success.png $whole '#008000'
    never "a text is white" has_colour /tmp/success.png $whole '#ffffff'

    status_picture /tmp/other.png 22
    same "any other mode" "$(signature /tmp/waiting.png)" "$(signature /tmp/other.png)"
    status_picture /tmp/two.png 2 0000
    same "the second argument is ignored" "$(signature /tmp/success.png)" "$(signature /tmp/two.png)"
    that "nothing is installed" is_gone /run/machine/calls.log
}

# The window counts in pixels of 96 an inch, the display has twice as many.
screenGrowsWithTheFinenessOfTheDisplay() {
    start_display
    export QT_QPA_PLATFORM=xcb QT_FONT_DPI=192
    start_program
    await "the window" has_window
    same "its size" 1200x1200 "$(xdotool getwindowgeometry "$window" | sed -n 's/^ *Geometry: //p')"
}
