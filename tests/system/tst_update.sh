# shellcheck shell=bash
# shellcheck disable=SC2034,SC2154,SC2119 # shared with run-fact and the files that it sources
# The update screen of the unchanged program, from the packages to the control board.

good_packages=(good/10-machine-base_1.2.0.ipk good/20-drink-recipes_2.0.1.ipk
    good/30-user-interface_3.1.0.ipk good/40-control-board-firmware_4.1.3.ipk)
packages_without_firmware=("${good_packages[@]:0:3}")

all_are_installed() {
    same "the installed packages" "machine-base 1.2.0
drink-recipes 2.0.1
user-interface 3.1.0
control-board-firmware 4.1.3" "$(installed_packages)"
}

stagedPackagesRunToTheEnd() {
    build_packages
    stage "$staged" "${good_packages[@]}"
    touch /root/notes.txt
    start_quick_board
    start_program_in_window
    find_window

    await_end_of_update 3
    await "the success text" shows_colour "$success_place" '#008000'
    await "the green tips" shows_colour "$tips_place" '#008000'
    all_are_installed
    same "the calls" "$(install_calls /tmp/ota/10-machine-base_1.2.0.ipk \
        /tmp/ota/20-drink-recipes_2.0.1.ipk /tmp/ota/30-user-interface_3.1.0.ipk \
        /tmp/ota/40-control-board-firmware_4.1.3.ipk)" "$(calls)"
    that "the board saw nothing wrong" stop_board
    that "the firmware arrived" cmp "$firmware_in_package" "$received_image"
    same "what is in /root" $'Hmi\nmcu' "$(ls /root)"
    that "the program stays" is_running "$program_pid"
}

packagesOnTheStickWaitForTheClick() {
    build_packages
    stage "$stick" "${good_packages[@]}"
    start_quick_board
    start_program_in_window
    find_window
    await "the screen" printed "ota================= false"
    await "an enabled button" shows_colour 200x40+540+380 '#333333'
    that "nothing is installed by itself" is_gone /run/machine/calls.log
    that "nothing is copied by itself" is_gone /tmp/ota

    press_button
    await_end_of_update 3
    await "the success text" shows_colour "$success_place" '#008000'
    all_are_installed
    that "the copies are the stick's" diff -r "$stick" "$staged"
    that "the board saw nothing wrong" stop_board
    that "the firmware arrived" cmp "$firmware_in_package" "$received_image"
}

failingPackageStopsTheRest() {
    build_packages
    stage "$staged" "${good_packages[0]}" failing/20-drink-recipes_2.0.2.ipk \
        good/30-user-interface_3.1.0.ipk
    start_quick_board
    start_program_in_window
    find_window

    await "the failure" package_ended 256 1
    await "the red texts" shows_colour "$tips_place" '#ff0000'
    same "the installed packages" "machine-base 1.2.0" "$(installed_packages)"
    same "the number of calls" 2 "$(calls | wc -l)"
    never "the board is asked" board_saw "version query"
    that "the program stays" is_running "$program_pid"
}

brokenPackageStopsTheRest() {
    build_packages
    stage "$staged" "${good_packages[0]}" broken/30-user-interface_3.1.1.ipk \
        good/40-control-board-firmware_4.1.3.ipk
    start_quick_board
    start_program

    await "the failure" package_ended 256 1
    same "the installed packages" "machine-base 1.2.0" "$(installed_packages)"
    same "the number of calls" 2 "$(calls | wc -l)"
    never "the board is asked" board_saw "version query"
}

olderPackageIsInstalledOverANewerOne() {
    build_packages
    opkg install "/tmp/packages/${good_packages[0]}"
    stage "$staged" downgrade/10-machine-base_1.1.0.ipk
    start_program

    await "the package" package_ended 0 0
    same "the installed packages" "machine-base 1.1.0" "$(installed_packages)"
}

otherBoardIsHandedOver() {
    build_packages
    stage "$staged" "${good_packages[@]}"
    touch /root/notes.txt
    start_quick_board --version-text V3.2
    export SANDBOX_HMI_STATUS=3 # any status but a negative one is a success
    start_program_in_window
    find_window

    await_end_of_update 3
    await "the success text" shows_colour "$success_place" '#008000'
    that "the main application was called" was_handed_over
    that "the text files stay" test -e /root/notes.txt
    that "the board saw nothing wrong" stop_board
    that "the board got no firmware" is_gone "$received_image"
}

