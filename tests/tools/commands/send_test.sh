#!/usr/bin/env bash
# Tests of `gvusb send`.
source "$(dirname "$0")/../testing.sh"

prints_the_answer() {
    for id in A1 b2 0xB2; do
        on_bus send $id 02 0007 ff:01
        expect_status 0
        expect_output '02 00 07 FF 01'
        expect_errors ''
    done
}

writes_json() {
    on_bus send A1 0x02 0x00 --json
    expect_status 0
    expect_equal "without the time" "$(sed 's/"ms":[0-9.]*}/"ms":T}/' "$scratch/output")" \
        '{"sent":"0200","received":"0200","ms":T}'
}

prints_an_empty_line_for_an_empty_answer() {
    shell_on_bus 'bus "short 1 in 0"; "$gvusb" send A1 02'
    expect_status 0
    expect_equal "the output" "$(od -An -c "$scratch/output" | tr -d ' ')" '\n'
}

reports_a_time_out() {
    shell_on_bus 'bus "mute 1 in"; "$gvusb" send A1 02 --timeout 30'
    expect_status 3
    expect_output ''
    expect_errors 'gvusb: reader A1: GVUSB: (-1130) timeout [GVUSB_ERR_TIMEOUT]'
    shell_on_bus 'bus "mute 1 in"; "$gvusb" send A1 02 --timeout 30 --json'
    expect_status 3
    expect_in_output '"sent":"02","code":-1130,"error":"GVUSB: (-1130) timeout","ms":[0-9.]*,"name":"GVUSB_ERR_TIMEOUT"}$'
}

waits_as_long_as_the_time_out_allows() {
    shell_on_bus 'bus "delay 1 in 1200"; "$gvusb" send A1 02'
    expect_status 3
    shell_on_bus 'bus "delay 1 in 1200"; "$gvusb" send A1 02 --timeout 30000'
    expect_status 0
}

reports_other_failures() {
    shell_on_bus 'bus "stall 1 out stuck"; "$gvusb" send A1 02'
    expect_status 1
    expect_errors 'gvusb: reader A1: GVUSB: (-1139) bulk transfer error [GVUSB_ERR_BULK_TRANSFER]'
    shell_on_bus 'bus "busy 1 on"; "$gvusb" send A1 02'
    expect_status 1
    expect_in_errors '(-1145) interface cannot be claimed'
    on_bus send C3 02
    expect_status 4
}

reports_that_the_reader_is_gone() {
    shell_on_bus '"$gvusb" send A1 02 --repeat 1000000 --keep-going >"$scratch/answers" &
        await test -s "$scratch/answers"; bus "unplug 1"; wait $!; status=$?; cat "$scratch/answers"; exit $status'
    expect_status 4
    expect_errors 'gvusb: reader A1: GVUSB: (-1137) device is not present [GVUSB_ERR_NOT_PRESENT]'
    expect_in_output '^failed           1$'
}

reads_frames_from_standard_input() {
    shell_on_bus 'printf "02 00\n\n  # a comment\n0x07\r\nFF" | "$gvusb" send A1'
    expect_status 0
    expect_output '02 00
07
FF'
    shell_on_bus '"$gvusb" send A1 </dev/null'
    expect_status 0
    expect_output ''
}

names_the_line_of_an_invalid_frame() {
    shell_on_bus 'printf "02\n\n0x0\n03\n" | "$gvusb" send A1'
    expect_status 2
    expect_output '02'
    expect_errors "gvusb: standard input, line 3: '0x0' is not a hexadecimal frame"
}

stops_at_the_first_failure() {
    shell_on_bus 'bus "mute 1 in"; printf "02\n03\n" | "$gvusb" send A1 --timeout 20'
    expect_status 3
    shell_on_bus 'bus "mute 1 in"; printf "02\n03\n" | "$gvusb" send A1 --timeout 20; "$emulate" --send "frames 1"'
    expect_in_output '^ok 1 '
}

keeps_going() {
    shell_on_bus 'bus "mute 1 in"
        printf "02\n03\n" | "$gvusb" send A1 --timeout 20 --keep-going
        echo $?; "$emulate" --send "frames 1"'
    expect_in_output '^3$'
    expect_in_output '^ok 2 '
    expect_equal "lines of errors" "$(grep -c timeout "$scratch/errors")" 2
}

