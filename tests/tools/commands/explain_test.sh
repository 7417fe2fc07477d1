#!/usr/bin/env bash
# Tests of `gvusb explain`.
source "$(dirname "$0")/../testing.sh"

explains_a_code() {
    for code in -1145 1145 GVUSB_ERR_CANNOT_CLAIM cannot_claim; do
        keep "$gvusb" explain $code
        expect_status 0
        expect_equal "the first line" "$(head -n 1 "$scratch/output")" \
            'GVUSB: (-1145) interface cannot be claimed'
        expect_in_output '^Name:    GVUSB_ERR_CANNOT_CLAIM$'
        expect_in_output '^Cause:   Another program has claimed'
        expect_in_output '^Remedy:  End that program'
        [ "$(wc -L <"$scratch/output")" -le 80 ] || fail "lines are too long"
    done
    keep "$gvusb" explain 0
    expect_in_output '^GVUSB: OK$'
}

explains_a_code_that_is_never_returned() {
    keep "$gvusb" explain 1199
    expect_status 0
    expect_in_output '^GVUSB: (-1199) Internal error$'
    expect_in_output 'never returns it'
    expect_not_in_output 'Remedy'
}

explains_unknown_codes_with_the_librarys_text() {
    keep "$gvusb" explain 42
    expect_status 0
    expect_output 'GVUSB: Unknown Error: 0x2A (42)
This code is not published.'
    keep "$gvusb" explain 1198
    expect_in_output '(-1198)$'
}

explains_in_json() {
    keep "$gvusb" explain 42 --json
    expect_output '{
  "code": 42,
  "text": "GVUSB: Unknown Error: 0x2A (42)",
  "cause": null,
  "remedy": null,
  "name": null
}'
    keep "$gvusb" explain 1137 --json
    expect_in_output '"text": "GVUSB: (-1137) device is not present",'
    expect_in_output '"name": "GVUSB_ERR_NOT_PRESENT"$'
    expect_in_output '"cause": "The reader was unplugged'
    keep "$gvusb" explain --json
    expect_equal "codes" "$(grep -c '"code": ' "$scratch/output")" \
        "$("$gvusb" explain | tail -n +2 | wc -l)"
}

lists_all_codes() {
    keep "$gvusb" explain
    expect_status 0
    expect_in_output '^CODE   TEXT  *NAME$'
    expect_in_output '^-1130  GVUSB: (-1130) timeout  *GVUSB_ERR_TIMEOUT$'
}

rejects_text_that_is_not_a_code() {
    for code in x 12x 99999999999; do
        keep "$gvusb" explain $code
        expect_status 2
        expect_in_errors "'$code' is not a code"
    done
}

run_case
