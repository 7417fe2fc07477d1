#!/usr/bin/env bash
# usage: run_fleet_example.sh CASE LAUNCHER SERVICE EXAMPLE...
# Run an example that drives a fleet, with a real broker and services on virtual readers. Each case is a function below.
set -euo pipefail
case=$1 launcher=$2 service=$3
example=("${@:4}")
export PYTHONDONTWRITEBYTECODE=1
unset MQTT_USER MQTT_PASSWORD_FILE MQTT_CA_FILE

folder=$(mktemp -d)
children=()
# shellcheck disable=SC2317 # called by the trap
finish() {
    local child
    for child in "${children[@]}"; do
        kill -CONT "$child" 2>/dev/null || true
        kill "$child" 2>/dev/null || true
    done
    wait
    rm -rf "$folder"
}
trap finish EXIT

fail() {
    echo "$*" >&2
    tail -n 20 "$folder"/*.log >&2 || true
    exit 1
}

expect_equal() {
    [ "$1" = "$2" ] || fail "expected:"$'\n'"$2"$'\n'"but it was:"$'\n'"$1"
}

# await WHAT COMMAND...: wait until the command succeeds.
await() {
    local i
    for ((i = 0; i < 600; ++i)); do
        if "${@:2}" >/dev/null 2>&1; then
            return
        fi
        sleep 0.05
    done
    fail "not so in time: $1"
}

# A broker for this machine only, on a free port.
start_broker() {
    port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
    mosquitto -p "$port" >"$folder/broker.log" 2>&1 &
    children+=($!)
    await "the broker runs" mosquitto_pub -p "$port" -t ready -n
}

# start_service MACHINE READERS LAUNCHER_OPTIONS... -- SERVICE_OPTIONS...: wait until it has this number of readers.
start_service() {
    local machine=$1 readers=$2 options=()
    shift 2
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    # shellcheck disable=SC2016 # for the shell that is started
    "$launcher" "${options[@]}" -- sh -c 'echo $$ >"$0"; exec "$@"' "$folder/$machine.pid" "$service" \
        --broker "localhost:$port" --machine "$machine" --state-directory "$folder/$machine" "${@:2}" \
        >>"$folder/$machine.log" 2>&1 &
    children+=($!)
    await "$machine is online with $readers readers" is_online "$machine" "$readers"
}

is_online() {
    [ "$(retained "gvusb/$1/status")" = online ] &&
        [ "$(retained "gvusb/$1/readers/+" | grep -c '"connected": *true')" -eq "$2" ]
}

is_offline() {
    [ "$(retained "gvusb/$1/status")" = offline ]
}

# The retained messages of a topic. The message that is published next shows that these have arrived.
retained() {
    local last="end of $RANDOM$RANDOM"
    mosquitto_pub -V 5 -p "$port" -q 1 -t "$last" -r -m "$last"
    mosquitto_sub -V 5 -p "$port" -t "$1" -t "$last" -F '%p' | sed "/^$last\$/Q"
    mosquitto_pub -V 5 -p "$port" -q 1 -t "$last" -r -n
}

# The process of a service, which is not that of its launcher.
process() {
    cat "$folder/$1.pid"
}

# Run the example; its output, sorted, and its status.
drive() {
    local status=0
    "${example[@]}" localhost "$port" "$1" >"$folder/output" 2>&1 || status=$?
    echo "$(LC_ALL=C sort "$folder/output") [$status]"
}

sends_to_every_reader() {
    start_broker
    start_service gate-1 1 --reader id=1A2B3C --
    start_service gate-2 2 --reader id=2B0001,reply=fixed:0A0B,copies=2 --
    expect_equal "$(drive 0200ff)" "3 of 3 readers answered
gate-1 1A2B3C 02 00 FF
gate-2 2B0001 0A 0B
gate-2 2B0002 0A 0B [0]"
}

leaves_out_who_cannot_be_reached() {
    start_broker
    start_service gate-1 2 --reader id=1A2B3C --reader id=2B0001 --
    start_service gate-2 1 --reader id=3C0001 --
    kill -KILL "$(process gate-2)"
    await "gate-2 is offline" is_offline gate-2
    # A launcher that gets a command in the environment of its program.
    GVUSB_EMULATE_SOCKET=$(tr '\0' '\n' <"/proc/$(process gate-1)/environ" | sed -n 's/^GVUSB_EMULATE_SOCKET=//p') \
        "$launcher" --send "unplug 2"
    await "the reader is gone" is_online gate-1 1
    expect_equal "$(drive 01)" "1 of 1 readers answered
gate-1 1A2B3C 01 [0]"
}

tells_why_a_reader_does_not_answer() {
    start_broker
    start_service gate-1 2 --reader id=1A2B3C,reply=none --reader id=2B0001 --
    mosquitto_pub -V 5 -p "$port" -q 1 -r -t gvusb/gate-1/readers/77 -m '{"connected": true}'
    drive 01 >"$folder/seen"
    sed -i -E 's/(absent: ).*/\1.../' "$folder/seen"
    expect_equal "$(cat "$folder/seen")" "1 of 3 readers answered
gate-1 1A2B3C failed: GVUSB: (-1130) timeout
gate-1 2B0001 01
gate-1 77 absent: ... [1]"
}

