#!/usr/bin/env bash
# Tests of the bash completion.
# shellcheck disable=SC1090
export completion=$5
source "$(dirname "$0")/testing.sh"

# The completions of the last word, sorted, one per line.
complete_words() { # WORD...
    COMP_WORDS=("$@") COMP_CWORD=$(($# - 1)) COMPREPLY=()
    _gvusb
    printf '%s\n' "${COMPREPLY[@]}" | sort
}

expect_completion() { # WANTED WORD...
    local wanted=$1
    shift
    expect_equal "the completion of '$*'" "$(complete_words "$gvusb" "$@" | paste -sd' ')" "$wanted"
}

completes_commands() {
    source "$completion"
    expect_completion '--help --version doctor explain get help info list monitor send set' ''
    expect_completion 'get' g
    expect_completion 'send set' s
    expect_completion '--version' --v
}

# The options of every command, as listed in its help.
completes_every_option() {
    source "$completion"
    for command in list info get set send monitor explain doctor; do
        options=$("$gvusb" "$command" --help | grep -o -e '^ *\(-h,\)*--[a-z-]*' | tr -d ' ' | sed 's/^-h,//' |
            sort | paste -sd' ')
        expect_completion "$options" "$command" --
    done
}

completes_keys() {
    source "$completion"
    expect_completion 'HOTPLUG-MODE' get driver ''
    expect_completion 'HOTPLUG-SUSPEND HOTPLUG-UPDATERATE' set driver ''
    expect_completion 'DEVICE-ID DEVICEHND DEVICENAME FAMILYNAME INTERFACE PRESENT TIMEOUT TYPENUMBER' get A1 ''
    expect_completion 'RESETDEVICE RESETPIPE TIMEOUT' set A1 ''
    expect_completion 'TIMEOUT TYPENUMBER' get A1 T
}

completes_codes() {
    source "$completion"
    expect_completion '-1130 -1131 -1132 -1133 -1134 -1135 -1136 -1137 -1138 -1139' explain -113
}

completes_readers_on_the_bus() {
    readers=(--reader 'id=A1,name=A reader with blanks' --reader id=B2 --reader id=B23)
    shell_on_bus 'source "$completion"
        ids() { COMP_WORDS=("$gvusb" "$@") COMP_CWORD=$#; COMPREPLY=(); _gvusb; printf "%s\n" "${COMPREPLY[@]}" | sort | paste -sd" "; }
        ids info ""; ids send B; ids get ""; ids list --id B2; ids send b2; ids info --json ""'
    expect_errors ''
    expect_output 'A1 B2 B23
B2 B23
A1 B2 B23 driver
B2 B23
B2 B23
A1 B2 B23'
}

is_quiet_without_readers() {
    readers=(--no-readers)
    shell_on_bus 'source "$completion"
        COMP_WORDS=("$gvusb" info "") COMP_CWORD=2; _gvusb; echo "${#COMPREPLY[@]}"'
    expect_errors ''
    expect_output 0
}

# The completions of the launcher, sorted.
complete_launcher() { # WORD...
    source "$(dirname "$completion")/../../emulator/completion/gvusb-emulate.bash"
    COMP_WORDS=(gvusb-emulate "$@") COMP_CWORD=$# COMPREPLY=()
    _gvusb_emulate
    printf '%s\n' "${COMPREPLY[@]}" | sort | paste -sd' '
}

completes_the_launchers_options() {
    options=$("$emulate" --help | grep -o -e '^ *\(-[hv],\)*--[a-z-]*' | tr -d ' ' | sed 's/^-[hv],//' | sort | paste -sd' ')
    expect_equal "the launcher's options" "$(complete_launcher --)" "-- $options"
    touch "$scratch/script"
    expect_equal "the files of an option" "$(complete_launcher --script "$scratch/scr")" "$scratch/script"
    expect_equal "a command" "$(complete_launcher --send unp)" 'unplug'
    expect_equal "an unknown value" "$(complete_launcher --reader '')" ''
    commands=$("$emulate" --send help | sed -n 's/^  \([a-z][a-z-]*\).*/\1/p' | sort - <(echo help) | paste -sd' ')
    expect_equal "commands" "$(complete_launcher --send '')" "$commands"
    expect_equal "some commands" "$(complete_launcher --send ref)" refuse
}

completes_nothing_behind_the_program_without_bash_completion() {
    unset -f _command_offset
    expect_equal "behind --" "$(complete_launcher -- gvusb '' 2>&1)" ''
}

leaves_the_program_to_its_own_completion() {
    _command_offset() { COMPREPLY=("word $1 and on"); }
    expect_equal "behind --" "$(complete_launcher --reader id=1 -- gvusb '')" 'word 4 and on'
}

run_case
