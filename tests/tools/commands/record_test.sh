#!/usr/bin/env bash
# Tests of `gvusb record`. CAPTURE_TEXT prints what a recording holds. KILLED_WRITER runs a program after a process that was
# killed while it wrote.
source "$(dirname "$0")/../testing.sh"

file=$scratch/session.pcapng
export file

# Print what the recording holds.
read_recording() {
    "$CAPTURE_TEXT" "$file" >"$scratch/text" || fail "the recording cannot be read"
}

# Compare it with what tshark reads.
read_by_tshark() {
    read_recording
    if ! command -v tshark >/dev/null; then
        echo "tshark is not installed" >&2
        exit 77
    fi
    tshark -r "$file" -T fields -E separator=, -e _ws.malformed -e usb.urb_type -e usb.request_in \
        >"$scratch/tshark" 2>"$scratch/tshark.errors" || fail "$(cat "$scratch/tshark.errors")"
    expect_equal "tshark's number of packets" "$(wc -l <"$scratch/tshark") packets" "$(tail -n 1 "$scratch/text")"
    expect_equal "the malformed packets" "$(grep -v '^,' "$scratch/tshark")" ''
    expect_equal "the completions without a submission" "$(grep "^,'C',$" "$scratch/tshark")" ''
    expect_equal "the other packets" "$(grep -v "^,'[SC]'," "$scratch/tshark")" ''
}

expect_recorded() { # PATTERN
    grep -q -e "$1" "$scratch/text" || fail "'$1' is not in the recording: $(cat "$scratch/text")"
}

expect_not_recorded() { # PATTERN
    ! grep -q -e "$1" "$scratch/text" || fail "'$1' is in the recording: $(cat "$scratch/text")"
}

writes_bulk_transfers() {
    on_bus record -o "$file" -- "$gvusb" send A1 02 00 07 FF 01
    expect_status 0
    expect_output '02 00 07 FF 01'
    expect_errors ''
    read_by_tshark
    expect_recorded '^device 1-1 1/2 1209:0001 '
    expect_recorded '^transfer 1-1 type 3 endpoint 02 status 0 actual 5 out 020007FF01 in -$'
    expect_recorded '^transfer 1-1 type 3 endpoint 81 status 0 actual 5 out - in 020007FF01$'
    expect_recorded '^event open 1-1 = 0$'
    expect_recorded '^event claim 1-1 = 0$'
    expect_recorded '^event call GVUSB_Transceive(.*sends 5 bytes, room for 65536 bytes) = 5$'
    expect_not_recorded '^note'
    expect_equal "the permissions" "$(stat -c %a "$file")" 600
}

writes_control_transfers() {
    on_bus record -o "$file" -- "$gvusb" send B2 02 00
    read_by_tshark
    expect_recorded '^transfer 1-2 type 2 endpoint 00 status 0 actual 2 out 0200 in -$'
    expect_recorded '^transfer 1-2 type 2 endpoint 80 status 0 actual 2 out - in 0200$'
}

keeps_output_and_exit_status() {
    on_bus record -o "$file" -- bash -c 'echo out; echo err >&2; exit 7'
    expect_status 7
    expect_output out
    expect_in_errors '^err$'
    expect_in_errors 'nothing was recorded'
    on_bus record -o "$file" -- bash -c 'kill -9 $$'
    expect_status 137
    on_bus record -o "$file" -- no-such-program
    expect_status 127
    expect_in_errors '^gvusb: no-such-program: No such file or directory$'
    on_bus record -o "$file" -- /etc/passwd
    expect_status 126
}

