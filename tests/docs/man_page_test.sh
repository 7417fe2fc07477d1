#!/usr/bin/env bash
# usage: man_page_test.sh PROGRAM PAGE FORMS HEADING...
# The synopsis of a program's manual page has FORMS forms, the same as in its help. The page has all sections of the help,
# line by line, and they include HEADING... Every command has a section with its help.
set -euo pipefail
program=$1
page=$2
forms=$3
shift 3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

"$program" --help >"$folder/help"

sed -n '/^Usage: /,/^$/{s/^Usage: *//; s/^ *//; /./p}' "$folder/help" >"$folder/wanted"
awk '/^\.SH / { inside = $2 == "SYNOPSIS"; next } inside' "$page" |
    sed 's/\\f[BIR]//g; s/\\[,/]//g; s/\\-/-/g; /^\.br$/d' |
    awk '/^\.B / { form = substr($0, 4); next } { print form, $0 }' >"$folder/found"
echo "SYNOPSIS: $(wc -l <"$folder/found") forms"
diff "$folder/wanted" "$folder/found"
[ "$(wc -l <"$folder/found")" = "$forms" ]

any='^[A-Z][A-Z/ ]*$'
mapfile -t headings < <(grep -E "$any" "$folder/help")
for wanted in "$@"; do
    [[ " ${headings[*]} " == *" $wanted "* ]] || { echo "the help has no $wanted"; exit 1; }
done
compare_section() { # HEADING, with the wanted lines in a file
    sed 's/^\.SH "\(.*\)"$/.SH \1/; /^\.SH /s/\\-/-/g' "$page" | awk -v heading=".SH $1" '
        /^\.SH / { inside = $0 == heading; next }
        inside && /^\.nf$/ { unfilled = 1; next }
        inside && /^\.fi$/ { over = 1 }
        inside && unfilled && !over' | sed 's/^\\&//; s/\\-/-/g; s/\\e/\\/g' >"$folder/found"
    echo "$1: $(wc -l <"$folder/wanted") lines"
    diff -B "$folder/wanted" "$folder/found"
}
for heading in "${headings[@]}"; do
    awk -v heading="$heading" -v any="$any" '
        $0 ~ any { inside = $0 == heading; next }
        inside' "$folder/help" >"$folder/wanted"
    compare_section "$heading"
done

commands() { # [OPTIONS]
    "$program" "$@" --help | awk '/^Commands:$/ { inside = 1; next } /^$/ { inside = 0 } inside { print $1 }'
}
name=$(basename "$program")
for command in $(commands); do
    "$program" "$command" --help >"$folder/wanted"
    compare_section "$(tr '[:lower:]' '[:upper:]' <<<"$name $command")"
done
if [ -n "$(commands --broker ADDRESS 2>/dev/null)" ]; then # for the readers of other machines
    "$program" --broker ADDRESS --help >"$folder/wanted"
    compare_section "$(tr '[:lower:]' '[:upper:]' <<<"$name --broker ADDRESS")"
    for command in $(commands --broker ADDRESS); do
        [ "$command" != help ] || continue
        "$program" --broker ADDRESS "$command" --help >"$folder/wanted"
        compare_section "$(tr '[:lower:]' '[:upper:]' <<<"$name --broker ADDRESS $command")"
    done
fi
