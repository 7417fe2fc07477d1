#!/usr/bin/env bash
# Tests of what all commands share: help, versions, mistakes, and an output that the library's log does not reach. And
# of `gvusb explain`.
source "$(dirname "$0")/testing.sh"

commands='list info get set send monitor explain doctor'

helps() {
    keep "$gvusb" --help
    expect_status 0
    expect_errors ''
    for command in $commands; do
        expect_in_output "^  $command "
        keep "$gvusb" "$command" --help
        expect_status 0
        expect_in_output "^Usage: gvusb $command"
        expect_in_output '^EXIT STATUS$'
        for exit_status in 0 1 2 3 4; do
            expect_in_output "^  $exit_status  "
        done
        [ "$(wc -L <"$scratch/output")" -le 110 ] || fail "lines of $command --help are too long"
        keep "$gvusb" --help
    done
}

tells_its_versions() {
    keep "$gvusb" --version
    expect_status 0
    echo "$output" | grep -Eqx 'gvusb 07\.01\.00 \(libusb 1\.[0-9]+\.[0-9]+\)' || fail "it says $output"
}

refuses_mistakes() {
    keep "$gvusb"
    expect_status 2
    expect_output ''
    expect_in_errors "^gvusb: no command$"
    expect_in_errors "^Run 'gvusb --help' for more.$"
    keep "$gvusb" dance
    expect_status 2
    expect_in_errors "^gvusb: 'dance' is not a command$"
    keep "$gvusb" --colour
    expect_status 2
    expect_in_errors "^gvusb: '--colour' is not a command$"
    keep "$gvusb" list --colour
    expect_status 2
    expect_in_errors "^Run 'gvusb list --help' for more.$"
}

explains_a_code() {
    for code in -1145 1145; do
        keep "$gvusb" explain $code
        expect_status 0
        expect_equal "the first line" "$(head -n 1 "$scratch/output")" \
            'GVUSB: (-1145) interface cannot be claimed'
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

explains_unknown_codes_by_the_librarys_text() {
    keep "$gvusb" explain 42
    expect_status 0
    expect_output 'GVUSB: Unknown Error: 0x2A (42)
This is none of the published codes.'
    keep "$gvusb" explain 1198
    expect_in_output '(-1198)$'
}

explains_in_json() {
    keep "$gvusb" explain 42 --json
    expect_output '{
  "code": 42,
  "text": "GVUSB: Unknown Error: 0x2A (42)",
  "cause": null,
  "remedy": null
}'
    keep "$gvusb" explain 1137 --json
    expect_in_output '"text": "GVUSB: (-1137) device is not present",'
    expect_in_output '"cause": "The reader was unplugged'
    keep "$gvusb" explain --json
    expect_equal "codes" "$(grep -c '"code": ' "$scratch/output")" \
        "$("$gvusb" explain | tail -n +2 | wc -l)"
}

lists_all_codes() {
    keep "$gvusb" explain
    expect_status 0
    expect_in_output '^CODE   TEXT$'
    expect_in_output '^-1130  GVUSB: (-1130) timeout$'
}

refuses_codes_that_are_none() {
    for code in x 12x 99999999999; do
        keep "$gvusb" explain $code
        expect_status 2
        expect_in_errors "'$code' is not a code"
    done
}

keeps_the_librarys_log_out_of_its_output() {
    configure 'gvusb_debuglevel=3 libusb_debuglevel=4'
    on_bus list --json
    expect_status 0
    expect_equal "the first character" "$(head -c 1 "$scratch/output")" '['
    expect_not_in_output 'gvusb:'
    expect_in_errors ' :: gvusb: \[init\] '
    expect_in_errors ' :: gvusb: \[exit\] '
    # A line-buffered standard output shows what is written before main().
    shell_on_bus 'stdbuf -oL "$gvusb" get A1 TIMEOUT'
    expect_output 1000
    expect_in_errors ' :: gvusb: \[init\] '
}

keeps_the_log_out_of_what_it_opens() {
    configure 'gvusb_debuglevel=3'
    shell_on_bus '"$gvusb" get A1 TIMEOUT 2>&-; "$gvusb" send A1 02 <&- 2>&-; "$emulate" --send "frames 1"'
    expect_output '1000
02
ok 1 0x02 02'
}

run_case