records_failures() {
    shell_on_bus 'bus "mute 1 in"; "$gvusb" record -o "$file" -- "$gvusb" send A1 02 --timeout 30 --no-drain'
    expect_status 3
    read_recording
    expect_recorded '^transfer 1-1 type 3 endpoint 81 status -2 actual 0 out - in -$'
    expect_recorded '^event discard 1-1 = 0$'
    expect_recorded '^event call GVUSB_Transceive.* = -1130$'
    shell_on_bus 'bus "busy 1 on"; "$gvusb" record -o "$file" -- "$gvusb" send A1 02 --no-drain'
    read_recording
    expect_recorded '^event claim 1-1 = -16$'
    shell_on_bus 'bus "stall 1 out"; "$gvusb" record -o "$file" -- "$gvusb" send A1 02 --no-drain'
    read_recording
    expect_recorded '^transfer 1-1 type 3 endpoint 02 status -32 actual 0 out 02 in -$'
}

records_readers_that_cannot_be_opened() {
    shell_on_bus 'bus "refuse 1 EACCES"; "$gvusb" record -o "$file" -- "$gvusb" list'
    read_recording
    expect_recorded '^device 1-1 1/2 1209:0001 '
    expect_recorded '^event open 1-1 = -13$'
}

records_readers_that_come_and_go() {
    shell_on_bus '"$gvusb" record -o "$file" -- bash -c "
        \"\$gvusb\" monitor --count 2 --idle-timeout 20 >\$scratch/events &
        sleep 1; \"\$emulate\" --send \"unplug 1\"; sleep 0.5; \"\$emulate\" --send \"plug 1\"; wait"'
    read_by_tshark
    expect_recorded '^device 1-1 1/2 1209:0001 left A1$'
    expect_recorded '^device 1-1 1/[0-9]* 1209:0001 came A1$'
    expect_recorded '^event left 1-1$'
    expect_recorded '^event came 1-1$'
    expect_equal "the number of departures" "$(grep -c '^event left' "$scratch/text")" 1
    expect_equal "the number of arrivals" "$(grep -c '^event came' "$scratch/text")" 1
}

records_children_beside_each_other() {
    shell_on_bus '"$gvusb" record -o "$file" -- bash -c "
        \"\$gvusb\" send A1 01 --repeat 500 >/dev/null & \"\$gvusb\" send B2 02 --repeat 500 >/dev/null & wait"'
    expect_status 0
    read_recording
    expect_equal "the frames to A1" "$(grep -c '^transfer 1-1 .*endpoint 02 status 0 .* out 01 in -$' "$scratch/text")" 500
    expect_equal "the frames to B2" "$(grep -c '^transfer 1-2 .*endpoint 00 status 0 .* out 02 in -$' "$scratch/text")" 500
    expect_not_recorded '^note'
}

rides_around_the_virtual_readers() {
    keep "$gvusb" record -o "$file" -- "$emulate" "${configuration[@]}" "${readers[@]}" -- "$gvusb" send A1 02 07
    expect_status 0
    expect_output '02 07'
    read_recording
    expect_recorded '^transfer 1-1 type 3 endpoint 02 status 0 actual 2 out 0207 in -$'
}

can_be_read_when_the_program_is_killed() {
    shell_on_bus '"$gvusb" record -o "$file" -- bash -c "
        \"\$gvusb\" send A1 02 --repeat 1000000 >/dev/null & sleep 0.5; kill -9 \$!; wait; exit 0"'
    expect_status 0
    read_recording
    expect_recorded '^event end = 0$'
    expect_recorded ' endpoint 02 status 0 actual 1 out 02 in -$'
}

can_be_read_when_the_recorder_is_killed() {
    shell_on_bus '"$gvusb" record -o "$file" -- "$gvusb" send A1 02 --repeat 20000 >"$scratch/sent" &
        await test -s "$file"; sleep 0.3; kill -9 $!; wait $! 2>/dev/null
        await grep -q median "$scratch/sent"; grep -q "^failed  *0$" "$scratch/sent"'
    expect_status 0
    read_by_tshark
    expect_recorded ' endpoint 02 status 0 actual 1 out 02 in -$'
    expect_recorded '^note: the recording has no end: the recorder was killed'
}

