#!/usr/bin/env bash
# Tests of `gvusb show`.
source "$(dirname "$0")/../testing.sh"
: "${make_recording:?}" "${command_line_guide:?}"

show() { # KIND ARGUMENTS...
    "$make_recording" "$1" >"$scratch/session.pcapng"
    shift
    keep "$gvusb" show "$scratch/session.pcapng" "$@"
}

shows_a_session() {
    show session
    expect_status 0
    expect_errors ''
    expect_in_output '^A1 *usb:1-1 *Desk *Desk reader$'
    expect_in_output ' the recording starts: \./gate --fast$'
    expect_in_output ' A1  *3 control requests in 0\.3 ms: strings 1, 3, 5$'
    expect_in_output ' A1  *opened$'
    expect_in_output '  GVUSB_GetScanListSize() returned 2$'
    expect_in_output ' A1  *GVUSB_Transceive(268435457, '
    expect_in_output ' A1  *-> bulk 02  *02 00 07$'
    expect_in_output ' A1  *<- bulk 81  *2\.200  90 00$'
    expect_in_output ' A1  *<- bulk 81  *1000\.100  time-out$'
    expect_in_output ' GVUSB_Transceive returned -1130 (GVUSB_ERR_TIMEOUT)$'
    expect_in_output ' 55  (late: an answer after its time-out)$'
    expect_in_output ' stall \[EPIPE\]$'
    expect_in_output ' A1  *cleared the halt of endpoint 81$'
    expect_in_output ' B2  *opening failed \[EACCES\]$'
    expect_in_output ' B2  *-> control  *01 02$'
    expect_in_output ' B2  *left$'
    expect_in_output ' B2  *came$'
    expect_in_output ' vendor request 07 (C1 07 0001 0002 0004): 09 09 09 09$'
    expect_in_output "^2 readers, 6 exchanges, 2 failed$"
    expect_in_output '^A1 .* 4  *1  *2  *2\.200  *2\.200  *2\.200  *1 sent, 1 time-out, 1 stall, 1 answered late$'
    expect_equal 'the slowest' "$(grep -A 1 '^Slowest' "$scratch/output" | tail -n 1 | tr -s ' ')" \
        '0.303018 A1 1000.100 ms FF time-out'
}

shows_one_reader() {
    for reader in b2 0xB2 usb:1-2.3; do
        show session --reader $reader
        expect_status 0
        expect_in_output '^1 reader, 2 exchanges, 0 failed$'
        expect_not_in_output 'A1'
        expect_not_in_output 'GVUSB_Scan'
        expect_in_output 'the recording starts'
    done
    show session --reader usb:1-7
    expect_status 4
    expect_output ''
    expect_in_errors 'session.pcapng: no reader usb:1-7 in it$'
}

shows_every_request() {
    show session --all
    expect_status 0
    expect_not_in_output 'control requests'
    expect_in_output ' <- control  *0\.100  string 1 (80 06 0301 0409 00FF): 06 03 41 00 31 00$'
    expect_in_output 'detaching the kernel driver of interface 0 failed \[ENODATA\]'
    show session
    expect_not_in_output 'kernel driver'
}

reads_standard_input() {
    "$make_recording" session >"$scratch/session.pcapng"
    keep "$gvusb" show - <"$scratch/session.pcapng"
    expect_status 0
    expect_in_output '^2 readers, 6 exchanges, 2 failed$'
}

fits_into_the_terminal() {
    "$make_recording" session >"$scratch/session.pcapng"
    # The calls have long arguments; a table is not broken.
    in_terminal "stty cols 60; \"\$gvusb\" show \"\$scratch/session.pcapng\"" </dev/null
    longest=$(tr -d '\r' <"$scratch/output" | grep '^ *[0-9]*\.[0-9]' | wc -L)
    [ "$longest" -le 60 ] || fail "$longest of 60 columns: $output"
}

