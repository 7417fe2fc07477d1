# Runs every scenario, or those that the kernel's command line names, and prints the results. A scenario is a script
# with a sequence of checks. It is sourced, so that it can use the functions here. All variables and functions are
# exported for the shells that run on a set of readers.
# shellcheck shell=bash source=/dev/null
set -ua
. /kernel/settings
GVUSB_KERNEL_EMULATOR=$emulator
GVUSB_TEST_SETTLE=$settle
GVUSB_TEST_CONFIGURATION_FILE=/etc/gavo/gvusb.conf
HOME=/root
LC_ALL=C
vendor=$(sed -n 's/.*idVendor}=="\([0-9a-f]*\)".*/\1/p' "$rule")
launcher=/kernel/gvusb-emulate
results=/run/results

# check NAME COMMAND...: print "ok" if the command succeeds, otherwise "not ok" and the command's output.
check() {
    local name=$1 log=/run/check.log status=0
    shift
    "$@" >$log 2>&1 || status=$?
    if [ $status -eq 0 ]; then
        echo "ok - $scenario: $name" | tee -a "$results"
    else
        echo "not ok - $scenario: $name (status $status)" | tee -a "$results"
        sed 's/^/# /' $log
    fi
}

# Succeed if the command succeeds and prints a matching line.
prints() {
    local pattern=$1
    shift
    "$@" >/run/printed 2>&1
    local status=$?
    cat /run/printed
    [ $status -eq 0 ] && grep -q -e "$pattern" /run/printed
}

# on_readers OPTION... -- FUNCTION [ARGUMENT...]: call the function in a shell on these readers.
on_readers() {
    local options=()
    while [ "$1" != -- ]; do
        options+=("$1")
        shift
    done
    shift
    "$launcher" "${options[@]}" -- bash -c '"$@"' bash "$@"
}

seconds() {
    cut -d' ' -f1 /proc/uptime
}

# is_wanted KEY NAME: succeed if the kernel's command line has no list under the key, or the list contains the name.
is_wanted() {
    local list
    list=$(sed -n "s/.*gvusb\\.$1=\\([^ ]*\\).*/\\1/p" /proc/cmdline)
    [ -z "$list" ] || [[ ,$list, == *,$2,* ]]
}

: >$results
for file in /kernel/scenarios/*.sh; do
    scenario=$(basename "$file" .sh)
    if is_wanted scenarios "$scenario"; then
        began=$(seconds)
        . "$file"
        echo "# $scenario took from $began to $(seconds) s"
    fi
done
echo "# passed: $(grep -c '^ok' $results), failed: $(grep -c '^not ok' $results)"