redacts_frames() {
    on_bus record -o "$file" --redact -- "$gvusb" send A1 02 00 07 FF 01
    expect_output '02 00 07 FF 01'
    read_recording
    expect_recorded ' endpoint 02 status 0 actual 5 out 5245444143 in - redacted$'
    expect_recorded ' endpoint 81 status 0 actual 5 out - in 5245444143 redacted$'
    expect_not_recorded 020007FF01
    expect_recorded '^device 1-1 1/2 1209:0001 A1$'
    on_bus record -o "$file" --redact -- "$gvusb" send B2 02 00 07 FF 01
    read_recording
    expect_recorded '^transfer 1-2 type 2 endpoint 00 .* out 5245444143 in - redacted$'
    expect_not_recorded 020007FF01
}

redacts_frames_that_match() {
    shell_on_bus '"$gvusb" record -o "$file" --redact-matching "04 ?? A1" --redact-matching 77 -- \
        bash -c "\"\$gvusb\" send A1 01 04 99 A1 02; \"\$gvusb\" send A1 04 A1; \"\$gvusb\" send A1 77"'
    read_by_tshark
    expect_not_recorded 010499A102
    expect_recorded ' out 5245444143 in - redacted$'
    expect_recorded ' out 52 in - redacted$'
    expect_recorded ' out 04A1 in -$'
}

ends_at_the_largest_size() {
    on_bus record -o "$file" --max-size 100k -- "$gvusb" send A1 02 --repeat 5000
    expect_status 0
    expect_in_errors 'the recording has reached its largest size; the program goes on without being recorded'
    expect_in_output '^answered  *5000$'
    read_by_tshark
    expect_recorded '^event limit$'
    expect_recorded '^note: the recording reached its largest size'
    local size
    size=$(stat -c %s "$file")
    [ "$size" -le 102400 ] && [ "$size" -ge 90000 ] || fail "the file has $size bytes"
}

writes_to_standard_output() {
    shell_on_bus '"$gvusb" record -o - -- "$gvusb" send A1 02 07 >"$file"'
    expect_status 0
    expect_errors '02 07'
    read_recording
    expect_recorded ' endpoint 02 status 0 actual 2 out 0207 in -$'
}

ends_at_a_signal() {
    shell_on_bus '"$gvusb" record -o "$file" --until-signal -- bash -c "
            \"\$gvusb\" send A1 01; touch \$scratch/sent; while ! test -e \$scratch/go; do sleep 0.05; done
            \"\$gvusb\" send A1 02; exit 5" &
        await test -e "$scratch/sent"; kill -INT $!; await contains "$scratch/errors" "goes on"
        cp "$file" "$scratch/then"; touch "$scratch/go"; wait $!; status=$?; cmp "$file" "$scratch/then"; exit $status'
    expect_status 5
    expect_output "01
02"
    expect_errors 'gvusb: note: the recording is complete; the program goes on'
    read_recording
    expect_recorded ' endpoint 02 status 0 actual 1 out 01 in -$'
    expect_not_recorded ' out 02 in '
    expect_recorded '^event end$'
}

passes_signals_on() {
    shell_on_bus '"$gvusb" record -o "$file" -- bash -c "trap \"exit 9\" TERM; touch \$scratch/ready
            while :; do sleep 0.05; done" & await test -e "$scratch/ready"; kill -TERM $!; wait $!'
    expect_status 9
    shell_on_bus '"$gvusb" record --until-signal -o "$file" -- sleep 100 & sleep 1; kill $!
        await contains "$scratch/errors" "goes on"; kill $!; wait $!'
    expect_status 143
}

leaves_readers_to_the_program() {
    configure 'gvusb_hotplug=1 gvusb_updaterate=10'
    shell_on_bus 'before=$("$emulate" --send "counts 1"); "$gvusb" record -o "$file" -- sleep 1
        test "$before" = "$("$emulate" --send "counts 1")"'
    expect_status 0
    # The configuration that the environment names is the program's.
    echo gvusb_hotplug=2 >"$scratch/other.conf"
    shell_on_bus 'GVUSB_CONFIG=$scratch/other.conf "$gvusb" record -o "$file" -- bash -c \
        "echo \$GVUSB_CONFIG; env | grep -c KEPT"'
    expect_output "$scratch/other.conf
0"
    # No descriptor is handed on.
    shell_on_bus 'ls /proc/self/fd >"$scratch/before"; "$gvusb" record -o "$file" -- bash -c \
        "echo \${GVUSB_CONFIG-unset}; ls /proc/self/fd" | diff - "$scratch/before"'
    expect_output '1d0
< unset'
}

