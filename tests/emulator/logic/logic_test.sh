#!/bin/sh
# Tests of commands that play readers, with the launcher and programs of the library.
#
#   logic_test.sh LAUNCHER EXAMPLES_FOLDER PROJECT CASE
# shellcheck source=tests/emulator/testing.sh
. "$(dirname "$0")/../testing.sh"
emulate=$1 programs=$2 project=$3
examples=$project/examples/logic

expect_status() { # WANTED COMMAND...
    wanted=$1
    shift
    "$@" >"$scratch/output" 2>"$scratch/error"
    expect_equal "exit status of: $*" $? "$wanted"
}

expect_output() { # LINES
    expect_equal output "$(cat "$scratch/output")" "$1"
}

expect_error() { # LINES
    expect_equal "standard error" "$(cat "$scratch/error")" "$1"
}

group_gone() { ! kill -0 "-$1" 2>/dev/null; }

# A command that does something for each frame.
on_frame() { # COMMANDS
    printf '%s\n' "while read -r line; do case \$line in *'\"frame\"'*) $1;; esac; done"
}


answers_a_program() {
    expect_status 0 "$emulate" --reader "id=CAFE,logic=$(on_frame 'echo "{\"send\":\"9000\"}"')" -- \
        "$programs/exchange_frame" CAFE 01
    expect_output '90 00'
    expect_error ''
    printf '# played by commands\nid=CAFE,logic=%s\n' "$(on_frame 'printf "{\"send\":\"01,02\"}\n" | tr -d ,')" >"$scratch/readers"
    expect_status 0 "$emulate" --readers "$scratch/readers" -- "$programs/exchange_frame" CAFE 01
    expect_output '01 02'
}

answers_over_usbip() {
    expect_status 0 "$emulate" --usbip --listen 127.0.0.1:0 --reader "id=CAFE,logic=python3 '$examples/checked_reader.py'" -- \
        python3 "$project/tests/emulator/logic/usbip_exchange.py" 1101ee 110101 10f0
    expect_output '0001ff
02fe
0000020001fd'
}

# shellcheck disable=SC2016 # for the program's shell
checks_and_counts() {
    expect_status 0 "$emulate" --reader "id=CAFE,logic=python3 '$examples/checked_reader.py'" -- sh -c '
        "$1" CAFE 11 01 02 EC && "$1" CAFE 11 01 02 03 && "$1" CAFE 99 67 && "$1" CAFE 10 F0' sh "$programs/exchange_frame"
    expect_output '00 01 02 FD
02 FE
01 FF
00 00 03 00 01 FC'
    expect_error ''
}

checks_and_counts_by_control() {
    expect_status 0 "$emulate" --reader "id=CAFE,endpoints=control,logic=python3 '$examples/checked_reader.py'" -- \
        "$programs/exchange_frame" CAFE 10 F0
    expect_output '00 00 01 00 00 FF'
}

reports_tags() {
    expect_status 0 "$emulate" --reader "id=CAFE,logic=python3 '$examples/tag_reader.py' 20 E2003411 E2003412" -- \
        "$programs/receive_frames" CAFE 3
    expect_output 'E2 00 34 11
E2 00 34 12
E2 00 34 11'
    expect_error ''
}

plays_each_copy() {
    # shellcheck disable=SC2016 # for the program's shell
    expect_status 0 "$emulate" --reader "id=A0,copies=3,logic=n=\$(head -n 1 | tr , '\\n' | sed -n 's/^\"copy\"://p'); $(on_frame 'echo "{\"send\":\"0$n\"}"')" -- \
        sh -c 'for id in A0 A1 A2; do "$1" $id 01; done' sh "$programs/exchange_frame"
    expect_output '01
02
03'
}

is_outside_the_bus() {
    # shellcheck disable=SC2016 # for the command's shell
    expect_status 0 "$emulate" -- "$emulate" --reader 'logic=env | grep -E "^(GVUSB_EMULATE|LD_PRELOAD)" >&2; exec cat >/dev/null' \
        -- true
    expect_error ''
    expect_status 0 env LD_PRELOAD=libdl.so.2 "$emulate" --reader 'logic=echo "$LD_PRELOAD" >&2; exec cat >/dev/null' -- true
    expect_error 'reader 1 (1A2B3C): libdl.so.2'
}

must_start() {
    expect_status 125 "$emulate" --reader 'logic=no-such-command-anywhere' -- echo started
    expect_output ''
    grep -q '^reader 1 (1A2B3C): .*no-such-command-anywhere: not found$' "$scratch/error" || fail "$(cat "$scratch/error")"
    grep -q '^gvusb-emulate: the logic of reader 1 (1A2B3C) ended with exit status 127$' "$scratch/error" ||
        fail "$(cat "$scratch/error")"
    expect_status 2 "$emulate" --reader 'id=1,logic=' -- true
    expect_error "gvusb-emulate: logic needs a command
Run 'gvusb-emulate --help' for more information."
}

unplugs_when_it_dies() {
    expect_status 1 "$emulate" --reader "id=CAFE,logic=$(on_frame 'exit 3')" -- "$programs/exchange_frame" CAFE 01
    expect_error 'gvusb-emulate: the logic of reader 1 (CAFE) ended with exit status 3
GVUSB: (-1137) device is not present'
    # The program does not fail, but the run does.
    expect_status 1 "$emulate" --reader "id=CAFE,logic=$(on_frame 'exit 0')" -- \
        sh -c '"$1" CAFE 01; "$2" --send list; exit 0' sh "$programs/exchange_frame" "$emulate"
    grep -q '^ok 1 [0-9a-f:]* unplugged CAFE$' "$scratch/output" || fail "$(cat "$scratch/output")"
    expect_status 5 "$emulate" --reader "id=CAFE,logic=$(on_frame 'exit 3')" -- sh -c '"$1" CAFE 01; exit 5' sh "$programs/exchange_frame"
}

fails_by_a_line_that_is_not_understood() {
    expect_status 1 "$emulate" --reader "id=CAFE,logic=$(on_frame 'echo answer; echo "{\"send\":\"05\"}"')" -- \
        "$programs/exchange_frame" CAFE 01
    expect_output 05
    expect_error 'gvusb-emulate: the logic of reader 1 (CAFE): not a JSON object: answer'
}

leaves_no_process() {
    # shellcheck disable=SC2016 # for the command's shell
    command="echo \$\$ >>'$scratch/groups'; trap '' TERM; sleep 1000 & exec cat >/dev/null"
    expect_status 0 "$emulate" --reader "copies=3,logic=$command" -- true
    expect_status 143 "$emulate" --reader "logic=$command" -- sh -c 'kill -TERM "$PPID"; exec sleep 1000'
    expect_equal groups "$(wc -l <"$scratch/groups")" 4
    while read -r group; do
        for _ in $(seq 250); do
            group_gone "$group" && break
            sleep 0.02
        done
        group_gone "$group" || fail "left process group $group"
    done <"$scratch/groups"
}

waits_for_all_but_commands() {
    expect_status 4 "$emulate" --wait-for-all --reader 'logic=exec cat >/dev/null' -- \
        sh -c "(sleep 0.5; '$emulate' --send list >'$scratch/late') & exit 4"
    grep -q '^ok 1 ' "$scratch/late" || fail "the bus was gone before the last process"
}

starts_for_readers_added_later() {
    expect_status 0 "$emulate" --no-readers -- sh -c '"$1" --send "plug id=CAFE,logic=$3"; "$2" CAFE 01' sh \
        "$emulate" "$programs/exchange_frame" "$(on_frame 'echo "{\"send\":\"9000\"}"')"
    expect_output 'ok 1
90 00'
}

a_silent_reader_times_out() {
    expect_status 1 "$emulate" --reader 'id=CAFE,logic=read -r hello; exec sleep 1000' -- "$programs/exchange_frame" CAFE 01
    expect_error 'GVUSB: (-1130) timeout
gvusb-emulate: killed the logic of reader 1 (CAFE), which did not end within 1 s of the end of its input'
}

export PYTHONDONTWRITEBYTECODE=1
"$4"
exit $failed
