#!/usr/bin/env bash
# Tests of how the tool starts the program for the readers of other machines.
source "$(dirname "$0")/testing.sh"

# A copy of the tool, which does not find the program.
cp "$gvusb" "$scratch/gvusb"

# A program beside it that tells how it was started.
install_program() {
    printf '%s\n' '#!/bin/sh' 'printf "<%s>" "$@"; echo; echo problem >&2; exit 3' >"$scratch/gvusb-fleet"
    chmod +x "$scratch/gvusb-fleet"
}

starts_the_program_with_the_same_arguments() {
    install_program
    for arguments in '--broker mqtt://localhost list --json' '--broker=localhost:1 send gate-7/A1 02 --color' \
        '--user me --insecure --broker x monitor --count' '--broker x --help' '--broker x'; do
        # shellcheck disable=SC2086
        keep "$scratch/gvusb" $arguments
        expect_status 3
        # shellcheck disable=SC2086
        expect_output "$(printf '<%s>' $arguments)"
        expect_errors problem
    done
}

keeps_a_closed_output_closed() {
    printf '%s\n' '#!/bin/sh' '[ -e /proc/self/fd/1 ] && echo open >&2 || echo closed >&2' >"$scratch/gvusb-fleet"
    chmod +x "$scratch/gvusb-fleet"
    keep bash -c '"$1" --broker x list >&-' bash "$scratch/gvusb"
    expect_errors closed
}

keeps_other_commands() {
    install_program
    keep "$scratch/gvusb" list --broker x
    expect_status 2
    expect_errors "gvusb: the option '--broker' stands before the command
Run 'gvusb list --help' for more."
    keep "$scratch/gvusb" explain -1130
    expect_status 0
    keep "$scratch/gvusb" --broker
    expect_status 2
    expect_in_errors '^gvusb: --broker: the value is missing$'
}

needs_a_broker_for_its_options() {
    install_program
    for option in '--ca-file x' '--certificate x --key x' '--user x' '--user x --password-file x' --insecure '--prefix x' \
        '--connect-timeout 1'; do
        # shellcheck disable=SC2086
        keep "$scratch/gvusb" $option list
        expect_status 2
        expect_output ''
        expect_in_errors '^gvusb: --[a-z-]* needs --broker$'
    done
}

says_which_package_is_missing() {
    keep "$scratch/gvusb" --broker mqtt://localhost list
    expect_status 1
    expect_output ''
    expect_errors 'gvusb: --broker needs the program gvusb-fleet, which is not installed
Install the package gvusb-mqtt of the same version.'
}

# The program itself.
prints_help() {
    keep "$gvusb" --broker x --help
    expect_status 0
    expect_errors ''
    [ "$(wc -L <"$scratch/output")" -le 110 ] || fail 'lines are too long'
    for command in list info get set send monitor help; do
        expect_in_output "^  $command "
        keep "$gvusb" --broker x "$command" --help
        expect_status 0
        expect_errors ''
        expect_in_output "^Usage: gvusb --broker ADDRESS $command"
        for exit_status in 0 1 2 3 4; do
            expect_in_output "^  $exit_status  "
        done
        [ "$(wc -L <"$scratch/output")" -le 110 ] || fail "lines of $command --help are too long"
        cp "$scratch/output" "$scratch/wanted"
        keep "$gvusb" --broker x help "$command"
        diff "$scratch/wanted" "$scratch/output" || fail "'help $command' differs from '$command --help'"
        keep "$gvusb" --broker x --help
    done
}

prints_versions() {
    keep "$gvusb" --broker x --version
    expect_status 0
    echo "$output" | grep -Eqx 'gvusb 07\.01\.00 \(libmosquitto 2\.[0-9]+\.[0-9]+\)' || fail "it says $output"
}

does_not_link_the_mqtt_library() {
    expect_equal libraries "$(ldd "$gvusb" | grep -c mosquitto)" 0
}

run_case