needs_bounded_memory() {
    # The recorded program prints the most memory that its parent, the recorder, has had.
    on_bus record -o "$file" -- bash -c '"$gvusb" send A1 02 --no-drain --repeat 100000 >/dev/null
        sed -n "s/^VmHWM:[ \t]*\([0-9]*\) kB/\1/p" /proc/$PPID/status'
    expect_status 0
    [ "$output" -lt 65536 ] || fail "the recorder took $output KiB"
    "$CAPTURE_TEXT" "$file" >"$scratch/text"
    expect_equal "the frames" "$(grep -c ' endpoint 02 status 0 actual 1 out 02 in -$' "$scratch/text")" 100000
    expect_not_recorded '^note'
}

rejects_invalid_command_lines() {
    keep "$gvusb" record -- true
    expect_status 2
    keep "$gvusb" record -o "$file"
    expect_status 2
    keep "$gvusb" record -o "$file" --max-size 10 -- true
    expect_status 2
    expect_in_errors "'10' is not a size"
    keep "$gvusb" record -o "$file" --redact-matching 0G -- true
    expect_status 2
    expect_in_errors "'0G' is not a pattern"
    keep "$gvusb" record -o "$scratch/missing/file" -- true
    expect_status 1
    expect_errors "gvusb: $scratch/missing/file: No such file or directory"
}

refuses_a_file_that_cannot_be_written() {
    on_bus record -o /dev/full -- "$gvusb" send A1 02
    expect_status 1
    expect_output ''
    expect_in_errors '/dev/full: No space left on device'
}

# A few hundred exchanges of such frames fill the ring.
long_frame=$(printf 'AB%.0s' $(seq 4000))
export long_frame

goes_on_when_the_file_cannot_grow() {
    # Enough for the memory that the recorder shares with the program.
    shell_on_bus 'ulimit -f 8192; "$gvusb" record -o "$file" -- "$gvusb" send A1 "$long_frame" --repeat 3000 |
        grep "^failed  *0$"'
    expect_status 0
    expect_in_errors 'File too large; the recording ends here'
}

goes_on_when_nobody_reads_the_recording() {
    shell_on_bus '"$gvusb" record -o - -- "$gvusb" send A1 "$long_frame" --repeat 3000 2>"$scratch/sent" | sleep 1
        grep -q "^failed  *0$" "$scratch/sent"'
    expect_status 0
}

goes_on_after_the_recording_has_ended() {
    shell_on_bus '"$gvusb" record --until-signal -o "$file" -- "$gvusb" send A1 "$long_frame" --repeat 3000 >"$scratch/sent" &
        await test -s "$file"; kill -TERM $!; wait $!; grep -q "^failed  *0$" "$scratch/sent"'
    expect_status 0
}

goes_on_with_all_threads_when_the_recorder_is_killed() {
    shell_on_bus '"$gvusb" record -o "$file" -- bash -c "\"\$gvusb\" send A1 \$long_frame --repeat 3000 >\"\$scratch/one\" &
            \"\$gvusb\" send B2 \${long_frame:0:4000} --repeat 3000 >\"\$scratch/two\" & wait" &
        await test -s "$file"; kill -STOP $!; sleep 1; kill -9 $!; wait $! 2>/dev/null
        await grep -q "^failed  *0$" "$scratch/one"; await grep -q "^failed  *0$" "$scratch/two"
        grep -q "^failed  *0$" "$scratch/one" && grep -q "^failed  *0$" "$scratch/two"'
    expect_status 0
}

