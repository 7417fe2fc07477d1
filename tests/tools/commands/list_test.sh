#!/usr/bin/env bash
# Tests of `gvusb list`.
source "$(dirname "$0")/../testing.sh"

shows_readers_in_a_table() {
    on_bus list
    expect_status 0
    expect_errors ''
    expect_equal "the first column" "$(cut -d' ' -f1 "$scratch/output" | paste -sd' ')" 'INDEX 0 1'
    # The order is that of the bus. A real kernel chooses the locations.
    expect_equal "the others" "$(cut -c8- "$scratch/output" | sed -E 's/usb:[0-9]+-[0-9]+ +[0-9]+ +[0-9]+$/L/; s/PATH +BUS/PATH BUS/' | sort)" \
        'A1  Desk    Desk reader  TESK-RCI2  D-100  L
B2  Gate    Gate reader  TESK-RCI2  G-200  L
ID  FAMILY  NAME         INTERFACE  TYPE   PATH BUS  ADDRESS'
}

shows_where_readers_are() {
    on_bus list
    expect_in_output '^[01]  *A1 .*  usb:1-1  1    2$'
    expect_in_output '^[01]  *B2 .*  usb:1-2  1    3$'
}

writes_json() {
    on_bus list --json --id b2
    expect_status 0
    expect_output '[
  {
    "index": 0,
    "id": "B2",
    "family": "Gate",
    "name": "Gate reader",
    "interface": "TESK-RCI2",
    "type": "G-200",
    "path": "usb:1-2",
    "bus": 1,
    "address": 3
  }
]'
}

searches() {
    for search in '--family Gate' '--id 0xB2' '--id b2'; do
        # shellcheck disable=SC2086
        on_bus list $search
        expect_status 0
        expect_in_output '^0  *B2 '
        expect_not_in_output 'A1'
    done
    on_bus list --name 'Desk reader'
    expect_in_output '^0  *A1 '
    expect_not_in_output 'B2'
}

searches_for_long_names() {
    readers=(--reader 'id=A1,family=A family name of more than twenty-five characters' --reader id=B2)
    on_bus list --family 'A family name of more than twenty-five characters'
    expect_status 0
    expect_in_output '^0  *A1 '
    expect_not_in_output B2
}

counts_readers_that_cannot_be_identified() {
    readers=(--reader id=A1 --reader id=B2 --reader 'id=C3,missing=5' --reader 'id=D4,product=9' --reader 'id=E5,vendor=1')
    for search in '' '--id A1' --json; do
        shell_on_bus 'bus "refuse 2 EACCES"; "$gvusb" list '"$search"
        expect_status 0
        expect_in_output A1
        expect_errors "gvusb: note: 2 readers on the bus could not be identified; run 'gvusb doctor' to find out why."
    done
    readers=(--reader id=A1)
    shell_on_bus 'bus "refuse 1 EACCES"; "$gvusb" list'
    expect_status 4
    expect_equal "the first line" "$(head -n 1 "$scratch/errors")" \
        "gvusb: note: 1 reader on the bus could not be identified; run 'gvusb doctor' to find out why."
}

reports_that_no_reader_matches() {
    on_bus list --family Garden
    expect_status 4
    expect_output ''
    expect_errors "gvusb: GVUSB: (-1112) no device found [GVUSB_ERR_NO_DEVICE_FOUND]
Run 'gvusb list' without a search to see all readers."
    on_bus list --family Garden --json
    expect_status 4
    expect_output '[]'
}

reports_that_there_is_no_reader() {
    readers=(--no-readers)
    on_bus list
    expect_status 4
    expect_errors "gvusb: GVUSB: (-1112) no device found [GVUSB_ERR_NO_DEVICE_FOUND]
Run 'gvusb doctor' to find out why, or 'gvusb-emulate -- gvusb list' to try virtual readers."
}

rejects_invalid_command_lines() {
    on_bus list --id B2X
    expect_status 2
    expect_in_errors "'B2X' is not a device ID"
    on_bus list --family A --name B
    expect_status 2
    expect_in_errors "excludes"
    on_bus list A1
    expect_status 2
}

shows_readers_with_the_same_id() {
    readers=(--reader 'id=A1,type=first' --reader 'id=A1,type=second')
    on_bus list
    expect_status 0
    expect_in_output '^[01]  *A1 .* first  *usb:1-1 '
    expect_in_output '^[01]  *A1 .* second  *usb:1-2 '
}

shows_readers_without_a_type_number() {
    readers=(--reader 'id=A1,missing=10')
    on_bus list
    expect_status 0
    expect_in_output '^0  *A1 .* -  *usb:1-1  *1  *2$'
    on_bus list --json
    expect_in_output '"type": null'
}

replaces_control_characters() {
    readers=(--reader "id=A1,name=$(printf 'a\033[2Jb')")
    on_bus list
    expect_in_output 'a?\[2Jb'
}

finds_names_as_they_are_shown() {
    readers=(--reader 'id=A1,name=Zürich,family=Straße' --reader "id=B2,name=$(printf 'a\033[2Jb')" --reader id=C3)
    local note="gvusb: note: '?' in a name may stand for a character that cannot be shown: texts of readers are read as ASCII."
    on_bus list --name Zürich
    expect_status 0
    expect_in_output '^0  *A1  *Stra?e  *Z?rich '
    expect_errors "gvusb: note: characters outside ASCII are read as '?', so this searches for 'Z?rich'.
$note"
    for search in '--name Z?rich' '--family Straße' '--family Stra?e'; do
        # shellcheck disable=SC2086
        on_bus list $search
        expect_in_output '^0  *A1 '
        expect_not_in_output 'B2\|C3'
    done
    on_bus list --name 'a?[2Jb' --json
    expect_in_output '"id": "B2"'
    expect_errors "$note"
    on_bus info A1
    expect_status 0
    expect_in_output '^Name  *Z?rich$'
    expect_errors "$note"
    on_bus info C3
    expect_errors ''
}

run_case
