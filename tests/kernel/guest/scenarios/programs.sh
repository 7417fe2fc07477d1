# Runs the programs of tests/end_to_end with the same readers and configuration as on the emulated bus, in both modes.
run_program() {
    local program=$1 readers=$2 configuration=$3 options=()
    [ -z "$readers" ] || options+=(--readers "$readers")
    if [ -n "$configuration" ]; then
        options+=(--config "$configuration")
    else
        options+=(--no-config)
    fi
    "$launcher" "${options[@]}" -- "$program"
}

check_program() { # NAME PROGRAM READERS CONFIGURATION LEFT-OUT
    local name=$1 began
    began=$(seconds)
    GVUSB_TEST_LEAVE_OUT=$5
    check "$name" run_program "$2" "$3" "$4"
    grep -E '^(ok|not ok)' /run/check.log | sed 's/ [0-9]* - / - /' | sed "s/ - / - $name./" | tee -a "$results"
    echo "# $name took from $began to $(seconds) s"
    [ -z "$5" ] || echo "# left out of $name: $5"
}

CMOCKA_MESSAGE_OUTPUT=TAP
# A real kernel takes half a second to notice a reader.
GVUSB_TEST_CHURN=4
while IFS='|' read -r name program readers configuration left_out parallel_left_out; do
    if [ -z "$name" ] || ! is_wanted programs "$name"; then
        continue
    fi
    check_program "$name" "$program" "$readers" "$configuration" "$left_out"
    if [ "$parallel_left_out" != all ]; then
        { echo gvusb_parallel=1 && cat ${configuration:+"$configuration"} </dev/null; } >/run/parallel.conf
        GVUSB_TEST_PARALLEL=1
        check_program "parallel.$name" "$program" "$readers" /run/parallel.conf "$left_out $parallel_left_out"
        unset GVUSB_TEST_PARALLEL
    fi
done <<<"$programs"