goes_on_when_a_process_is_killed_while_it_writes() {
    on_bus record -o "$file" -- "$KILLED_WRITER" "$gvusb" send A1 02 00 07
    expect_status 0
    expect_output '02 00 07'
    read_by_tshark
    expect_recorded '^transfer 1-1 type 3 endpoint 02 status 0 actual 3 out 020007 in -$'
    expect_recorded '^transfer 1-1 type 3 endpoint 81 status 0 actual 3 out - in 020007$'
    expect_not_recorded '^note'
}

keeps_an_earlier_recording_when_there_is_no_program() {
    echo earlier >"$file"
    on_bus record -o "$file" -- no-such-program
    expect_status 127
    expect_errors 'gvusb: no-such-program: No such file or directory'
    on_bus record -o "$file" -- ./no-such-program
    expect_status 127
    on_bus record -o "$file" -- /etc/passwd
    expect_status 126
    expect_errors 'gvusb: /etc/passwd: Permission denied'
    expect_equal "the file" "$(cat "$file")" earlier
}

hides_a_file_that_was_there_from_others() {
    : >"$file"
    chmod 644 "$file"
    on_bus record -o "$file" -- true
    expect_equal "the permissions" "$(stat -c %a "$file")" 600
}

ends_where_ended_children_are_ignored() {
    shell_on_bus 'env --ignore-signal=CHLD "$gvusb" record -o "$file" -- sh -c "exit 7"'
    expect_status 7
}

refuses_to_preload_from_a_folder_with_a_blank() {
    mkdir "$scratch/two words"
    cp "$gvusb" "$(dirname "$gvusb")/libgvusb-record-preload.so" "$scratch/two words"
    keep "$scratch/two words/gvusb" record -o "$file" -- true
    expect_status 1
    expect_in_errors 'a path with a blank or a colon cannot be preloaded'
}

# The setup packet asks to send 64 bytes, the buffer ends after 8.
leaves_out_what_is_behind_the_end_of_a_buffer() {
    on_bus record -o "$file" -- python3 - <<'END'
import ctypes
import fcntl
import glob
import struct


class Urb(ctypes.Structure):
    _fields_ = [
        ("type", ctypes.c_ubyte), ("endpoint", ctypes.c_ubyte), ("status", ctypes.c_int), ("flags", ctypes.c_uint),
        ("buffer", ctypes.c_void_p), ("buffer_length", ctypes.c_int), ("actual_length", ctypes.c_int), ("rest", ctypes.c_int * 4),
        ("context", ctypes.c_void_p)]


libc = ctypes.CDLL(None)
memory = ctypes.create_string_buffer(struct.pack("<BBHHH", 0x40, 0, 0, 0, 64) + b"\x5A" * 64)
urb = Urb(type=2, buffer=ctypes.addressof(memory), buffer_length=8)
submit = 2 << 30 | ctypes.sizeof(Urb) << 16 | ord("U") << 8 | 10
with open(sorted(glob.glob("/dev/bus/usb/001/*"))[-1], "r+b", buffering=0) as node:
    assert libc.ioctl(node.fileno(), ctypes.c_ulong(submit), ctypes.byref(urb)) == -1
END
    expect_status 0
    read_recording
    expect_recorded ' type 2 endpoint 00 status -22 .* out - '
    expect_not_recorded 5A5A
}

# subprocess.run() closes descriptors in a child that shares the memory of its parent.
leaves_out_what_a_child_before_its_exec_closes() {
    on_bus record -o "$file" -- python3 - <<'END'
import fcntl
import glob
import subprocess

capabilities = 0x8004551A
with open(sorted(glob.glob("/dev/bus/usb/001/*"))[-1], "r+b", buffering=0) as node:
    fcntl.ioctl(node, capabilities, bytes(4))
    subprocess.run(["true"], check=True)
    fcntl.ioctl(node, capabilities, bytes(4))
END
    expect_status 0
    read_recording
    expect_equal "the openings" "$(grep -c '^event open ' "$scratch/text")" 1
    expect_equal "the closings" "$(grep -c '^event close ' "$scratch/text")" 1
}

run_case
