# shellcheck shell=bash
# shellcheck disable=SC2154 # shared with run-fact and the files that it sources
# The stand-ins on the machine, and the example packages.

force=(--force-downgrade --force-reinstall --force-overwrite)
root=/run/machine/root
base=/tmp/packages/good/10-machine-base_1.2.0.ipk
older_base=/tmp/packages/downgrade/10-machine-base_1.1.0.ipk

# status COMMAND...: prints its status; what it says is in /tmp/said.
status() {
    local status=0
    "$@" >/tmp/said 2>&1 || status=$?
    echo $status
}

packageIsReallyInstalled() {
    build_packages
    opkg install "${force[@]}" "$base"
    same "the database" "installed 1.2.0" "$(package_state machine-base)"
    same "the list" "machine-base - 1.2.0" "$(opkg list-installed)"
    same "its file" "machine 1.2.0" "$(cat $root/etc/machine/release)"
    never "the host's file system has it" test -e /etc/machine/release
}

scriptsRunOnTheMachine() {
    build_packages
    opkg install /tmp/packages/good/*.ipk
    same "the scripts" "control-board-firmware postinst configure
drink-recipes postinst configure
machine-base postinst configure
machine-base preinst install
user-interface postinst configure
user-interface preinst install" "$(sed 's/ *$//' $root/var/log/maintainer-scripts.log | sort)"
    that "the firmware is at its place" \
        cmp $root/usr/share/machine/firmware/UpdataSystem.bin /root/mcu/UpdataSystem.bin
    same "its size" 12000 "$(stat -c %s /root/mcu/UpdataSystem.bin)"
}

unknownOptionIsRefused() {
    build_packages
    same "the status" 255 "$(status opkg install --force-depends "$base")"
    that "the option is named" grep -q -- "unknown option --force-depends" /tmp/said
    same "an option behind the package" 255 "$(status opkg install "$base" --force-depends)"
    same "an option of the list" 255 "$(status opkg list-installed --all)"
    same "the list" "" "$(opkg list-installed)"
}

unknownVerbIsRefused() {
    same "upgrade" 255 "$(status opkg upgrade machine-base)"
    that "the verb is named" grep -q "unknown verb upgrade" /tmp/said
    same "none" 255 "$(status opkg)"
    same "no package" 255 "$(status opkg install "${force[@]}")"
}

missingFileIsRefused() {
    same "the status" 255 "$(status opkg install "${force[@]}" undefined)"
    that "the file is named" grep -q "unknown package 'undefined'" /tmp/said
}

brokenPackageIsRefused() {
    build_packages
    never "it is installed" test \
        "$(status opkg install "${force[@]}" /tmp/packages/broken/30-user-interface_3.1.1.ipk)" = 0
    same "the list" "" "$(opkg list-installed)"
}

failingScriptLeavesThePackageUnconfigured() {
    build_packages
    same "the status" 1 \
        "$(status opkg install "${force[@]}" /tmp/packages/failing/20-drink-recipes_2.0.2.ipk)"
    that "the script is heard" grep -q "the recipe database is locked" /tmp/said
    same "the database" "half-configured 2.0.2" "$(package_state drink-recipes)"
    same "the list" "" "$(opkg list-installed)"
}

downgradeNeedsItsOption() {
    build_packages
    opkg install "$base"
    opkg install "$older_base"
    same "without it" "installed 1.2.0" "$(package_state machine-base)"
    opkg install --force-downgrade "$older_base"
    same "with it" "installed 1.1.0" "$(package_state machine-base)"
    same "its file" "machine 1.1.0" "$(cat $root/etc/machine/release)"
    same "what the preinst saw" "machine 1.2.0" "$(cat $root/var/log/previous-release)"
}

times_configured() {
    grep -c '^machine-base postinst' $root/var/log/maintainer-scripts.log
}

reinstallNeedsItsOption() {
    build_packages
    opkg install "$base"
    opkg install "$base"
    same "without it" 1 "$(times_configured)"
    opkg install --force-reinstall "$base"
    same "with it" 2 "$(times_configured)"
}

overwriteNeedsItsOption() {
    build_packages
    opkg install "$base"
    mkdir -p /tmp/other/DEBIAN /tmp/other/etc/machine
    echo "another one" >/tmp/other/etc/machine/release
    printf 'Package: other\nVersion: 1\nArchitecture: all\nMaintainer: M <m@example.com>\nDescription: d\n' \
        >/tmp/other/DEBIAN/control
    dpkg-deb --root-owner-group --build /tmp/other /tmp/other.ipk
    same "without it" 1 "$(status opkg install /tmp/other.ipk)"
    same "the file" "machine 1.2.0" "$(cat $root/etc/machine/release)"
    opkg install --force-overwrite /tmp/other.ipk
    same "the file" "another one" "$(cat $root/etc/machine/release)"
}

removedPackageIsGone() {
    build_packages
    opkg install /tmp/packages/good/10-*.ipk /tmp/packages/good/30-*.ipk
    same "the status" 0 "$(status opkg remove user-interface)"
    same "the list" "machine-base - 1.2.0" "$(opkg list-installed)"
    that "its file is gone" is_gone $root/usr/bin/machine-ui
    that "the other's file stays" test -e $root/etc/machine/release
    same "one that is not installed" 0 "$(status opkg remove user-interface)"
    same "an option" 255 "$(status opkg remove --force-depends machine-base)"
    same "none" 255 "$(status opkg remove)"
}

foreignPackageNeedsItsArchitecture() {
    local foreign=s390x
    mkdir -p /tmp/foreign/DEBIAN
    printf 'Package: foreign\nVersion: 1\nArchitecture: %s\nMaintainer: M <m@example.com>\nDescription: d\n' \
        $foreign >/tmp/foreign/DEBIAN/control
    dpkg-deb --root-owner-group --build /tmp/foreign /tmp/foreign.ipk
    same "without it" 1 "$(status opkg install "${force[@]}" /tmp/foreign.ipk)"
    same "the list" "" "$(opkg list-installed)"
    export SANDBOX_ARCHITECTURE=$foreign
    opkg install "${force[@]}" /tmp/foreign.ipk
    same "with it" "foreign - 1" "$(opkg list-installed)"
    same "its state" "installed 1" "$(package_state foreign)"
    opkg remove foreign
    same "when removed" "" "$(opkg list-installed)"
    SANDBOX_ARCHITECTURE=$(dpkg --print-architecture) opkg list-installed
}

everyCallIsRecorded() {
    same "a call" 255 "$(status opkg install "${force[@]}" undefined)"
    same "another" 255 "$(status opkg upgrade x)"
    same "the records" "$(install_calls undefined)
opkg upgrade x" "$(calls)"
}

handOverIsRecorded() {
    /root/Hmi -path=/root
    same "the status" 9 "$(SANDBOX_HMI_STATUS=9 status /root/Hmi)"
    same "the records" "/root/Hmi -path=/root
/root/Hmi " "$(calls)"
}

examplePackagesAreReproducible() {
    build_packages
    (
        umask 077
        TZ=Asia/Shanghai "$project/sandbox/packages" /tmp/again
    )
    that "the bytes are the same" diff -r /tmp/packages /tmp/again
    local package
    for package in /tmp/packages/good/*.ipk; do
        same "dates in $package" 2020-01-01 \
            "$(dpkg-deb --contents "$package" | awk '{ print $4 }' | sort -u)"
    done
}
