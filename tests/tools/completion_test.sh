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
    expect_completion '--broker --help --version doctor explain get help info list monitor record send set show' ''
    expect_completion 'get' g
    expect_completion 'send set show' s
    expect_completion '--version' --v
}

# The options of every command, as listed in its help.
completes_every_option() {
    source "$completion"
    for command in list info get set send monitor record show explain doctor help; do
        options=$("$gvusb" "$command" --help | grep -o -e '^ *\(-[ho],\)*--[a-z-]*' | tr -d ' ' | sed 's/^-[ho],//' |
            sort | paste -sd' ')
        expect_completion "$options" "$command" --
    done
}

completes_keys() {
    source "$completion"
    expect_completion 'HOTPLUG-MODE PARALLEL' get driver ''
    expect_completion 'HOTPLUG-SUSPEND HOTPLUG-UPDATERATE PARALLEL' set driver ''
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

needs_shell() { # NAME
    command -v "$1" >/dev/null || {
        echo "Skipped: $1 is not installed."
        exit 77
    }
}

# What zsh's completion system is given for the last word, sorted.
zsh_words() { # WORD...
    zsh -f -c 'compadd() { while [ "$1" != -- ]; do shift; done; shift; print -l -- "$@"; }
        _files() { print files; }
        source "$1"; shift; words=("$@") CURRENT=$#; _gvusb' zsh "$(dirname "$completion")/_gvusb" "$@" | sort | paste -sd' '
}

# Fish completes the command whose name it finds.
fish_words() { # LINE
    PATH=$(dirname "$gvusb"):$PATH fish --no-config -c 'source $argv[1]; complete -C "$argv[2]"' \
        "$(dirname "$completion")/gvusb.fish" "$1" | cut -f 1 | sort | paste -sd' '
}

options_of() { # COMMAND, with the options before it
    # shellcheck disable=SC2086
    "$gvusb" $1 --help | grep -o -e '^ *\(-[ho],\)*--[a-z-]*' | tr -d ' ' | sed 's/^-[ho],//' | sort | paste -sd' '
}

completes_in_zsh() {
    needs_shell zsh
    expect_equal commands "$(zsh_words "$gvusb" '')" \
        '--broker --help --version doctor explain get help info list monitor record send set show'
    for command in list info get set send monitor record show explain doctor help; do
        expect_equal "options of $command" "$(zsh_words "$gvusb" $command --)" "$(options_of $command)"
    done
    expect_equal keys "$(zsh_words "$gvusb" set A1 '')" 'RESETDEVICE RESETPIPE TIMEOUT'
    expect_equal 'keys behind an option' "$(zsh_words "$gvusb" get --json driver '')" 'HOTPLUG-MODE PARALLEL'
    expect_equal codes "$(zsh_words "$gvusb" explain '' | wc -w)" "$("$gvusb" explain | tail -n +2 | wc -l)"
    expect_equal 'a value' "$(zsh_words "$gvusb" send --timeout '')" ''
    export -f zsh_words
    readers=(--reader id=A1 --reader id=B2)
    shell_on_bus 'zsh_words "$gvusb" send ""; zsh_words "$gvusb" get ""; zsh_words "$gvusb" list --id ""'
    expect_errors ''
    expect_output 'A1 B2
A1 B2 driver
A1 B2'
}

# In the way of zsh's own completion system.
is_loaded_by_zsh() {
    needs_shell zsh
    keep zsh -f -c 'fpath=("$1" $fpath); autoload -Uz compinit; compinit -u -d "$2"; print $_comps[gvusb]
        compadd() { print -l -- "$@"; }; words=(gvusb d) CURRENT=2; _gvusb; whence -w _gvusb' \
        zsh "$(dirname "$completion")" "$scratch/dump"
    expect_in_output '^_gvusb$'
    expect_in_output '^doctor$'
    expect_in_output '^_gvusb: function$'
}

completes_in_fish() {
    needs_shell fish
    expect_equal commands "$(fish_words 'gvusb ')" 'doctor explain get help info list monitor record send set show'
    for command in list info get set send monitor record show explain doctor help; do
        expect_equal "options of $command" "$(fish_words "gvusb $command --")" "$(options_of $command)"
    done
    expect_equal keys "$(fish_words 'gvusb set A1 ')" 'RESETDEVICE RESETPIPE TIMEOUT'
    expect_equal 'keys behind an option' "$(fish_words 'gvusb get --json driver ')" 'HOTPLUG-MODE PARALLEL'
    expect_equal codes "$(fish_words 'gvusb explain ' | wc -w)" "$("$gvusb" explain | tail -n +2 | wc -l)"
    export -f fish_words
    readers=(--reader id=A1 --reader id=B2)
    shell_on_bus 'fish_words "gvusb send "; fish_words "gvusb get "; fish_words "gvusb list --id "'
    expect_errors ''
    expect_output 'A1 B2
A1 B2 driver
A1 B2'
}

completes_files() {
    source "$completion"
    touch "$scratch/session.pcapng"
    for arguments in show 'show --plot' 'show --reader A1'; do
        # shellcheck disable=SC2086
        expect_completion "$scratch/session.pcapng" $arguments "$scratch/ses"
    done
    expect_completion '' show --reader ''
    needs_shell fish
    needs_shell zsh
    for arguments in show 'show --plot' 'show --reader A1'; do
        expect_equal "fish's completion of '$arguments'" "$(fish_words "gvusb $arguments $scratch/ses")" \
            "$scratch/session.pcapng"
        # shellcheck disable=SC2086
        expect_equal "zsh's completion of '$arguments'" "$(zsh_words "$gvusb" $arguments ses)" files
    done
    expect_equal "zsh's completion of a reader" "$(zsh_words "$gvusb" show --reader '')" ''
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

# A tool that lists the readers of two machines.
list_a_fleet() {
    printf '%s\n' '#!/bin/sh' '[ "$1 $2" = "--broker x" ] && [ "$5" = list ] || exit 1' \
        'printf "%s\n" "MACHINE  INDEX  ID" "desk  0  A1" "gate  1  A1@1-2" "gate  2  B2"' >"$scratch/gvusb"
    chmod +x "$scratch/gvusb"
    gvusb=$scratch/gvusb
}

readers_of_a_fleet='desk/A1 gate/A1@1-2 gate/B2'
keys_of_a_fleet='CANCEL RESETDEVICE RESETPIPE TIMEOUT'
commands_of_a_fleet='get help info list monitor send set'
broker_options='--broker --ca-file --certificate --connect-timeout --help --insecure --key --password-file --prefix --user --version'

broker_options_in_help() {
    "$gvusb" --broker x --help | grep -o -e '^ *\(-h,\)*--[a-z-]*' | tr -d ' ' | sed 's/^-h,//' | sort | paste -sd' '
}

completes_for_other_machines() {
    source "$completion"
    expect_equal "options" "$broker_options" "$(broker_options_in_help)"
    expect_completion "$broker_options $commands_of_a_fleet" --broker x ''
    expect_completion "$broker_options" --broker mqtt : //localhost : 1883 --user me --
    expect_completion 'send set' --broker = x --insecure s
    expect_completion '' --broker ''
    for command in $commands_of_a_fleet; do
        expect_completion "$(options_of "--broker x $command")" --broker x --user me "$command" --
    done
    expect_completion 'get info list monitor send set' --broker x help ''
    touch "$scratch/ca.pem"
    expect_completion "$scratch/ca.pem" --broker x --ca-file "$scratch/c"
    list_a_fleet
    expect_completion "$readers_of_a_fleet" --broker x send ''
    expect_completion 'gate/B2' --broker x get gate/b
    expect_completion '1-2' --broker x info gate/A1 @ ''
    expect_completion 'A1 B2' --broker x list --id ''
    expect_completion 'desk gate' --broker x monitor --machine ''
    expect_completion "$keys_of_a_fleet" --broker x set --timeout 5 gate/B2 ''
}

completes_for_other_machines_in_zsh() {
    needs_shell zsh
    expect_equal 'after the broker' "$(zsh_words "$gvusb" --broker x '')" "$broker_options $commands_of_a_fleet"
    expect_equal 'a value' "$(zsh_words "$gvusb" --broker x --user '')" ''
    expect_equal 'a file' "$(zsh_words "$gvusb" --broker x --ca-file '')" files
    for command in $commands_of_a_fleet; do
        expect_equal "options of $command" "$(zsh_words "$gvusb" --broker=x --user me "$command" --)" \
            "$(options_of "--broker x $command")"
    done
    list_a_fleet
    expect_equal readers "$(zsh_words "$gvusb" --broker x send '')" "$readers_of_a_fleet"
    expect_equal IDs "$(zsh_words "$gvusb" --broker x list --id '')" 'A1 B2'
    expect_equal machines "$(zsh_words "$gvusb" --broker x list --machine '')" 'desk gate'
    expect_equal keys "$(zsh_words "$gvusb" --broker x set gate/B2 '')" "$keys_of_a_fleet"
}

completes_for_other_machines_in_fish() {
    needs_shell fish
    expect_equal commands "$(fish_words 'gvusb --broker x ')" "$commands_of_a_fleet"
    expect_equal options "$(fish_words 'gvusb --broker x --')" "$broker_options"
    for command in $commands_of_a_fleet; do
        expect_equal "options of $command" "$(fish_words "gvusb --broker=x --user me $command --")" \
            "$(options_of "--broker x $command")"
    done
    list_a_fleet
    expect_equal readers "$(fish_words 'gvusb --broker x send ')" "$readers_of_a_fleet"
    expect_equal IDs "$(fish_words 'gvusb --broker x list --id ')" 'A1 B2'
    expect_equal machines "$(fish_words 'gvusb --broker x monitor --machine ')" 'desk gate'
    expect_equal keys "$(fish_words 'gvusb --broker x set gate/B2 ')" "$keys_of_a_fleet"
}

run_case
