#!/usr/bin/env bash
# Tests of what all commands share: help, versions, mistakes.
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

run_case
