#!/bin/sh
# Tests of playing captures, with the launcher and programs of the library.
#
#   replay_test.sh LAUNCHER MAKE_RECORDING EXAMPLES_FOLDER PROJECT CASE
# shellcheck source=tests/emulator/testing.sh
. "$(dirname "$0")/../testing.sh"
emulate=$1 make_recording=$2 programs=$3 project=$4
exchange=$programs/exchange_frame

record() { # SCENARIO
    "$make_recording" "$1" "$scratch/session.pcapng" || fail "cannot make $1"
}

play() { # WANTED-STATUS OPTIONS... -- PROGRAM...
    wanted=$1
    shift
    "$emulate" --replay "$scratch/session.pcapng" "$@" >"$scratch/output" 2>"$scratch/error"
    expect_equal "exit status of: $*" $? "$wanted"
}

expect_output() { # LINES
    expect_equal output "$(cat "$scratch/output")" "$1"
}

expect_quiet() {
    expect_equal "standard error" "$(cat "$scratch/error")" ""
}

expect_error() { # PATTERN
    grep -q -e "$1" "$scratch/error" || fail "no '$1' in: $(cat "$scratch/error")"
}

answers_as_recorded() {
    record exchanges
    for options in '' '--replay-mode strict' '--replay-speed 0' '--replay-mode strict --replay-speed 0'; do
        # shellcheck disable=SC2086
        play 0 $options -- sh -c '"$0" CAFE 01; "$0" CAFE 02; "$0" CAFE 01' "$exchange"
        expect_output "$(printf '0A\n0B\n0C')"
        expect_quiet
    done
    play 0 -- sh -c '"$0" CAFE 02; "$0" CAFE 02; "$0" CAFE 01; "$0" CAFE 01; "$0" CAFE 01' "$exchange"
    expect_output "$(printf '0B\n0B\n0A\n0C\n0C')"
    "$emulate" --replay - -- "$exchange" CAFE 02 <"$scratch/session.pcapng" >"$scratch/output" 2>&1
    expect_output 0B
}

shows_the_reader_at_its_place() {
    record exchanges
    play 0 -- sh -c '"$0" --send list; cat /sys/bus/usb/devices/1-2.3/devnum \
        /sys/bus/usb/devices/1-2.3/devpath; ls /sys/bus/usb/devices' "$emulate"
    expect_output "$(printf 'ok 1 1209:0001 001/005 CAFE\n5\n2.3\n1-0:1.0\n1-2\n1-2.3\n1-2.3:1.0\n1-2:1.0\nusb1')"
}

reports_what_the_recording_lacks() {
    record exchanges
    play 1 -- sh -c '"$0" CAFE 01; "$0" CAFE 03 04; "$0" CAFE 03 04; true' "$exchange"
    expect_error '^gvusb-emulate: reader 1 (CAFE): the recording has no such request, so it is not answered: endpoint 0x02, 2 bytes: 0304$'
    expect_equal reports "$(grep -c 'no such request' "$scratch/error")" 1
    play 0 --lenient -- sh -c '"$0" CAFE 03 04; true' "$exchange"
}

strict_mode_reports_differences() {
    record exchanges
    play 1 --replay-mode strict -- sh -c '"$0" CAFE 01; "$0" CAFE 01; true' "$exchange"
    expect_error 'reader 1 (CAFE): request 2 differs from the recording'
    expect_error 'recorded: endpoint 0x02, 1 byte: 02, at 0.0000.. s'
    expect_error 'now:      endpoint 0x02, 1 byte: 01, at '
    play 1 --replay-mode strict -- "$exchange" CAFE 01
    expect_error 'the program did not make request 2 of the recording: endpoint 0x02, 1 byte: 02'
    play 7 --replay-mode strict -- sh -c 'exit 7'
}

keeps_times() {
    record slow
    play 0 -- sh -c 'date +%s%N; "$0" CAFE 01; date +%s%N' "$exchange"
    passed=$(($(sed -n 3p "$scratch/output") - $(sed -n 1p "$scratch/output")))
    [ "$passed" -ge 400000000 ] || fail "the answer came after $passed ns"
    play 0 --replay-speed 0 -- "$exchange" CAFE 01
    expect_output 0A
}

