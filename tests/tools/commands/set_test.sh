#!/usr/bin/env bash
# Tests of `gvusb set`.
source "$(dirname "$0")/../testing.sh"

resets_a_reader() {
    shell_on_bus '"$gvusb" set A1 RESETDEVICE && "$emulate" --send "counts 1"'
    expect_status 0
    expect_in_output 'resets=1'
    shell_on_bus 'bus "fail-reset 1 on"; "$gvusb" set A1 RESETDEVICE'
    expect_status 1
    expect_in_errors '^gvusb: reader A1: RESETDEVICE: GVUSB: (-1157) parameter not available \[GVUSB_ERR_PARAMETER_NOT_AVAILABLE]$'
}

clears_a_halt() {
    for pipe in in out; do
        shell_on_bus 'bus "stall 1 '$pipe'"
            "$gvusb" send A1 01; "$gvusb" set A1 RESETPIPE; echo "set: $?"; "$gvusb" send A1 01'
        expect_status 0
        expect_output 'set: 0
01'
        expect_in_errors '(-1139)'
    done
    shell_on_bus '"$gvusb" set A1 ResetPipe && "$emulate" --send "counts 1"'
    expect_in_output 'clear-halts=2 '
}

clears_no_halt_without_bulk_endpoints() {
    on_bus set B2 RESETPIPE
    expect_status 1
    expect_errors "gvusb: reader B2: it has no bulk endpoints whose halt could be cleared
To reset the reader, use 'gvusb set B2 RESETDEVICE'."
}

reports_a_halt_that_cannot_be_cleared() {
    shell_on_bus 'bus "busy 1 on"; "$gvusb" set A1 RESETPIPE'
    expect_status 1
    expect_in_errors '^gvusb: reader A1: GVUSB: (-1145) '
}

notes_that_other_settings_end_with_the_command() {
    on_bus set A1 timeout 20
    expect_status 0
    expect_output ''
    expect_errors "gvusb: note: timeout accepts this value, but the setting ends with this command. To send with another time-out, use 'gvusb send A1 --timeout 20'."
    for setting in 'HOTPLUG-UPDATERATE 10' 'HOTPLUG-SUSPEND 1'; do
        # shellcheck disable=SC2086
        on_bus set driver $setting
        expect_status 0
        expect_errors "gvusb: note: ${setting% *} accepts this value, but the setting ends with this command. Put it into /etc/gavo/gvusb.conf, or set it in the program that needs it."
    done
    on_bus set A1 RESETDEVICE
    expect_errors ''
}

reports_parameters_that_cannot_be_set() {
    on_bus set A1 TIMEOUT 0
    expect_status 1
    expect_in_errors '^gvusb: reader A1: TIMEOUT: GVUSB: (-1151) parameter out of range \[GVUSB_ERR_OUT_OF_RANGE]$'
    expect_in_errors "^Run 'gvusb explain -1151' for causes"
    on_bus set A1 TIMEOUT
    expect_status 1
    expect_in_errors '^gvusb: reader A1: TIMEOUT: GVUSB: (-1151) parameter out of range \[GVUSB_ERR_OUT_OF_RANGE]$'
    expect_in_errors '^The value is missing; '
    on_bus set driver HOTPLUG-UPDATERATE 9
    expect_status 1
    expect_in_errors '^gvusb: driver: HOTPLUG-UPDATERATE: GVUSB: (-1151) parameter out of range \[GVUSB_ERR_OUT_OF_RANGE]$'
    on_bus set driver HOTPLUG-MODE 1
    expect_status 1
    expect_in_errors '(-1150) unknown parameter'
}

writes_json() {
    on_bus set A1 TIMEOUT 20 --json
    expect_status 0
    expect_output '{
  "target": "A1",
  "key": "TIMEOUT",
  "value": "20",
  "lasting": false
}'
    on_bus set A1 RESETDEVICE --json
    expect_in_output '"value": null,'
    expect_in_output '"lasting": true$'
}

rejects_invalid_command_lines() {
    on_bus set A1
    expect_status 2
    expect_in_errors "Run 'gvusb set --help' for more."
}

run_case