prints_how_long_exchanges_took() {
    on_bus send A1 02 --repeat 20
    expect_status 0
    expect_equal "without the times" "$(sed 's/[0-9]*\.[0-9]* ms/T/' "$scratch/output")" \
        '02
answered         20
failed           0
minimum          T
median           T
99th percentile  T
maximum          T'
    expect_errors ''
}

draws_a_histogram_in_a_terminal() {
    in_terminal 'stty cols 60; "$gvusb" send A1 02 --repeat 30' </dev/null
    expect_status 0
    expect_in_output '^ *[0-9.]* to  *[0-9.]* ms  #'
    [ "$(tr -d '\r' <"$scratch/output" | grep ' to ' | wc -L)" -le 60 ] || fail "too wide: $output"
    on_bus send A1 02 --repeat 30
    expect_not_in_output ' to '
}

repeats_in_json() {
    on_bus send A1 02 --repeat 3 --json
    expect_status 0
    expect_equal "without the times" "$(sed 's/:[0-9]*\.[0-9]*/:T/g' "$scratch/output")" \
        '{"sent":"02","received":"02","ms":T}
{"sent":"02","received":"02","ms":T}
{"sent":"02","received":"02","ms":T}
{"summary":{"answered":3,"failed":0,"ms":{"minimum":T,"median":T,"p99":T,"maximum":T}}}'
}

summarizes_failures_without_times() {
    shell_on_bus 'bus "mute 1 in"; "$gvusb" send A1 02 --timeout 20 --repeat 2 --keep-going'
    expect_status 3
    expect_output 'answered  0
failed    2'
}

prints_answers_that_change() {
    shell_on_bus '"$gvusb" send A1 02 --repeat 1000000 >"$scratch/answers" &
        await test -s "$scratch/answers"
        bus "reply 1 fixed:0909"; await contains "$scratch/answers" "^09 09$"
        kill -INT $!; wait $!; echo $?'
    expect_output 0
    expect_equal "the answers" "$(head -n 2 "$scratch/answers")" '02
09 09'
}

sends_standard_input_repeatedly() {
    shell_on_bus 'printf "02\n03\n" | "$gvusb" send A1 --repeat 4; "$emulate" --send "frames 1"'
    expect_in_output '^answered         8$'
    expect_in_output '^ok 8 '
}

prints_the_summary_on_a_signal() {
    for signal in INT TERM; do
        rm -f "$scratch/answers" # do not mistake the previous round's answers for this one's
        shell_on_bus '"$gvusb" send A1 02 --repeat 1000000 >"$scratch/answers" &
            await test -s "$scratch/answers"; kill -'$signal' $!; wait $!; echo $?'
        expect_output 0
        expect_equal "the last line" "$(tail -n 1 "$scratch/answers" | sed 's/[0-9.]* ms/T/')" 'maximum          T'
    done
}

ends_on_a_signal_while_waiting_for_input() {
    shell_on_bus 'mkfifo "$scratch/frames"; "$gvusb" send A1 <"$scratch/frames" >"$scratch/answers" &
        exec 3>"$scratch/frames"; echo 02 >&3; await test -s "$scratch/answers"; kill -INT $!; wait $!; echo $?'
    expect_output 0
}

ends_quietly_when_its_output_is_closed() {
    shell_on_bus 'printf "%s\n" 02 03 04 05 >"$scratch/frames"
        { "$gvusb" send A1 --json --repeat 200000 <"$scratch/frames"; echo $? >"$scratch/status"; } | head -n 1'
    expect_in_output '^{"sent":"02"'
    expect_errors ''
    expect_equal "exit status" "$(cat "$scratch/status")" 0
}

reports_output_that_cannot_be_written() {
    shell_on_bus '"$gvusb" send A1 02 >/dev/full'
    expect_status 1
    expect_errors 'gvusb: standard output: No space left on device'
    shell_on_bus '"$gvusb" send A1 02 >&-'
    expect_status 1
    expect_errors 'gvusb: standard output: Bad file descriptor'
}

