#!/usr/bin/env bash
# usage: run_example.sh CASE EXAMPLES_FOLDER LAUNCHER LIBRARY [PYTHON_EXAMPLES PYTHON_PACKAGE]
# Run an example on virtual readers and check what it shows. Each case is a function below.
set -euo pipefail
case=$1 examples=$2 launcher=$3 library=$4 python=${5:-} package=${6:-}
export GVUSB_LIBRARY=$library PYTHONPATH=$package PYTHONDONTWRITEBYTECODE=1

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

fail() {
    echo "$*" >&2
    exit 1
}

expect_equal() {
    [ "$1" = "$2" ] || fail "expected:"$'\n'"$2"$'\n'"but it was:"$'\n'"$1"
}

# on_bus LAUNCHER_OPTIONS... -- CASE_FUNCTION: run the function in a shell on that bus.
on_bus() {
    local options=()
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    "$launcher" "${options[@]}" -- "$BASH" "${BASH_SOURCE[0]}" "$2" "$examples" "$launcher" "$library" \
        "$python" "$package"
}

send() {
    "$launcher" --send "$1" >/dev/null
}

# Start an example whose output `await` reads.
start() {
    coproc example { "$@"; }
    # shellcheck disable=SC2154 # set by coproc
    pid=$example_PID
}

