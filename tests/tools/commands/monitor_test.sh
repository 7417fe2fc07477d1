#!/usr/bin/env bash
# Tests of `gvusb monitor`, in every hot-plug mode.
source "$(dirname "$0")/../testing.sh"

# Start the monitor and wait until it watches: plug and unplug a reader until it is reported.
watching='
    last_is_of_leaving() { tail -n 1 "$scratch/events" | grep -q disconnect; }
    "$gvusb" monitor $monitor_options >"$scratch/events" 2>"$scratch/complaints" &
    monitor=$!
    bus "plug id=F0,plugged=no"
    until [ -s "$scratch/events" ]; do
        bus "plug 3"; sleep 0.3; bus "unplug 3"; sleep 0.3
    done
    await last_is_of_leaving
    : >"$scratch/events"
'

# The events without times and handles.
told() {
    sed -E 's/^[^ ]+  //; s/ +handle.*//; s/ +/ /g' "$scratch/events"
}

in_every_mode() { # FUNCTION
    local mode
    for mode in 1 0 2 7; do
        configure "gvusb_hotplug=$mode"
        "$1"
        [ $failed -eq 0 ] || fail "... in mode $mode"
    done
    configure nopnp
    "$1"
}

export monitor_options=''

reports_plugs() {
    shell_on_bus "$watching"'
        bus "unplug 1"; await lines "$scratch/events" 1
        bus "plug 1"; await lines "$scratch/events" 2
        bus "unplug 1"; await lines "$scratch/events" 3
        bus "plug 1"; await lines "$scratch/events" 4
        bus "unplug all"; await lines "$scratch/events" 6
        bus "plug id=C3"; await lines "$scratch/events" 7
        kill -INT $monitor; wait $monitor; echo $?'
    expect_output 0
    expect_errors ''
    expect_equal "standard error" "$(cat "$scratch/complaints")" ''
    expect_equal "the first four" "$(told | head -n 4)" 'disconnect A1
connect A1
disconnect A1
connect A1'
    expect_equal "the two" "$(told | sed -n 5,6p | sort)" 'disconnect A1
disconnect B2'
    expect_equal "the last" "$(told | tail -n 1)" 'connect C3'
}

reports_every_plug_and_unplug() {
    in_every_mode reports_plugs
}

reports_replugs() {
    shell_on_bus "$watching"'
        bus "replug 1"; await lines "$scratch/events" 2; sleep 0.3
        bus "replug 2"; await lines "$scratch/events" 4; sleep 0.3
        kill -INT $monitor; wait $monitor; echo $?'
    expect_output 0
    expect_equal "told" "$(told)" 'disconnect A1
connect A1
disconnect B2
connect B2'
}

reports_a_quick_replug() {
    in_every_mode reports_replugs
}

reports_a_duplicate() {
    shell_on_bus "$watching"'
        bus "plug id=A1"; await lines "$scratch/events" 1; sleep 0.3
        bus "unplug 1"; await lines "$scratch/events" 2; sleep 0.3
        kill -INT $monitor; wait $monitor; echo $?'
    expect_equal "told" "$(told)" 'connect A1
disconnect A1'
}

reports_readers_with_the_same_id() {
    in_every_mode reports_a_duplicate
}

writes_each_event_at_once_as_json() {
    monitor_options=--json shell_on_bus "$watching"'
        bus "unplug 1"; await lines "$scratch/events" 1
        kill -TERM $monitor; wait $monitor; echo $?'
    expect_output 0
    expect_equal "the event" \
        "$(sed -E 's/"[0-9]{4}(-[0-9]{2}){2}T([0-9]{2}:){2}[0-9]{2}\.[0-9]{3}[+-][0-9]{2}:[0-9]{2}"/TIME/; s/:[0-9]+,/:H,/' "$scratch/events")" \
        '{"time":TIME,"event":"disconnect","id":"A1","handle":H,"family":"Desk","name":"Desk reader"}'
}

