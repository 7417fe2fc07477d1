# The command-line tool lists readers, talks to them and tells of their coming and going.
check_tool() {
    local subject=$1 case
    shift
    for case in "$@"; do
        check "$subject $case" bash "$tool_tests/commands/${subject}_test.sh" "$launcher" "$tool" /no/preload "$case"
    done
}

check_tool list shows_readers_in_a_table tells_when_there_is_no_reader
check_tool info tells_of_one_reader
check_tool send prints_the_answer tells_a_time_out

rm -f /etc/gavo/gvusb.conf
check "doctor finds all well" prints '^All is well' "$launcher" -- "$tool" doctor
