#!/usr/bin/env bash
# Tests of `gvusb get` and `gvusb set`.
source "$(dirname "$0")/testing.sh"

gets_parameters_of_a_reader() {
    for pair in 'TIMEOUT 1000' 'timeout 1000' 'DEVICE-ID A1' 'FAMILYNAME Desk' 'INTERFACE TESK-RCI2' \
        'TYPENUMBER D-100' 'PRESENT 1' 'present 1'; do
        on_bus get A1 "${pair% *}"
        expect_status 0
        expect_output "${pair#* }"
    done
    on_bus get A1 DEVICENAME
    expect_output 'Desk reader'
}

gets_parameters_of_the_driver() {
    on_bus get driver HOTPLUG-MODE
    expect_status 0
    expect_output 1
    configure gvusb_hotplug=2
    on_bus get driver HOTPLUG-MODE
    expect_output 2
}

tells_what_cannot_be_got() {
    on_bus get A1 COLOUR
    expect_status 1
    expect_output ''
    expect_errors "gvusb: reader A1: COLOUR: GVUSB: (-1150) unknown parameter
'gvusb explain -1150' says what may be the cause."
    on_bus get driver TIMEOUT
    expect_status 1
    expect_in_errors '^gvusb: driver: TIMEOUT: GVUSB: (-1150) unknown parameter$'
    on_bus get C3 TIMEOUT
    expect_status 4
    expect_in_errors '^gvusb: reader C3: GVUSB: (-1112) no device found$'
    readers=(--reader 'id=A1,missing=10')
    on_bus get A1 TYPENUMBER
    expect_status 1
    expect_in_errors '(-1168) string descriptor read error'
}

resets_a_reader() {
    shell_on_bus '"$gvusb" set A1 RESETDEVICE && "$emulate" --send "counts 1"'
    expect_status 0
    expect_in_output 'resets=1'
    shell_on_bus 'bus "fail-reset 1 on"; "$gvusb" set A1 RESETDEVICE'
    expect_status 1
    expect_in_errors '^gvusb: reader A1: RESETDEVICE: GVUSB: (-1157) parameter not available$'
}

sets_other_parameters() {
    on_bus set A1 TIMEOUT 20
    expect_status 0
    expect_output ''
    on_bus set A1 RESETPIPE
    expect_status 0
    on_bus set driver HOTPLUG-UPDATERATE 10
    expect_status 0
    on_bus set driver HOTPLUG-SUSPEND 1
    expect_status 0
}

tells_what_cannot_be_set() {
    on_bus set A1 TIMEOUT 0
    expect_status 1
    expect_in_errors '^gvusb: reader A1: TIMEOUT: GVUSB: (-1151) parameter out of range$'
    expect_in_errors "^'gvusb explain -1151' says"
    on_bus set A1 TIMEOUT
    expect_status 1
    expect_in_errors '^gvusb: reader A1: TIMEOUT: GVUSB: (-1151) parameter out of range$'
    expect_in_errors '^No value was given; '
    on_bus set driver HOTPLUG-UPDATERATE 9
    expect_status 1
    expect_in_errors '^gvusb: driver: HOTPLUG-UPDATERATE: GVUSB: (-1151) parameter out of range$'
    on_bus set driver HOTPLUG-MODE 1
    expect_status 1
    expect_in_errors '(-1150) unknown parameter'
}

refuses_mistakes() {
    on_bus get driver
    expect_status 2
    expect_in_errors "Run 'gvusb get --help' for more."
    on_bus get drivers KEY
    expect_status 2
    expect_in_errors "'drivers' is not a device ID"
    on_bus set A1
    expect_status 2
}

says_that_others_have_the_same_id() {
    readers=(--reader 'id=A1,type=first' --reader 'id=A1,type=second')
    on_bus get A1 TYPENUMBER
    expect_status 0
    told=$output
    expect_errors 'gvusb: note: 2 readers have the device ID A1; this is the first of them.'
    case $told in
    first | second) ;; # as the bus orders them
    *) fail "the type number is '$told'" ;;
    esac
}

tells_why_a_reader_cannot_be_opened() {
    readers=(--reader 'id=A1,configuration=2+1')
    shell_on_bus 'bus "fail-configuration 1 on"; "$gvusb" info A1'
    expect_status 1
    expect_in_errors '^gvusb: reader A1: GVUSB: (-1104) The USB configuration could not be set$'
}

run_case
