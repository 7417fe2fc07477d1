#!/bin/sh
# usage: tool_page.sh PROGRAM BRIEF OUTPUT [COMMAND...]
# Makes a program's manual page from what it says of itself, and of each of its commands.
set -eu
program=$1 brief=$2 output=$3
shift 3

include=$(mktemp)
trap 'rm -f "$include"' EXIT
for command in "$@"; do
    printf '[%s %s]\n.nf\n' "$(basename "$program")" "$command"
    "$program" "$command" --help | sed 's/\\/\\\\/g; s/-/\\-/g; s/^\./\\\&./'
    printf '.fi\n\n'
done >"$include"
printf '[see also]\n.BR libgvusb (3),\n.BR gvusb.conf (5),\n.BR gvusb (1),\n.BR gvusb\\-emulate (1)\n' >>"$include"

help2man --no-info --no-discard-stderr --locale=C.UTF-8 --section=1 --name="$brief" --include="$include" \
    --manual="USB RFID readers" --output="$output" "$program"
