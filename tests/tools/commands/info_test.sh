#!/usr/bin/env bash
# Tests of `gvusb info`.
source "$(dirname "$0")/../testing.sh"

shows_one_reader() {
    on_bus info 0xa1
    expect_status 0
    expect_errors ''
    expect_in_output '^Device ID       A1$'
    expect_in_output '^Family          Desk$'
    expect_in_output '^Name            Desk reader$'
    expect_in_output '^Interface       TESK-RCI2$'
    expect_in_output '^Type number     D-100$'
    expect_in_output '^Device handle   [1-9][0-9]*$'
    expect_in_output '^Time-out in ms  1000$'
    expect_in_output '^USB path        usb:[0-9]*-[0-9]*$'
    expect_in_output '^USB bus         [0-9]*$'
    expect_in_output '^USB address     [0-9]*$'
    on_bus info A1 --json
    expect_in_output '"type": "D-100",'
    expect_in_output '"timeout": 1000,$'
}

shows_a_reader_without_a_type_number() {
    readers=(--reader 'id=A1,missing=10')
    on_bus info A1
    expect_status 0
    expect_in_output '^Type number     -$'
    on_bus info A1 --json
    expect_in_output '"type": null,'
}

shows_where_the_reader_is() {
    on_bus info B2 --json
    expect_equal "the location" "$(tail -n 4 "$scratch/output" | tr -d ' \n')" '"path":"usb:1-2","bus":1,"address":3}'
}

run_case
