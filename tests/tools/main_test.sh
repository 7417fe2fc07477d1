#!/usr/bin/env bash
# Tests of what all commands share: help, versions, and errors on the command line.
source "$(dirname "$0")/testing.sh"

commands='list info get set send monitor record show explain doctor help'

prints_help() {
    keep "$gvusb" --help
    expect_status 0
    expect_errors ''
    for command in $commands; do
        expect_in_output "^  $command "
        keep "$gvusb" "$command" --help
        expect_status 0
        expect_in_output "^Usage: gvusb $command"
        expect_in_output '^EXIT STATUS$'
        local statuses='0 1 2 3 4'
        [ "$command" != record ] || statuses='1 2 126 127' # and those of the program
        for exit_status in $statuses; do
            expect_in_output "^  $exit_status  "
        done
        [ "$(wc -L <"$scratch/output")" -le 110 ] || fail "lines of $command --help are too long"
        keep "$gvusb" --help
    done
}

prints_help_by_a_command() {
    for command in $commands ''; do
        "$gvusb" $command --help >"$scratch/wanted"
        # shellcheck disable=SC2086
        keep "$gvusb" help $command
        expect_status 0
        diff "$scratch/wanted" "$scratch/output" || fail "'help $command' differs from '$command --help'"
    done
    keep "$gvusb" help dance
    expect_status 2
    expect_in_errors "unknown command 'dance'$"
}

prints_versions() {
    keep "$gvusb" --version
    expect_status 0
    echo "$output" | grep -Eqx 'gvusb 07\.01\.00 \(libusb 1\.[0-9]+\.[0-9]+\)' || fail "it says $output"
}

rejects_invalid_command_lines() {
    keep "$gvusb"
    expect_status 2
    expect_output ''
    expect_in_errors "^gvusb: no command given$"
    expect_in_errors "^Run 'gvusb --help' for more.$"
    keep "$gvusb" dance
    expect_status 2
    expect_in_errors "^gvusb: unknown command 'dance'$"
    keep "$gvusb" --color
    expect_status 2
    expect_in_errors "^gvusb: unknown option '--color'$"
    keep "$gvusb" list --color
    expect_status 2
    expect_in_errors "^gvusb: unknown option '--color'$"
    expect_in_errors "^Run 'gvusb list --help' for more.$"
    keep "$gvusb" list A1
    expect_status 2
    expect_in_errors "^gvusb: unexpected argument 'A1'$"
    keep "$gvusb" monitor --count
    expect_status 2
    expect_in_errors "^gvusb: --count: the value is missing$"
}

fits_its_text_into_the_terminal() {
    for columns in 40 60; do
        for arguments in doctor 'explain -1130' --help 'send --help'; do
            in_terminal "stty cols $columns; \"\$gvusb\" $arguments" </dev/null
            # Commands, and lines of files, are not broken.
            longest=$(tr -d '\r' <"$scratch/output" | grep -v '^ *\(gvusb\|sudo\) ' | wc -L)
            [ "$longest" -le $columns ] || fail "$arguments: $longest of $columns columns: $output"
        done
    done
    keep "$gvusb" --help
    expect_in_output 'in upper or lower case, with or without 0x\. If several readers have the same$'
}

run_case