versionHoldsV4Anywhere() {
    build_packages
    stage "$staged" good/40-control-board-firmware_4.1.3.ipk
    start_quick_board --version-text ABC-V41
    start_program

    await_end_of_update 0
    never "the main application is called" was_handed_over
    that "the board saw nothing wrong" stop_board
    that "the firmware arrived" cmp "$firmware_in_package" "$received_image"
}

missingFirmwareIsAnError() {
    build_packages
    stage "$staged" "${packages_without_firmware[@]}"
    start_quick_board
    start_program_in_window
    find_window

    await "the missing file" printed "[error]: Ymodem loading file failed."
    await "the red texts" shows_colour "$tips_place" '#ff0000'
    never "a success is shown" shows_colour "$success_place" '#008000'
}

withoutABoardTheWorkflowEndsSilently() {
    build_packages
    stage "$staged" "${good_packages[@]}"
    touch /root/notes.txt
    start_program_in_window
    find_window

    await "the line that does not open" \
        printed "Unable to open serial port '/dev/ttymxc1': No such file or directory"
    await "a bar of four fifths" shows_colour 20x6+1000+748 '#ffffff'
    that "the last fifth is empty" shows_colour 20x6+1080+748 '#222222'
    that "the installing texts stay" shows_colour "$tips_place" '#ffffff'
    never "a success is shown" shows_colour "$success_place" '#008000'
    all_are_installed
    that "the firmware stays" cmp "$firmware_in_package" /root/mcu/UpdataSystem.bin
    that "the text files stay" test -e /root/notes.txt
    never "the main application is called" was_handed_over
    that "the program stays" is_running "$program_pid"
}

silentBoardIsWaitedFor() {
    build_packages
    stage "$staged" good/40-control-board-firmware_4.1.3.ipk
    start_board --fault silent@version
    start_program

    await "the query for the version" board_saw "version query"
    sleep 3 # each look at the line takes 1 s; none of them may be the last
    that "the program waits" is_running "$program_pid"
    that "the firmware stays" test -e /root/mcu/UpdataSystem.bin
    never "the main application is called" was_handed_over
}

lateBoardIsWaitedFor() {
    build_packages
    stage "$staged" good/40-control-board-firmware_4.1.3.ipk
    start_board --version-text V3.2 --fault slow=2500@version
    start_program

    await_end_of_update 0
    that "the main application was called" was_handed_over
}

failedCopyInstallsUndefined() {
    build_packages
    stage "$stick" "${good_packages[@]}"
    touch /tmp/ota # a file where the folder should be
    start_program_in_window
    find_window
    await "an enabled button" shows_colour 200x40+540+380 '#333333'

    press_button
    await "the failure" package_ended 65280 0
    await "the red texts" shows_colour "$tips_place" '#ff0000'
    same "the calls" "$(install_calls undefined)" "$(calls)"
}

clickWithoutPackagesShowsTheYellowTexts() {
    start_program_in_window
    find_window
    await "an enabled button" shows_colour 200x40+540+380 '#333333'

    press_button
    await "the yellow texts" shows_colour "$tips_place" '#ffff00'
    that "no package is installed" is_gone /run/machine/calls.log
    that "the program stays" is_running "$program_pid"
}

boardImageOnTheStickUpdatesTheBoardTwice() {
    build_packages
    stage "$stick" good/40-control-board-firmware_4.1.3.ipk
    mkdir -p /mnt/update_ipk
    echo image >/mnt/update_ipk/app.bin
    start_quick_board --version-text V3.2
    start_program_in_window
    find_window
    await "an enabled button" shows_colour 200x40+540+380 '#333333'

    press_button
    await "the success text" shows_colour "$success_place" '#008000'
    that "the image is copied" cmp /mnt/update_ipk/app.bin /root/ota/app.bin
    same "the calls" "/root/Hmi -path=/root
$(install_calls /tmp/ota/40-control-board-firmware_4.1.3.ipk)
/root/Hmi -path=/root" "$(calls)"
    that "the board saw nothing wrong" stop_board
}
