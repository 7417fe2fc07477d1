# Runs the programs of tests/end_to_end with the same readers and configuration as on the emulated bus.
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

while IFS='|' read -r name program readers configuration left_out; do
    if [ -z "$name" ] || ! is_wanted programs "$name"; then
        continue
    fi
    program_began=$(seconds)
    CMOCKA_MESSAGE_OUTPUT=TAP
    GVUSB_TEST_LEAVE_OUT=$left_out
    # A real kernel takes half a second to notice a reader.
    GVUSB_TEST_CHURN=4
    check "$name" run_program "$program" "$readers" "$configuration"
    grep -E '^(ok|not ok)' /run/check.log | sed 's/ [0-9]* - / - /' | sed "s/ - / - $name./" | tee -a "$results"
    echo "# $name took from $program_began to $(seconds) s"
    [ -z "$left_out" ] || echo "# left out of $name: $left_out"
done <<<"$programs"