# Read the example's output until all of these texts have appeared, in any order.
await() {
    local line text missing=("$@") rest
    while [ ${#missing[@]} -gt 0 ]; do
        IFS= read -r -t 30 -u "${example[0]}" line || fail "not printed: ${missing[*]}"
        echo "$line"
        rest=()
        for text in "${missing[@]}"; do
            [[ $line == *"$text"* ]] || rest+=("$text")
        done
        missing=("${rest[@]}")
    done
}

lists_readers() {
    expect_equal "$("$launcher" --reader 'id=12AB0,family=Gate,name=Gate reader' -- "$examples/list_readers")" \
        "ID        Family            Name                      Interface
12AB0     Gate              Gate reader               TESK-RCI2"
}

lists_no_reader() {
    expect_equal "$("$launcher" --no-readers -- "$examples/list_readers")" "There is no reader on the bus."
}

exchanges_a_frame() {
    expect_equal "$("$launcher" -- "$examples/exchange_frame" 1a2b3c 02 00 FF)" "02 00 FF"
}

says_why_no_frame_is_exchanged() {
    local error status=0
    error=$("$launcher" -- "$examples/exchange_frame" 77 02 2>&1) || status=$?
    expect_equal "$status: $error" "1: GVUSB: (-1140) device not scanned"
    status=0
    error=$("$launcher" -- "$examples/exchange_frame" 1A2B3C 02 1FF 2>&1) || status=$?
    expect_equal "$status: $error" "1: '1FF' is not a hexadecimal number up to FF"
}

talks_to_many_readers() {
    local output
    output=$("$launcher" --reader id=1,copies=8 -- "$examples/many_readers" 20)
    echo "$output"
    expect_equal "$(grep -c '20 of 20 frames answered, GVUSB: OK' <<<"$output")" 8
    output=$("$launcher" --reader id=1,copies=8 -- "$examples/many_readers" 20 0)
    expect_equal "$(grep -c '20 of 20 frames answered, GVUSB: OK' <<<"$output")" 8
    expect_equal "$("$launcher" --reader id=1 -- "$examples/many_readers" 1 2 2>&1)" 'PARALLEL must be 0 or 1.'
}

overcomes_errors() {
    on_bus --reader id=1A2B3C -- overcomes_errors_on_bus
}

overcomes_errors_on_bus() {
    start "$examples/handle_errors" 40
    await "exchange 1: 5 bytes"
    send "mute 1 in"
    await "(-1130) timeout"
    send "unmute 1 in"
    await "5 bytes"
    send "stall 1 out"
    await "(-1139) bulk transfer error"
    await "5 bytes"
    send "unplug 1"
    await "(-1137) device is not present"
    await "waiting for the reader"
    send "plug 1"
    await "it is back"
    await "5 bytes"
    kill "$pid"
}

watches_by_polling() {
    on_bus --reader id=1A2B3C -- watches_by_polling_on_bus
}

watches_by_polling_on_bus() {
    start "$examples/watch_readers" 120
    await "a frame was answered"
    send "unplug 1"
    await "event: reader 1A2B3C was disconnected" "the reader does not answer any more"
    send "plug 1"
    # The handler of this event scans. If that scan found the next reader, the reader would not be reported.
    await "event: reader 1A2B3C was connected" "the reader is back" "a frame was answered"
    send "plug id=2B0001"
    await "event: reader 2B0001 was connected"
    send "unplug 2"
    await "event: reader 2B0001 was disconnected"
    kill "$pid"
}

reports_every_change() {
    echo "gvusb_debuglevel=1" >"$folder/gvusb.conf"
    on_bus --config "$folder/gvusb.conf" --reader id=1A2B3C -- reports_every_change_on_bus
}

reports_every_change_on_bus() {
    start "$examples/watch_readers" 120
    await "a frame was answered"
    replug
    replug
    send "unplug 1"
    await "event: reader 1A2B3C was disconnected"
    send "plug 1"
    await "event: reader 1A2B3C was connected"
    kill "$pid"
}

# Replug so that the reader stays in the scan list. If a poll runs between unplug and plug, the handler's scan may not
# find the reader, and its arrival is reported too.
replug() {
    local seen
    send "replug 1"
    seen=$(await "event: reader 1A2B3C was disconnected")
    echo "$seen"
    if [[ $seen == *"[scan-list] no devices"* ]]; then
        await "event: reader 1A2B3C was connected"
    fi
}

watches_by_libusb_events() {
    echo "gvusb_hotplug=2" >"$folder/gvusb.conf"
    on_bus --config "$folder/gvusb.conf" --reader id=1A2B3C -- watches_by_libusb_events_on_bus
}

watches_by_libusb_events_on_bus() {
    start "$examples/watch_readers_events" 5
    await "waiting for readers"
    send "plug id=2B0001"
    await "reader 2B0001 was connected"
    send "unplug 1"
    await "a reader was disconnected"
    wait "$pid"
}

says_which_mode_it_needs() {
    local error status=0
    error=$("$launcher" --no-config -- "$examples/watch_readers_events" 2>&1) || status=$?
    expect_equal "$status: $error" \
        "1: The hot-plug mode is 1; /etc/gavo/gvusb.conf must contain gvusb_hotplug=2."
}

sends_a_frame_in_cxx() {
    expect_equal "$("$launcher" --reader id=1 --reader 'id=2,family=Gate,name=Gate reader,type=G-200' -- \
        "$examples/send_frame" Gate)" "2 Gate reader, type G-200
02 00 07 FF 01"
}

says_why_no_frame_is_sent_in_cxx() {
    local error status=0
    error=$("$launcher" --reader id=1 -- "$examples/send_frame" Gate 2>&1) || status=$?
    expect_equal "$status: $error" "1: There is no such reader on the bus."
    status=0
    error=$("$launcher" --reader id=1,type=D-100,reply=none -- "$examples/send_frame" 2>&1 >/dev/null) || status=$?
    expect_equal "$status: $error" "1: The reader does not answer within 250 ms."
    status=0
    error=$("$launcher" --reader id=1,missing=10 -- "$examples/send_frame" 2>&1) || status=$?
    expect_equal "$status: $error" \
        "1: gvusb::reader::type_number: GVUSB: (-1168) string descriptor read error"
}

loops_over_events_in_cxx() {
    on_bus --reader 'id=1A2B3C,name=Desk reader' -- loops_over_events_in_cxx_on_bus
}

loops_over_events_in_cxx_on_bus() {
    start "$examples/event_loop"
    await "present Desk reader"
    send "plug id=2B0001,name=New reader"
    await "connect 2B0001" "New reader answers 5 bytes"
    send "unplug 2"
    await "disconnect 2B0001"
    send "plug 2"
    await "connect 2B0001" "New reader answers 5 bytes"
    local input=${example[1]}
    exec {input}>&- # ends the loop
    wait "$pid"
}

exchanges_a_frame_in_python() {
    expect_equal "$("$launcher" --reader 'id=12AB0,name=Gate reader' -- "$python/exchange_frame.py")" \
        "12AB0 Gate reader
  sent     02 00 07 FF 01
  received 02 00 07 FF 01"
}

says_why_no_frame_is_exchanged_in_python() {
    local error status=0
    error=$("$launcher" --reader id=12AB0,reply=none -- "$python/exchange_frame.py" 2>&1 >/dev/null) || status=$?
    expect_equal "$status: $error" "1: GVUSB: (-1130) timeout"
}

watches_readers_in_python() {
    on_bus --reader 'id=1A2B3C,name=Desk reader' -- watches_readers_in_python_on_bus
}

watches_readers_in_python_on_bus() {
    start "$python/watch_readers.py"
    await "present 1A2B3C Desk reader"
    send "plug id=2B0001,name=New reader"
    await "connect 2B0001" "New reader answers 5 bytes"
    send "unplug 2"
    await "disconnect 2B0001"
    kill "$pid"
}

talks_to_many_readers_in_python() {
    local output
    output=$("$launcher" --reader id=1,copies=8 -- "$python/many_readers.py" 20)
    echo "$output"
    expect_equal "$(grep -c '20 of 20 frames answered$' <<<"$output")" 8
}

"$case"
