#!/usr/bin/env bash
# The tool in a terminal, as a person sees it.
source "$(dirname "$0")/testing.sh"

# Runs a text in the shell's language in a terminal of its own; what appears there is the output. Standard input is typed.
# No other shell stays in between: the interrupt key would end that one too, with a status of its own.
in_terminal() { # TEXT
    printf '%s\n' "$1" >"$scratch/commands"
    keep "$emulate" "${configuration[@]}" "${readers[@]}" -- \
        script -qec "exec bash $scratch/commands" "$scratch/typescript"
}

shows_progress_and_takes_it_away() {
    in_terminal '"$emulate" --send "delay 1 in 100" >/dev/null; "$gvusb" send A1 02 --repeat 8' </dev/null
    expect_status 0
    expect_in_output "$(printf '\r[1-9] of 8 exchanges\033\\[K')"
    expect_in_output '^99th percentile  [0-9.]* ms'
    # What stays on the screen: each line without what was written over.
    expect_equal "what stays" "$(tr -d '\r' <"$scratch/output" | sed "s/.*$(printf '\033')\\[K//" | grep -c exchanges)" 0
}

shows_no_progress_elsewhere() {
    in_terminal '"$emulate" --send "delay 1 in 100" >/dev/null; "$gvusb" send A1 02 --repeat 8 2>"$scratch/stderr"' </dev/null
    expect_not_in_output exchanges
    expect_equal "standard error" "$(cat "$scratch/stderr")" ''
    in_terminal '"$emulate" --send "delay 1 in 300" >/dev/null; "$gvusb" send A1 02' </dev/null
    expect_not_in_output exchanges
}

ends_by_the_interrupt_key() {
    in_terminal 'exec "$gvusb" send A1 02 --repeat 1000000' < <(
        until grep -q '^02' "$scratch/output" 2>/dev/null; do sleep 0.05; done
        printf '\003'
        exec sleep 10 2>/dev/null # the end of what is typed would be the end of the terminal
    )
    expect_status 0
    expect_in_output '^maximum '
}

says_how_it_watches() {
    local mode
    for mode in '1:by polling every 50 ms (hot-plug mode 1)' '2:by libusb.s events (hot-plug mode 2)' \
        '0:by polling every 50 ms (hot-plug mode 0, which reports nothing by itself)'; do
        configure "gvusb_hotplug=${mode%%:*}"
        in_terminal '"$gvusb" monitor --idle-timeout 0.1' </dev/null
        expect_status 3
        expect_in_output "^Watching ${mode#*:}; Ctrl-C ends\."
    done
}

keeps_the_log_out_of_a_terminal() {
    configure 'gvusb_debuglevel=3'
    in_terminal '"$gvusb" get A1 TIMEOUT 2>/dev/null' </dev/null
    expect_equal "the output" "$(tr -d '\r' <"$scratch/output")" 1000
}

run_case
