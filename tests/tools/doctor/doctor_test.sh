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

writes_json() {
    readers=(--reader 'id=A1,product=9' --reader 'id=B2,missing=3')
    shell_on_bus "$doctor --json"
    expect_status 1
    expect_errors ''
    expect_equal "the first finding" "$(tr -d '\n' <"$scratch/output" | sed 's/  */ /g; s/ (libusb.*//')" \
        '{ "findings": [ { "severity": "ok", "topic": "library", "text": "gvusb 07.01.00'
    for severity in note problem; do
        expect_equal "findings with $severity" "$(grep -c "\"severity\": \"$severity\"" "$scratch/output")" 1
    done
    expect_in_output '"remedy": \[$'
    expect_in_output '^  "problems": 1$'
}

rejects_invalid_command_lines() {
    on_bus doctor now
    expect_status 2
    expect_in_errors "^Run 'gvusb doctor --help' for more.$"
}

run_case
