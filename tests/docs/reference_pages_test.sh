#!/usr/bin/env bash
# usage: reference_pages_test.sh HEADER CXX_HEADER PAGES
# Section 3 of the manual has every name that the headers declare, with its description.
set -euo pipefail
header=$1
cxx_header=$2
pages=$3
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

# The C++ interface: its classes, their public members and its functions.
cxx=$(sed 's/\\f[BIR]//g; s/\\-/-/g' "$pages/gvusb_cxx.3")
public=$(sed '/@cond/,/@endcond/d; /^private:/,/^};/d; /detail::/d; /^ *\(:\|return\) /d' "$cxx_header")
names=$(grep -oP '^(class|struct) (GVUSB_HPP_SHARED )?\K\w+|^ *(\[\[nodiscard\]\] )?[\w:&<> ]*?\K\b\w+(?=\([^;]*\) (const )?(noexcept )?\{)' \
    <<<"$public" | sort -u)
[ "$(wc -l <<<"$names")" -gt 40 ] || fail "only these names were found in $cxx_header: $names"
for name in $names; do
    case $name in bool | check | for | if) continue ;; esac
    grep -qE "(::|^\.SS gvusb::)$name\b" <<<"$cxx" || fail "gvusb_cxx(3) has no $name"
done
for text in 'How it is done and what it costs' 'an exception must not pass' 'std::terminate is called'; do
    grep -qi "$text" <<<"$cxx" || fail "gvusb_cxx(3) does not say: $text"
done
