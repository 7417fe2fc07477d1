#!/usr/bin/env bash
# Tests of how a command finds and opens its reader.
source "$(dirname "$0")/testing.sh"

notes_other_readers_with_the_same_id() {
    readers=(--reader 'id=A1,type=first' --reader 'id=A1,type=second')
    on_bus get A1 TYPENUMBER
    expect_status 0
    told=$output
    expect_errors 'gvusb: note: 2 readers have the device ID A1; using the first one. '"'gvusb list' shows the USB paths by which to choose another."
    case $told in
    first | second) ;; # as the bus orders them
    *) fail "the type number is '$told'" ;;
    esac
}

opens_a_reader_by_its_path() {
    readers=(--reader 'id=A1,type=first' --reader 'id=A1,type=second' --reader 'id=B2,bus=2')
    for pair in 'usb:1-1 first' 'usb:1-2 second'; do
        on_bus get "${pair% *}" TYPENUMBER
        expect_status 0
        expect_output "${pair#* }"
        expect_errors ''
    done
    on_bus send usb:2-3 01
    expect_output 01
    on_bus info usb:2-3
    expect_in_output '^Device ID       B2$'
    on_bus info usb:1-3
    expect_status 4
    expect_in_errors '^gvusb: reader usb:1-3: GVUSB: (-1112) no device found \[GVUSB_ERR_NO_DEVICE_FOUND]$'
    for path in usb: usb:1 usb:1- usb:1-2. usb:a-1 usb:1-2.3.4.5.6.7.8.9; do
        on_bus info $path
        expect_status 2
        expect_in_errors "'$path' is not a device ID (1 to 8 hexadecimal digits) or a USB path such as usb:1-2\.3"
    done
}

says_why_a_reader_cannot_be_opened() {
    readers=(--reader 'id=A1,configuration=2+1')
    shell_on_bus 'bus "fail-configuration 1 on"; "$gvusb" info A1'
    expect_status 1
    expect_in_errors '^gvusb: reader A1: GVUSB: (-1104) The USB configuration could not be set \[GVUSB_ERR_SET_CONFIGURATION]$'
}

run_case
