#!/usr/bin/env bash
# usage: man_page_test.sh PROGRAM PAGE
# A program's manual page has the sections of its help, line by line.
set -euo pipefail
program=$1
page=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

"$program" --help >"$folder/help"
mapfile -t headings < <(grep -xE '[A-Z][A-Z ]*' "$folder/help")
for wanted in 'EXIT STATUS' EXAMPLES; do
    [[ " ${headings[*]} " == *" $wanted "* ]] || { echo "the help has no $wanted"; exit 1; }
done
for heading in "${headings[@]}"; do
    awk -v heading="$heading" '
        /^[A-Z][A-Z ]*$/ { inside = $0 == heading; next }
        inside' "$folder/help" >"$folder/wanted"
    sed 's/^\.SH "\(.*\)"$/.SH \1/' "$page" | awk -v heading=".SH $heading" '
        /^\.SH / { inside = $0 == heading; next }
        inside && /^\.nf$/ { unfilled = 1; next }
        inside && /^\.fi$/ { over = 1 }
        inside && unfilled && !over' | sed 's/^\\&//; s/\\-/-/g; s/\\e/\\/g' >"$folder/found"
    echo "$heading: $(wc -l <"$folder/wanted") lines"
    diff -B "$folder/wanted" "$folder/found"
done
