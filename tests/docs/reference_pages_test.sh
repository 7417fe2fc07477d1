#!/usr/bin/env bash
# usage: reference_pages_test.sh HEADER PAGES
# Section 3 of the manual has every name that the header declares, with its description.
set -euo pipefail
header=$1
pages=$2
declared() { sed '/@cond/,/@endcond/d' "$header" | grep -oP "$1"; }
fail() {
    echo "$*"
    exit 1
}

types=$(declared '^#define \KGVUSB_\w+(?= )|^typedef .*[ *]\KGVUSB_\w+(?=;|\))')
constants=$(declared '^ *(enum \{ )?\KGVUSB_\w+(?= =)')
functions=$(declared '^\w.*[ *]\KGVUSB_\w+(?=\()')
for name in $types; do
    grep -qxF ".SS $name" "$pages/gvusb_types.3" || fail "gvusb_types(3) has no $name"
done
for name in $constants; do
    grep -q "^\\\\fB$name\\\\fR" "$pages/gvusb_types.3" || fail "gvusb_types(3) has no $name"
done
for name in $functions; do
    grep -qxF ".SS $name" "$pages"/gvusb_*.3 || fail "no page has $name"
    [ -e "$pages/$name.3" ] || fail "there is no $name(3)"
done

section() { sed -n "/^\.S[HS] $2\$/,/^\.S[HS]/p" "$pages/$1.3" | sed 's/\\f[BIR]//g; s/\\-/-/g'; }
says() { [[ $(section "$1" "$2") == *"$3"* ]] || fail "$1(3) does not say under $2: $3"; }
says gvusb_types GVUSB_PROTOCOL "$(declared '^#define GVUSB_PROTOCOL .*')"
says gvusb_types GVUSB_PROTOCOL 'upper and lower case are the same'
says gvusb_types GVUSB_EventCallback "$(declared '^typedef .*GVUSB_EventCallback.*')"
says gvusb_types GVUSB_EventCallback 'at a disconnect in mode 1'
says gvusb_types GVUSB_EventCallback 'always an empty text'

# The description of a group starts with its first sentence.
[[ $(section gvusb_events DESCRIPTION | sed -n 3p) == 'How the library notices '* ]] ||
    fail "gvusb_events(3) begins with: $(section gvusb_events DESCRIPTION | sed -n 3p)"
