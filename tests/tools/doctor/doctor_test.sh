#!/usr/bin/env bash
# Tests of `gvusb doctor` as a whole.
source "$(dirname "$0")/../testing.sh"

finds_no_problem() {
    shell_on_bus "$doctor"
    expect_status 0
    expect_errors ''
    expect_in_output '^ok       library         gvusb 07\.01\.00 (libusb 1\.0\.[0-9]*)$'
    expect_in_output '^ok       udev            running$'
    expect_in_output '^ok       bus 1 device 2  reader A1 (/dev/bus/usb/001/002)$'
    expect_in_output '^ok       bus 1 device 3  reader B2 (/dev/bus/usb/001/003)$'
    expect_equal "the last line" "$(tail -n 1 "$scratch/output")" 'No problems found.'
}

rejects_invalid_command_lines() {
    on_bus doctor now
    expect_status 2
    expect_in_errors "^Run 'gvusb doctor --help' for more.$"
}

run_case