gives_up_on_a_service_that_does_not_respond() {
    start_broker
    start_service gate-1 1 --reader id=1A2B3C --
    start_service gate-2 1 --reader id=2B0001 --
    kill -STOP "$(process gate-1)"
    expect_equal "$(drive 01)" "1 of 2 readers answered
gate-1 1A2B3C no answer
gate-2 2B0001 01 [1]"
    kill -CONT "$(process gate-1)"
}

asks_busy_readers_again() {
    start_broker
    echo "at 0 delay 1 in 300" >"$folder/script"
    start_service gate-1 1 --reader id=1A2B3C --script "$folder/script" -- --queue 1
    mosquitto_sub -V 5 -p "$port" -t 'gvusb-answers/#' -F '%P' >"$folder/answers" 2>&1 &
    children+=($!)
    local runs=() i
    for i in 1 2 3 4 5; do
        "${example[@]}" localhost "$port" "0$i" >"$folder/run.$i" 2>&1 &
        runs+=($!)
    done
    for i in 1 2 3 4 5; do
        wait "${runs[i - 1]}" || fail "run $i failed: $(cat "$folder/run.$i")"
        expect_equal "$(cat "$folder/run.$i")" "gate-1 1A2B3C 0$i
1 of 1 readers answered"
    done
    grep -q busy "$folder/answers" || fail "the reader was never busy: $(cat "$folder/answers")"
}

does_not_repeat_what_may_have_run() {
    start_broker
    echo "at 0 delay 1 in 2500" >"$folder/script"
    start_service gate-1 1 --reader id=1A2B3C --script "$folder/script" --
    mosquitto_sub -V 5 -p "$port" -t 'gvusb/gate-1/readers/1A2B3C/transceive' -C 1 >/dev/null &
    local requested=$!
    drive 01 >"$folder/seen" &
    local run=$!
    wait "$requested"
    sleep 0.5
    kill -KILL "$(process gate-1)"
    start_service gate-1 1 --reader id=1A2B3C --
    wait "$run"
    sed -i -E 's/(unknown: ).*/\1.../' "$folder/seen"
    expect_equal "$(cat "$folder/seen")" "0 of 1 readers answered
gate-1 1A2B3C unknown: ... [1]"
}

rejects_what_is_no_frame() {
    start_broker
    expect_equal "$(drive 0x | sed 's/.*\[/[/')" "[1]"
    [ ! -s "$folder/output" ] || grep -q drive_fleet "$folder/output" || fail "no message: $(cat "$folder/output")"
    local closed=$port
    kill "${children[0]}"
    wait "${children[0]}" || true
    children=()
    port=$closed
    expect_equal "$(drive 01 | sed 's/.*\[/[/')" "[1]"
    grep -q "^drive_fleet: .*refused" "$folder/output" || fail "no message: $(cat "$folder/output")"
}

"$case"
