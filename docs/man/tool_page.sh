#!/bin/sh
# usage: tool_page.sh PROGRAM BRIEF OUTPUT [COMMAND...]
# Makes the manual page of a program from its help and the help of its commands. help2man lays out the usage and the
# options. The sections that follow, under headings in capitals, keep their lines: they contain tables and commands.
set -eu
program=$1 brief=$2 output=$3
shift 3

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
heading='^[A-Z][A-Z/ ]*$'
escaped() { sed 's/\\/\\e/g; s/-/\\-/g; s/^[.'"'"']/\\\&&/'; }

"$program" --help >"$scratch/help"
{
    sed -n "\|$heading|,\$p" "$scratch/help" | escaped | awk -v heading="$heading" '
        $0 ~ heading { if (sections++) print ".fi\n"; print "[" $0 "]\n.nf"; next }
        { print }
        END { if (sections) print ".fi\n" }'
    for command in "$@"; do
        printf '[%s %s]\n.nf\n' "$(basename "$program")" "$command"
        # shellcheck disable=SC2086 # a command may have options in front
        "$program" $command --help | escaped
        printf '.fi\n\n'
    done
    printf '[see also]\n.BR libgvusb (3),\n.BR gvusb.conf (5),\n.BR gvusb (1),\n.BR gvusb\\-emulate (1),\n.BR gvusb\\-mqtt (1)\n'
} >"$scratch/include"

# What help2man runs instead of the program. All forms of the usage except the first start with "or:".
sed "\|$heading|,\$d" "$scratch/help" | sed '/^Usage: /,/^$/s/^  */  or:  /' >"$scratch/options"
"$program" --version >"$scratch/version"
seen=$scratch/$(basename "$program")
printf '#!/bin/sh\nexec cat "%s/$([ "$1" = --version ] && echo version || echo options)"\n' "$scratch" >"$seen"
chmod +x "$seen"

help2man --no-info --no-discard-stderr --locale=C.UTF-8 --section=1 --name="$brief" --include="$scratch/include" \
    --manual="USB RFID readers" --output="$output" "$seen"
