#!/usr/bin/env bash
# Tests of `gvusb get`.
source "$(dirname "$0")/../testing.sh"

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

reports_parameters_that_cannot_be_read() {
    on_bus get A1 COLOR
    expect_status 1
    expect_output ''
    expect_errors "gvusb: reader A1: COLOR: GVUSB: (-1150) unknown parameter [GVUSB_ERR_UNKNOWN_PARAMETER]
Run 'gvusb explain -1150' for causes and remedies."
    on_bus get driver TIMEOUT
    expect_status 1
    expect_in_errors '^gvusb: driver: TIMEOUT: GVUSB: (-1150) unknown parameter \[GVUSB_ERR_UNKNOWN_PARAMETER]$'
    on_bus get C3 TIMEOUT
    expect_status 4
    expect_in_errors '^gvusb: reader C3: GVUSB: (-1112) no device found \[GVUSB_ERR_NO_DEVICE_FOUND]$'
    readers=(--reader 'id=A1,missing=10')
    on_bus get A1 TYPENUMBER
    expect_status 1
    expect_in_errors '(-1168) string descriptor read error'
}

gets_all_parameters() {
    on_bus get A1
    expect_status 0
    expect_equal "without the handle" "$(sed 's/[0-9]*x*$/N/; s/  */ /' "$scratch/output" | tr '\n' ';')" \
        'DEVICE-ID AN;FAMILYNAME DeskN;DEVICENAME Desk readerN;INTERFACE TESK-RCIN;TYPENUMBER D-N;DEVICEHND N;TIMEOUT N;PRESENT N;'
    on_bus get driver
    expect_output 'HOTPLUG-MODE  1'
    readers=(--reader 'id=A1,missing=10')
    on_bus get A1
    expect_status 0
    expect_in_output '^TYPENUMBER  -$'
}

writes_json() {
    on_bus get A1 devicename --json
    expect_output '{
  "DEVICENAME": "Desk reader"
}'
    on_bus get driver --json
    expect_output '{
  "HOTPLUG-MODE": "1"
}'
    readers=(--reader 'id=A1,missing=10')
    on_bus get A1 --json
    expect_in_output '"DEVICE-ID": "A1",'
    expect_in_output '"TYPENUMBER": null,'
    expect_in_output '"PRESENT": "1"$'
}

rejects_invalid_command_lines() {
    on_bus get drivers KEY
    expect_status 2
    expect_in_errors "'drivers' is not a device ID"
}

run_case
