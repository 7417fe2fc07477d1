#!/usr/bin/env bash
# Tests that the library's log stays out of the tool's output and of the files that it opens.
source "$(dirname "$0")/testing.sh"

keeps_the_librarys_log_out_of_its_output() {
    configure 'gvusb_debuglevel=3 libusb_debuglevel=4'
    on_bus list --json
    expect_status 0
    expect_equal "the first character" "$(head -c 1 "$scratch/output")" '['
    expect_not_in_output 'gvusb:'
    expect_in_errors ' :: gvusb: \[init\] '
    expect_in_errors ' :: gvusb: \[exit\] '
    # With line buffering, output that is written before main() would show.
    shell_on_bus 'stdbuf -oL "$gvusb" get A1 TIMEOUT'
    expect_output 1000
    expect_in_errors ' :: gvusb: \[init\] '
}

keeps_the_log_out_of_files_that_it_opens() {
    configure 'gvusb_debuglevel=3'
    shell_on_bus '"$gvusb" get A1 TIMEOUT 2>&-; "$gvusb" send A1 02 <&- 2>&-; "$emulate" --send "frames 1"'
    expect_output '1000
02
ok 1 0x02 02'
}

keeps_the_log_out_of_a_terminal() {
    configure 'gvusb_debuglevel=3'
    in_terminal '"$gvusb" get A1 TIMEOUT 2>/dev/null' </dev/null
    expect_equal "the output" "$(tr -d '\r' <"$scratch/output")" 1000
}

run_case