starts_with_the_readers_that_are_present() {
    on_bus monitor --initial --idle-timeout 0.2
    expect_status 3
    expect_equal "lines" "$(sed 's/^[^ ]*  //' "$scratch/output" | sort)" \
        'present     A1        handle 0  Desk reader
present     B2        handle 0  Gate reader'
    printf 'at 1500 unplug 1\n' >"$scratch/script"
    readers+=(--script "$scratch/script")
    on_bus monitor --initial --count 1 --idle-timeout 20 --json
    expect_status 0
    expect_equal "events" "$(sed -E 's/.*"event":"([a-z]*)".*"name":"([A-Za-z ]*)".*/\1 \2/' "$scratch/output" | sort)" \
        'disconnect Desk reader
present Desk reader
present Gate reader'
}

ends_after_a_count() {
    shell_on_bus '"$gvusb" monitor --count 2 >"$scratch/events" & monitor=$!
        while kill -0 $monitor 2>/dev/null; do bus "unplug 1"; sleep 0.3; bus "plug 1"; sleep 0.3; done
        wait $monitor; echo $?'
    expect_output 0
    expect_equal "events" "$(wc -l <"$scratch/events")" 2
}

ends_when_nothing_happens() {
    on_bus monitor --idle-timeout 0.2
    expect_status 3
    expect_output ''
    expect_errors ''
}

is_idle_only_since_the_last_event() {
    printf 'at 1500 unplug 1\n' >"$scratch/script"
    readers+=(--script "$scratch/script")
    start=$(date +%s%N)
    on_bus monitor --idle-timeout 3
    expect_status 3
    expect_in_output 'disconnect  A1'
    [ $(($(date +%s%N) - start)) -ge 4400000000 ] || fail "the idle time started before the event"
}

ends_when_its_output_is_closed() {
    shell_on_bus '{ "$gvusb" monitor; echo $? >"$scratch/status"; } | sleep 0.3'
    expect_errors ''
    expect_equal "exit status" "$(cat "$scratch/status")" 0
}

works_without_any_reader() {
    readers=(--no-readers)
    printf 'at 2000 plug id=A1\n' >"$scratch/script"
    readers+=(--script "$scratch/script")
    on_bus monitor --count 1 --idle-timeout 20
    expect_status 0
    expect_in_output 'connect     A1        handle 0  '
}

polls_at_the_given_interval() {
    configure 'gvusb_debuglevel=3'
    on_bus monitor --poll-interval 400 --idle-timeout 1.5
    expect_status 3
    expect_output ''
    polls=$(grep -c 'next update' "$scratch/errors")
    [ "$polls" -ge 1 ] && [ "$polls" -le 4 ] || fail "$polls polls in 1.5 seconds"
    on_bus monitor --poll-interval 20 --idle-timeout 1.5
    polls=$(grep -c 'next update' "$scratch/errors")
    [ "$polls" -ge 10 ] || fail "$polls polls in 1.5 seconds"
}

# The log is the only place where it shows: a scan waits for a poll in either mode.
watches_in_parallel_mode() {
    configure 'gvusb_debuglevel=1'
    on_bus monitor --idle-timeout 0.1
    expect_status 3
    expect_in_errors "PARALLEL = '1' => rc=0"
}

rejects_invalid_command_lines() {
    for arguments in '--count 0' '--count x' '--idle-timeout 0' '--idle-timeout -1' '--poll-interval 0' A1; do
        # shellcheck disable=SC2086
        on_bus monitor $arguments
        expect_status 2
        expect_in_errors "^Run 'gvusb monitor --help' for more.$"
    done
}

says_how_it_watches() {
    local mode
    for mode in '1:polling every 50 ms (hot-plug mode 1)' '2:handling libusb.s events (hot-plug mode 2)' \
        '0:polling every 50 ms (hot-plug mode 0, which does not report by itself)'; do
        configure "gvusb_hotplug=${mode%%:*}"
        in_terminal '"$gvusb" monitor --idle-timeout 0.1' </dev/null
        expect_status 3
        expect_in_output "^Watching by ${mode#*:}; press Ctrl-C to stop\."
    done
}

run_case
