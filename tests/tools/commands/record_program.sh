#!/usr/bin/env bash
# Record a program on virtual readers, and check that the program behaves as usual, and that the recording is whole:
#   record_program.sh LAUNCHER TOOL CAPTURE_TEXT OPTIONS OF THE LAUNCHER... -- PROGRAM...
set -eu
launcher=$1 tool=$2 capture_text=$3
shift 3
options=()
while [ "$1" != -- ]; do
    options+=("$1")
    shift
done
shift
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
"$launcher" "${options[@]}" -- "$tool" record -o "$scratch/session.pcapng" -- "$@"
"$capture_text" "$scratch/session.pcapng" >"$scratch/text"
# A program may end in the middle of a transfer, and a reader may leave as soon as it has been opened.
if grep '^note:' "$scratch/text" | grep -Ev 'whose (completion is|descriptors are) not in the capture$'; then
    exit 1
fi
if ! command -v tshark >/dev/null; then
    echo "tshark is not installed" >&2
    exit 77
fi
tshark -r "$scratch/session.pcapng" -T fields -E separator=, -e _ws.malformed -e usb.urb_type \
    >"$scratch/tshark" 2>"$scratch/errors" || { cat "$scratch/errors"; exit 1; }
echo "$(tail -n 1 "$scratch/text"), of which tshark reads $(wc -l <"$scratch/tshark")"
[ "$(tail -n 1 "$scratch/text")" = "$(wc -l <"$scratch/tshark") packets" ]
if grep -v "^,'[SCE]'$" "$scratch/tshark"; then
    echo "These packets are malformed."
    exit 1
fi
