#!/usr/bin/env bash
# Tests of how a command finds and opens its reader.
source "$(dirname "$0")/testing.sh"

notes_other_readers_with_the_same_id() {
    readers=(--reader 'id=A1,type=first' --reader 'id=A1,type=second')
    on_bus get A1 TYPENUMBER
    expect_status 0
    told=$output
    expect_errors 'gvusb: note: 2 readers have the device ID A1; using the first one.'
    case $told in
    first | second) ;; # as the bus orders them
    *) fail "the type number is '$told'" ;;
    esac
}

says_why_a_reader_cannot_be_opened() {
    readers=(--reader 'id=A1,configuration=2+1')
    shell_on_bus 'bus "fail-configuration 1 on"; "$gvusb" info A1'
    expect_status 1
    expect_in_errors '^gvusb: reader A1: GVUSB: (-1104) The USB configuration could not be set \[GVUSB_ERR_SET_CONFIGURATION]$'
}

run_case