# Every member that is printed is documented, and every documented type is printed.
writes_documented_json() {
    show session --json
    expect_status 0
    "$gvusb" show "$scratch/session.pcapng" --all --json >>"$scratch/output"
    python3 - "$scratch/output" "$command_line_guide" <<'END' || fail 'the JSON differs from what is documented'
import json, re, sys
documented = {}
for kind, members in re.findall(r"^\| `show`: `(\w+)` \| (.*) \|$", open(sys.argv[2]).read(), re.MULTILINE):
    documented[kind] = set(re.findall(r"`([^`]+)`", members))
common = documented.pop("all")
seen = {}
for line in open(sys.argv[1]):
    thing = json.loads(line)
    seen.setdefault(thing["type"], []).append(thing)
assert seen.keys() == documented.keys(), (seen.keys(), documented.keys())
for kind, things in seen.items():
    for thing in things:
        for member in thing:
            assert member in documented[kind] | common, f"{kind}: {member} is not documented"
    for member in documented[kind] - {"answered", "sent", "time-out", "canceled", "stall", "gone", "error", "unfinished"}:
        inner = kind == "summary" and any(member in each or member in each["outcomes"] or member in each.get("ms", {})
                                          for each in things[0]["readers"])
        inner |= kind == "summary" and member in things[0]["slowest"][0]
        assert inner or any(member in thing for thing in things), f"{kind}: {member} is not printed"
exchanges = [each for each in seen["exchange"] if each["id"] == "A1"]
assert [each["outcome"] for each in exchanges[:4]] == ["answered", "time-out", "stall", "sent"], exchanges
assert exchanges[0]["sent"] == "020007" and exchanges[0]["received"] == "9000" and exchanges[0]["ms"] == 2.2
assert exchanges[0]["function"] == "GVUSB_Transceive" and exchanges[1]["received"] is None
assert seen["received"][0]["late"] and seen["received"][0]["received"] == "55"
assert seen["summary"][0]["exchanges"] == 6 and seen["summary"][0]["failed"] == 2
assert any(each["error"] == "EACCES" for each in seen["event"])
END
}

# The text elements of a drawing, one per line, which must be well-formed XML.
texts_of() { # FILE
    python3 -c 'import sys, xml.etree.ElementTree as tree
for text in tree.parse(sys.argv[1]).iter("{http://www.w3.org/2000/svg}text"):
    print("".join(text.itertext()).strip())' "$1"
}

draws_a_lane_for_each_reader() {
    show session --plot "$scratch/session.svg"
    expect_status 0
    expect_errors ''
    expect_in_output '^2 readers, 6 exchanges, 2 failed$'
    expect_not_in_output '->'
    texts_of "$scratch/session.svg" >"$scratch/texts" || fail 'the drawing is no XML'
    for text in A1 B2 usb:1-1 usb:1-2.3 answered time-out 'other failure' 'reader absent' '1 s' \
        'time since the start of the recording (s)'; do
        expect_equal "the number of texts '$text'" "$(grep -cxF -e "$text" "$scratch/texts")" \
            "$([ "$text" = '1 s' ] && echo 2 || echo 1)"
    done
    show session --plot "$scratch/session.svg" --reader A1 --json
    expect_in_output '^{"type":"summary",'
    expect_equal 'the number of lines' "$(wc -l <"$scratch/output")" 1
    texts_of "$scratch/session.svg" >"$scratch/texts"
    ! grep -qx B2 "$scratch/texts" || fail 'there is a lane for B2'
}

draws_nothing_but_text_of_a_hostile_name() {
    cd "$scratch" || exit
    "$make_recording" hostile >"it's \`touch broken\`\\n\$(touch broken).pcapng"
    keep "$gvusb" show it*.pcapng --plot session.svg
    expect_status 0
    texts_of session.svg | grep -qF "it's \`touch broken\`\\n\$(touch broken).pcapng" || fail 'the title is missing'
    [ ! -e broken ] || fail 'a command in a name was run'
    keep "$gvusb" show it*.pcapng
    ! grep -q "$(printf '\033')" "$scratch/output" || fail 'a control character is in the output'
}

draws_long_sessions() {
    "$make_recording" long 20000 3 >"$scratch/session.pcapng"
    keep "$gvusb" show "$scratch/session.pcapng" --plot "$scratch/session.svg"
    expect_status 0
    expect_in_output '^3 readers, 20000 exchanges, 1 failed$'
    [ "$(wc -c <"$scratch/session.svg")" -lt 2000000 ] || fail 'the drawing is too large'
    texts_of "$scratch/session.svg" | grep -qx time-out || fail 'the time-out is not marked'
}

draws_into_standard_output() {
    show session --plot -
    expect_status 0
    texts_of "$scratch/output" | grep -qx A1 || fail 'standard output is no drawing'
}