rejects_invalid_command_lines() {
    for arguments in 'A1 0' 'A1 xy' 'A1 02 --timeout 0' 'A1 02 --timeout x' 'A1 02 --repeat 0' 'xyz 02' \
        'A1 02 --color'; do
        # shellcheck disable=SC2086
        on_bus send $arguments
        expect_status 2
        expect_output ''
        expect_in_errors "^Run 'gvusb send --help' for more.$"
    done
}

drops_a_late_answer() {
    for reader in A1 B2; do
        shell_on_bus 'bus "delay all in 300"
            "$gvusb" send '$reader' 01 --timeout 100; echo $?; "$gvusb" send '$reader' 02'
        expect_output '3
02'
    done
    # An answer that another program left behind.
    shell_on_bus 'bus "delay 1 in 400"; "$gvusb" send A1 01 --timeout 100 --no-drain
        bus "delay 1 in 0"; "$gvusb" send A1 02'
    expect_output 02
    # Without dropping it, the late answer is taken for the next one's.
    shell_on_bus 'bus "delay 1 in 400"; "$gvusb" send A1 01 --timeout 100 --no-drain; "$gvusb" send A1 02 --no-drain'
    expect_output 01
}

drops_late_answers_before_every_frame() {
    shell_on_bus 'bus "delay 1 in 150"
        printf "01\n02\n03\n" | "$gvusb" send A1 --timeout 50 --keep-going --drain --json | sed "s/,\"ms.*//"
        bus "delay 1 in 0"; "$gvusb" send A1 04'
    expect_output '{"sent":"01","code":-1130,"error":"GVUSB: (-1130) timeout"
{"sent":"02","code":-1130,"error":"GVUSB: (-1130) timeout"
{"sent":"03","code":-1130,"error":"GVUSB: (-1130) timeout"
04'
    on_bus send A1 02 --drain --no-drain
    expect_status 2
}

says_at_once_that_it_stops() {
    shell_on_bus 'bus "mute 1 in"; env --default-signal=INT "$gvusb" send A1 02 --timeout 600000 2>"$scratch/complaints" &
        waits() { "$emulate" --send "frames 1" | grep -q "^ok 1 "; }
        await waits; kill -INT $!; await contains "$scratch/complaints" .
        kill -INT $!; wait $!; echo $?'
    expect_output 130
    expect_equal "standard error" "$(cat "$scratch/complaints")" \
        'gvusb: stopping after this exchange; another signal stops at once'
}

prints_long_answers() {
    shell_on_bus 'head -c 70000 /dev/zero | od -An -v -tx1 | tr -d " \n" | "$gvusb" send A1 | tr -d " \n" | wc -c'
    expect_errors ''
    expect_output 140000
    # The answer fills the buffer exactly.
    shell_on_bus 'bus "reply 1 pattern:65536"; "$gvusb" send A1 01 --timeout 500 | wc -w'
    expect_output 65536
    shell_on_bus 'bus "reply 1 pattern:70000"; "$gvusb" send A1 01 | wc -w'
    expect_output 70000
}

# Type lines at the prompt, each after the prompt for it.
type_lines() { # LINE...
    local number=1
    for line in "$@"; do
        for _ in $(seq 500); do
            [ "$(grep -o '> ' "$scratch/output" 2>/dev/null | wc -l)" -ge $number ] && break
            sleep 0.02
        done
        printf '%s\n' "$line"
        number=$((number + 1))
    done
    sleep 0.2
    printf '\004'
    exec sleep 10 2>/dev/null # the end of standard input would close the terminal
}

prompts_in_a_terminal() {
    in_terminal 'exec "$gvusb" send A1' < <(type_lines '01' 'xyz' '02 03')
    expect_status 2
    expect_in_output '^A1> '
    expect_in_output "gvusb: 'xyz' is not a hexadecimal frame"
    expect_equal "answers" "$(tr -d '\r' <"$scratch/output" | grep -cE '^(01|02 03)$')" 2
}

ends_on_the_interrupt_key() {
    in_terminal 'exec "$gvusb" send A1 02 --repeat 1000000' < <(
        until grep -q '^02' "$scratch/output" 2>/dev/null; do sleep 0.05; done
        printf '\003'
        exec sleep 10 2>/dev/null # the end of standard input would close the terminal
    )
    expect_status 0
    expect_in_output '^maximum '
}

run_case
