#!/usr/bin/env bash
# Record a program on virtual readers, check that the recording is whole, and play it back:
#   record_and_replay.sh LAUNCHER TOOL CAPTURE_TEXT READERS CONFIGURATION WHAT PROGRAM
# READERS and CONFIGURATION are files, or empty. Of the words in WHAT, "matching" and "strict" are ways to play, in which the
# program prints the same as when it was recorded; "log" compares the library's log, too. "OPTION=VALUE" is for the player.
# The readers' own counts of transfers are those of the recording, unless "uncounted" is given.
set -eu
launcher=$1 tool=$2 capture_text=$3 readers=$4 configuration=$5 what=$6 program=$7
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
recording=$scratch/session.pcapng

# The addresses in the log and its times differ from run to run. How often a program scans until it sees that a reader has come
# or left depends on the time, and so do the handles after that. Devices that the program only sees are not recorded.
comparable_log() {
    LC_ALL=C sed -E -e 's/^[^:]* :: //' -e 's/0x[0-9a-f]*( owner)/\1/' -e 's/0x1[0-9a-f]{7}/HANDLE/g' -e 's/ = .* => rc=f/ => rc=f/' \
        -e '/\[(scan|ident|search-opt|scan-list|init)\] /d' "$1"
}

# run FOLDER COMMAND...: with the readers' configuration; keeps what the program prints and logs.
run() {
    local folder=$1
    shift
    mkdir "$folder"
    cat ${configuration:+"$configuration"} </dev/null >"$folder/gvusb.conf"
    case " $what " in
    *" log "*) printf 'gvusb_debuglevel=2\ngvusb_logfile=%s\n' "$folder/log" >>"$folder/gvusb.conf" ;;
    *) touch "$folder/log" ;;
    esac
    "$launcher" --config "$folder/gvusb.conf" "$@" >"$folder/output" 2>"$folder/errors" || {
        echo "exit status $?" >>"$folder/output"
    }
    comparable_log "$folder/log" >"$folder/comparable.log"
    case " $what " in
    *" log "*) [ -s "$folder/comparable.log" ] ;;
    esac
    sed -i 's/[0-9.]* ms/... ms/g' "$folder/output"
}

record() {
    run "$scratch/recorded" ${readers:+--readers "$readers"} -- sh -c '
        "$1" --send list >"$2"
        # The tool has no configuration, so it does not write to the log.
        export CONFIGURATION=$GVUSB_EMULATE_CONFIG GVUSB_EMULATE_CONFIG=
        "$3" record -o "$4" -- sh -c "GVUSB_EMULATE_CONFIG=\$CONFIGURATION exec \"\$1\"" sh "$5"
        status=$?
        for reader in $("$1" --send list | grep -o "[0-9]* [0-9a-f]*:[0-9a-f]* " | cut -d" " -f1); do
            echo "$reader $("$1" --send "counts $reader")"
        done >"$6"
        exit $status' sh "$launcher" "$scratch/list" "$tool" "$recording" "$program" "$scratch/counts"
    if grep '^exit status' "$scratch/recorded/output"; then
        cat "$scratch/recorded/output" "$scratch/recorded/errors"
        exit 1
    fi
    "$capture_text" "$recording" >"$scratch/text"
    # A program may end in the middle of a transfer, and a reader leave before its descriptors could be read.
    if grep '^note:' "$scratch/text" | grep -Ev 'whose (completion is|descriptors are) not in the capture$'; then
        exit 1
    fi
}

# The virtual readers count the transfers that they accept.
compare_with_counts() {
    sed 's/ .* transfers=\([0-9]*\).*/ \1/' "$scratch/counts" >"$scratch/counted"
    while read -r reader counted; do
        echo "$reader $(grep "^transfer 1-$reader " "$scratch/text" | grep -Evc ' (kernel|refused)$')"
    done <"$scratch/counted" | diff "$scratch/counted" - || {
        echo "The readers counted other numbers of transfers than were recorded."
        exit 1
    }
}

check_with_tshark() {
    command -v tshark >/dev/null || { echo "tshark is not installed" >&2; exit 77; }
    tshark -r "$recording" -T fields -E separator=, -e _ws.malformed -e usb.urb_type >"$scratch/tshark" 2>"$scratch/errors" || {
        cat "$scratch/errors"
        exit 1
    }
    echo "$(tail -n 1 "$scratch/text"), of which tshark reads $(wc -l <"$scratch/tshark")"
    [ "$(tail -n 1 "$scratch/text")" = "$(wc -l <"$scratch/tshark") packets" ]
    if grep -v "^,'[SCE]'$" "$scratch/tshark"; then
        echo "These packets are malformed."
        exit 1
    fi
}

# The number of readers at the start, then the number that each recorded reader had, and the one that it has when it is
# played: those whose descriptors are known are numbered in the order in which they were seen. Reader N was at port N.
number_readers() {
    grep -o '[0-9]* [0-9a-f]*:[0-9a-f]* ' "$scratch/list" | wc -l
    sed -n 's/^device 1-\([0-9]*\) .*/\1/p' "$scratch/text" | awk '!seen[$1]++ { print $1, ++count }'
}

play() { # MODE OPTION...
    local played=$scratch/$1
    rm -f "$scratch/numbers.added"
    GVUSB_TEST_REPLAY=$scratch/numbers run "$played" --replay "$recording" --replay-plugging commands --replay-mode "$@" -- \
        "$program"
    diff "$scratch/recorded/output" "$played/output" && diff "$scratch/recorded/comparable.log" "$played/comparable.log" || {
        echo "$1: the played program did something else:"
        cat "$played/errors"
        return 1
    }
}

record
case " $what " in
*" uncounted "*) ;;
*) compare_with_counts ;;
esac
check_with_tshark
number_readers >"$scratch/numbers"
options=()
for word in $what; do
    case $word in
    *=*) options+=("--${word%=*}" "${word#*=}") ;;
    esac
done
failed=0
for word in $what; do
    case $word in
    matching | strict) play "$word" "${options[@]}" || failed=1 ;;
    esac
done
exit $failed
