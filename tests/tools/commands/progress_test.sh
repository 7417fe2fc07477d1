#!/usr/bin/env bash
# Tests of the progress line of `gvusb send --repeat`.
source "$(dirname "$0")/../testing.sh"

shows_progress_and_erases_it() {
    in_terminal '"$emulate" --send "delay 1 in 100" >/dev/null; "$gvusb" send A1 02 --repeat 8' </dev/null
    expect_status 0
    expect_in_output "$(printf '\r[1-9] of 8 exchanges\033\\[K')"
    expect_in_output '^99th percentile  [0-9.]* ms'
    # The text that stays on the screen: each line without its overwritten part.
    expect_equal "the progress that stays" "$(tr -d '\r' <"$scratch/output" | sed "s/.*$(printf '\033')\\[K//" | grep -c exchanges)" 0
}

shows_no_progress_outside_a_terminal() {
    in_terminal '"$emulate" --send "delay 1 in 100" >/dev/null; "$gvusb" send A1 02 --repeat 8 2>"$scratch/stderr"' </dev/null
    expect_not_in_output exchanges
    expect_equal "standard error" "$(cat "$scratch/stderr")" ''
    in_terminal '"$emulate" --send "delay 1 in 300" >/dev/null; "$gvusb" send A1 02' </dev/null
    expect_not_in_output exchanges
}

run_case
