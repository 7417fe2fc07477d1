#!/usr/bin/env bash
# Tests of `gvusb set`.
source "$(dirname "$0")/../testing.sh"

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

reports_parameters_that_cannot_be_set() {
    on_bus set A1 TIMEOUT 0
    expect_status 1
    expect_in_errors '^gvusb: reader A1: TIMEOUT: GVUSB: (-1151) parameter out of range$'
    expect_in_errors "^Run 'gvusb explain -1151' for causes"
    on_bus set A1 TIMEOUT
    expect_status 1
    expect_in_errors '^gvusb: reader A1: TIMEOUT: GVUSB: (-1151) parameter out of range$'
    expect_in_errors '^The value is missing; '
    on_bus set driver HOTPLUG-UPDATERATE 9
    expect_status 1
    expect_in_errors '^gvusb: driver: HOTPLUG-UPDATERATE: GVUSB: (-1151) parameter out of range$'
    on_bus set driver HOTPLUG-MODE 1
    expect_status 1
    expect_in_errors '(-1150) unknown parameter'
}

rejects_invalid_command_lines() {
    on_bus set A1
    expect_status 2
    expect_in_errors "Run 'gvusb set --help' for more."
}

run_case
