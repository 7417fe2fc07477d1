# The command-line tool lists readers, exchanges frames with them and reports plugging and unplugging.
check_tool() {
    local subject=$1 case
    shift
    for case in "$@"; do
        check "$subject $case" bash "$tool_tests/commands/${subject}_test.sh" "$launcher" "$tool" /no/preload "$case"
    done
}

check_tool list shows_readers_in_a_table reports_that_there_is_no_reader
check_tool info shows_one_reader
check_tool send prints_the_answer reports_a_time_out

rm -f /etc/gavo/gvusb.conf
check "doctor finds all well" prints '^No problems found' "$launcher" -- "$tool" doctor