reports_what_keeps_it_from_drawing() {
    "$make_recording" session >"$scratch/session.pcapng"
    keep env PATH=/nonexistent "$gvusb" show "$scratch/session.pcapng" --plot "$scratch/session.svg"
    expect_status 1
    expect_errors 'gvusb: gnuplot is not installed; --plot needs it
On Debian, it is in the package gnuplot-nox.'
    [ ! -e "$scratch/session.svg" ] || fail 'it leaves a file'
    mkdir "$scratch/bin"
    printf '#!/bin/sh\necho half; exit 1\n' >"$scratch/bin/gnuplot"
    chmod +x "$scratch/bin/gnuplot"
    keep env PATH="$scratch/bin:$PATH" "$gvusb" show "$scratch/session.pcapng" --plot "$scratch/session.svg"
    expect_status 1
    expect_errors 'gvusb: gnuplot failed; see above'
    [ ! -e "$scratch/session.svg" ] || fail 'it leaves half a file'
    keep "$gvusb" show "$scratch/session.pcapng" --plot /nonexistent/session.svg
    expect_status 1
    expect_errors 'gvusb: /nonexistent/session.svg: No such file or directory'
    keep "$gvusb" show "$scratch/session.pcapng" --plot /dev/full
    expect_status 1
    expect_errors 'gvusb: /dev/full: No space left on device'
}

keeps_files_when_it_does_not_draw() {
    "$make_recording" session >"$scratch/session.pcapng"
    cp "$scratch/session.pcapng" "$scratch/kept.pcapng"
    keep "$gvusb" show "$scratch/session.pcapng" --plot "$scratch/session.pcapng"
    expect_status 2
    expect_errors "gvusb: $scratch/session.pcapng: this is the recording; draw into another file"
    cmp "$scratch/session.pcapng" "$scratch/kept.pcapng" || fail 'it overwrites the recording'
    echo earlier >"$scratch/session.svg"
    keep env PATH=/nonexistent "$gvusb" show "$scratch/session.pcapng" --plot "$scratch/session.svg"
    expect_status 1
    expect_equal "the earlier drawing" "$(cat "$scratch/session.svg")" earlier
}

shows_truncated_files() {
    "$make_recording" session | head -c 5000 >"$scratch/session.pcapng"
    keep "$gvusb" show "$scratch/session.pcapng"
    expect_status 0
    expect_in_errors '^gvusb: note: .*session.pcapng: the file is damaged or truncated'
    expect_in_output '02 00 07$'
    expect_in_output ' exchanges*, '
}

shows_redacted_frames() {
    show redacted
    expect_status 0
    expect_in_output '  (3 bytes, redacted)$'
    expect_not_in_output '52 45 44'
    show redacted --json
    expect_in_output '"sent":null,"received":null,"redacted":true,"outcome":"answered"'
}

rejects_what_is_no_recording() {
    echo 'no capture' >"$scratch/text"
    keep "$gvusb" show "$scratch/text"
    expect_status 2
    expect_output ''
    expect_in_errors "^gvusb: $scratch/text: is not a capture "
    keep "$gvusb" show "$scratch/missing"
    expect_status 2
    expect_in_errors "^gvusb: $scratch/missing: No such file or directory$"
    keep "$gvusb" show "$scratch"
    expect_status 2
    keep "$gvusb" show - </dev/null
    expect_status 2
    expect_errors 'gvusb: standard input: is empty, not a capture'
    # A header of the pcap format with the link type of Ethernet, and with that of USB, without packets.
    for link in 1 334; do
        printf '\xd4\xc3\xb2\xa1\2\0\4\0\0\0\0\0\0\0\0\0\0\0\4\0\'"$link"'\0\0\0' >"$scratch/pcap"
        keep "$gvusb" show "$scratch/pcap"
        expect_status 2
        [ $link = 1 ] && expect_in_errors 'holds Ethernet (link type 1), not the USB transfers of Linux'
        [ $link = 334 ] && expect_in_errors 'no USB transfer in it'
    done
    show foreign
    expect_status 2
    expect_output ''
    expect_in_errors 'session.pcapng: no reader in it: none of its 1 devices is known to have the vendor ID 1209$'
    "$make_recording" foreign | head -c 1000 >"$scratch/foreign.pcapng"
    keep "$gvusb" show "$scratch/foreign.pcapng"
    expect_status 2
    expect_in_errors 'the vendor ID 1209; the file is damaged or truncated'
}

rejects_invalid_command_lines() {
    keep "$gvusb" show
    expect_status 2
    expect_in_errors '^gvusb: FILE is required$'
    keep "$gvusb" show file --reader X1
    expect_status 2
    expect_in_errors "'X1' is not a device ID"
    keep "$gvusb" show file --plot
    expect_status 2
    expect_in_errors '^gvusb: --plot: the value is missing$'
}

run_case