readers_come_and_leave() {
    record leaves
    script='"$0" CAFE 01; while [ -e /sys/bus/usb/devices/1-2 ]; do sleep 0.01; done; echo left
        until [ -e /sys/bus/usb/devices/1-2 ]; do sleep 0.01; done; echo came; "$0" CAFE 02'
    play 0 -- sh -c "$script" "$exchange"
    expect_output "$(printf '0A\nleft\ncame\n0B')"
    play 0 --replay-mode strict -- sh -c "$script" "$exchange"
    expect_output "$(printf '0A\nleft\ncame\n0B')"
    play 0 --replay-plugging commands -- sh -c '"$0" CAFE 01; "$0" CAFE 02' "$exchange"
    expect_output "$(printf '0A\n0B')"
}

fails_where_it_failed() {
    record busy
    play 1 -- "$exchange" CAFE 01
    expect_error 'interface cannot be claimed'
    record denied
    play 1 -- "$exchange" CAFE 01
    expect_output ''
    play 1 -- cat /dev/bus/usb/001/005
    expect_error 'Permission denied'
}

takes_commands_and_scripts() {
    record exchanges
    printf 'at 0 plug id=BEEF\nat 0 push 1 77\n' >"$scratch/script"
    play 0 --script "$scratch/script" --seed 1 -- sh -c '"$0" BEEF 05; "$0" CAFE 02' "$exchange"
    expect_output "$(printf '05\n77')"
    play 0 -- sh -c '"$1" --send "unplug 1" && ! "$0" CAFE 01 && "$1" --send "plug 1" && "$0" CAFE 01' "$exchange" "$emulate"
    expect_error 'no device found\|not found\|-11'
}

plays_over_usbip() {
    record exchanges
    play 0 --usbip --listen 127.0.0.1:0 -- python3 "$project/tests/emulator/logic/usbip_exchange.py" 01 02 01
    expect_output "$(printf '0a\n0b\n0c')"
}

# Those of usbmon lack what our recordings note beside packets.
plays_captures_of_usbmon() {
    corpus=$project/tests/fuzz/corpus/captures
    for capture in pcap_189_big_endian pcap_189_little_endian pcap_220_big_endian pcap_220_little_endian; do
        cp "$corpus/$capture" "$scratch/session.pcapng"
        play 0 -- "$emulate" --send list
        grep -q '^ok 1 1209:0001 001/' "$scratch/output" || fail "$capture: $(cat "$scratch/output" "$scratch/error")"
        expect_error 'session.pcapng: the ports of readers are not in the capture, so they are chosen'
    done
}

plays_truncated_files() {
    record exchanges
    size=$(wc -c <"$scratch/session.pcapng")
    truncate -s "$((size - 150))" "$scratch/session.pcapng"
    play 0 -- "$exchange" CAFE 01
    expect_output 0A
    expect_error 'session.pcapng: the recording has no end'
}

rejects_speeds_that_are_none() {
    record exchanges
    for speed in nan inf -1 1e-300 fast; do
        play 2 --replay-speed "$speed" -- true
        expect_error "'$speed' is not a number from 0.001 to 1000000, or 0"
    done
}

reports_what_cannot_be_played() {
    play 2 -- true
    expect_error 'session.pcapng: No such file'
    echo text >"$scratch/session.pcapng"
    play 2 -- true
    expect_error 'is not a capture'
    cp "$project/tests/fuzz/corpus/captures/ethernet" "$scratch/session.pcapng"
    play 2 -- true
    expect_error 'Ethernet'
    record mouse
    play 2 -- true
    expect_error 'no reader in it'
    record exchanges
    play 2 --reader id=1 -- true
    expect_error 'replay cannot be used with --reader'
    play 2 --no-readers -- true
    play 2 --replay-mode other -- true
    play 2 --replay-speed -1 -- true
    "$emulate" --replay-mode strict -- true 2>"$scratch/error"
    expect_equal "exit status without --replay" $? 2
}

"$5"
exit "$failed"
