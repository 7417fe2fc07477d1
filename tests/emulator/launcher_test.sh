#!/bin/sh
# Tests of the launcher: exit status, environment, signals, clean-up, options and commands.
#
#   launcher_test.sh LAUNCHER CASE
# shellcheck source=tests/emulator/testing.sh
. "$(dirname "$0")/testing.sh"
emulate=$1

expect_status() { # WANTED COMMAND...
    wanted=$1
    shift
    "$@" >"$scratch/output" 2>&1
    expect_equal "exit status of: $*" $? "$wanted"
}

expect_output() { # PATTERN, of the last expect_status
    grep -q -e "$1" "$scratch/output" || fail "no '$1' in: $(cat "$scratch/output")"
}

await() { # COMMAND..., for at most 5 seconds
    for _ in $(seq 250); do
        "$@" && return
        sleep 0.02
    done
    fail "timed out: $*"
}

process_gone() { ! kill -0 "$1" 2>/dev/null; }
folder_gone() { [ ! -e "$1" ]; }

# Starts a launcher and waits until its program has written the scratch folder and its process ID to files. Shells start
# background programs with SIGINT ignored, which the program would inherit.
start_in_background() { # COMMANDS [COMMANDS TO RUN FIRST]
    rm -f "$scratch/folder"
    env --default-signal=INT "$emulate" -- sh -c "${2:-:}; echo \$\$ >'$scratch/program'; \
        echo \$GVUSB_EMULATE_FOLDER >'$scratch/folder.new'; mv '$scratch/folder.new' '$scratch/folder'; $1" &
    launcher=$!
    await test -e "$scratch/folder"
    folder=$(cat "$scratch/folder")
    program=$(cat "$scratch/program")
    [ -d "$folder" ] || fail "no folder '$folder'"
}

passes_on_exit_status() {
    expect_status 0 "$emulate" -- true
    expect_status 7 "$emulate" -- sh -c 'exit 7'
    expect_status 139 "$emulate" -- sh -c 'kill -SEGV $$'
    expect_status 137 "$emulate" -- sh -c 'kill -KILL $$'
}

reports_unusable_program() {
    expect_status 127 "$emulate" -- no-such-program-anywhere
    expect_output 'no-such-program-anywhere: No such file'
    touch "$scratch/text"
    expect_status 126 "$emulate" -- "$scratch/text"
    expect_output 'text: Permission denied'
}

refuses_programs_that_would_see_the_real_bus() {
    echo 'int main(void) { return 0; }' >"$scratch/program.c"
    for flag in -static -static-pie; do
        gcc "$flag" "$scratch/program.c" -o "$scratch/program" || fail "cannot build with $flag"
        expect_status 126 "$emulate" -- "$scratch/program"
        expect_output "program is linked statically, so it would use the machine's own USB devices"
    done
    printf '#! %s\n' "$scratch/program" >"$scratch/script"
    chmod +x "$scratch/script"
    expect_status 126 "$emulate" -- "$scratch/script"
    expect_status 126 env "PATH=$scratch:$PATH" "$emulate" -- program
    expect_status 0 "$emulate" -- sh -c "$scratch/program"
    # Another architecture, in the header only.
    gcc "$scratch/program.c" -o "$scratch/program"
    expect_status 0 "$emulate" -- "$scratch/program"
    printf '\177' | dd of="$scratch/program" bs=1 seek=18 conv=notrunc 2>/dev/null
    expect_status 126 "$emulate" -- "$scratch/program"
    expect_output 'program is built for another architecture'
    loader=$(ldd /bin/true | sed -n 's/^[[:blank:]]*\(\/[^ ]*\/ld-[^ ]*\) .*/\1/p')
    expect_status 0 "$emulate" -- "$loader" /bin/true
}

leaves_program_arguments_alone() {
    expect_equal "after --" "$("$emulate" --no-readers -- echo --help -v -- x)" "--help -v -- x"
    expect_equal "without --" "$("$emulate" --reader id=1 echo --reader '' ' a  b')" "--reader   a  b"
}

reports_usage_errors() {
    expect_status 2 "$emulate"
    expect_output 'missing program'
    expect_status 2 "$emulate" --no-such-option -- true
    expect_output "unexpected argument '--no-such-option'"
    expect_status 2 "$emulate" -vx true
    expect_output "unexpected argument '-x'"
    expect_status 2 "$emulate" --reader
    expect_output '--reader: .*missing'
    expect_status 2 "$emulate" --reader colour=red -- true
    expect_output "unknown key 'colour'"
    expect_status 2 "$emulate" --readers "$scratch/missing" -- true
    expect_output 'cannot read .*missing'
    printf '# readers\nid=1\n\nproduct=many\n' >"$scratch/readers"
    expect_status 2 "$emulate" --readers "$scratch/readers" -- true
    expect_output "readers:4: product must be a number from 0 to 65535, not 'many'"
    echo 'at 5 explode 1' >"$scratch/script"
    expect_status 2 "$emulate" --script "$scratch/script" -- true
    expect_output "script:1: unknown command 'explode'"
    expect_status 2 "$emulate" --seed soon -- true
    expect_output '--seed'
    expect_status 2 "$emulate" --no-readers --reader id=1 -- true
    expect_status 2 "$emulate" --config "$scratch/missing" -- true
    expect_status 125 "$emulate" --reader address=5 --reader address=5 -- true
    expect_output 'address 5 is in use'
}

helps() {
    expect_status 0 "$emulate" --help
    for word in --reader --script 'endpoints=' 'fail-string' 'EXIT STATUS' 'EXAMPLES'; do
        expect_output "$word"
    done
    expect_status 0 "$emulate" --version
    expect_output '^gvusb-emulate [0-9]'
}

chooses_addresses_that_no_reader_names() {
    expect_status 0 "$emulate" --reader id=A,copies=2 --reader id=B,address=2 --reader id=C,address=4,plugged=no -- sh -c \
        "'$emulate' --send 'plug id=D' && '$emulate' --send 'plug 4' && '$emulate' --send list"
    expect_output '^ok 1 [0-9a-f:]* 001/003 A; 2 [0-9a-f:]* 001/005 B; 3 [0-9a-f:]* 001/002 B; 4 [0-9a-f:]* 001/004 C; 5 [0-9a-f:]* 001/006 D$'
}

reports_output_that_cannot_be_written() {
    for arguments in --help --version; do
        "$emulate" $arguments >/dev/full 2>"$scratch/output"
        expect_equal "exit status of $arguments" $? 1
        expect_output '^gvusb-emulate: standard output cannot be written$'
    done
    expect_equal "exit status of --send" "$("$emulate" -- sh -c "'$emulate' --send list >/dev/full 2>&1; echo \$?")" 1
}

begins_errors_with_its_name() {
    for arguments in '' --no-such-option --reader '--reader x true' '--kill-after x true' '--listen 1 true' \
        '--script /missing true' '--readers /missing true' '--config /missing true' '--usbip --listen x' \
        '--usbip --no-config' '--send' '--send list' /missing; do
        # shellcheck disable=SC2086
        "$emulate" $arguments >"$scratch/output" 2>&1 && fail "no failure: $arguments"
        head -n 1 "$scratch/output" | grep -q '^gvusb-emulate: ' || fail "$arguments: $(cat "$scratch/output")"
    done
}

leaves_nothing_behind() {
    folder=$("$emulate" -- sh -c 'echo "$GVUSB_EMULATE_FOLDER"')
    case $folder in
    /tmp/gvusb-* | /dev/shm/gvusb-*) ;;
    *) fail "folder is '$folder'" ;;
    esac
    folder_gone "$folder" || fail "left $folder"
    # A child that outlives the program, and one whose parent has ended.
    children=$("$emulate" -- sh -c 'sleep 100 >/dev/null & echo $!; sh -c "sleep 100 >/dev/null & echo \$!"')
    expect_equal "children" "$(echo "$children" | wc -l)" 2
    for child in $children; do
        process_gone "$child" || fail "left process $child"
    done
}

ends_by_signal() {
    for signal in TERM:143 INT:130 HUP:129; do
        start_in_background 'exec sleep 100'
        kill "-${signal%:*}" "$launcher"
        wait "$launcher"
        expect_equal "exit status by $signal" $? "${signal#*:}"
        folder_gone "$folder" || fail "$signal left $folder"
        process_gone "$program" || fail "$signal left process $program"
    done
}

lets_program_handle_signals() {
    start_in_background 'while :; do sleep 0.02; done' 'trap "exit 5" TERM'
    kill -TERM "$launcher"
    wait "$launcher"
    expect_equal "exit status" $? 5
}

second_signal_kills() {
    start_in_background 'while :; do sleep 0.02; done' 'trap "touch '"'$scratch/asked'"'" TERM'
    kill -TERM "$launcher"
    await test -e "$scratch/asked"
    process_gone "$program" && fail "ended by the first signal"
    kill -TERM "$launcher"
    wait "$launcher"
    expect_equal "exit status" $? 137
    folder_gone "$folder" || fail "left $folder"
    process_gone "$program" || fail "left process $program"
}

passes_on_signals_that_end_nothing() {
    start_in_background 'while :; do sleep 0.02; done' "trap 'echo usr >>$scratch/got' USR1; trap 'echo term >>$scratch/got' TERM"
    kill -TERM "$launcher"
    await grep -q term "$scratch/got"
    kill -USR1 "$launcher"
    await grep -q usr "$scratch/got"
    process_gone "$program" && fail "killed by SIGUSR1 after SIGTERM"
    kill -TERM "$launcher"
    wait "$launcher"
    expect_equal "exit status" $? 137
}

kills_after_the_given_time() {
    expect_status 137 "$emulate" --kill-after 1 -- sh -c 'trap : TERM; kill -TERM "$PPID"; while :; do sleep 0.02; done'
    expect_output '^gvusb-emulate: killed the program, which did not end within 1 s of a signal$'
    expect_status 3 "$emulate" --kill-after 0 -- sh -c \
        'trap : TERM; kill -TERM "$PPID"; for i in $(seq 60); do sleep 0.1; done; exit 3'
}

says_what_it_kills() {
    expect_status 0 "$emulate" -- sh -c 'sleep 100 >/dev/null 2>&1 &'
    expect_output '^gvusb-emulate: killed process [0-9]* (.*), which the program left running$'
}

waits_for_all() {
    expect_status 4 "$emulate" --wait-for-all -- sh -c "(sleep 0.5; '$emulate' --send list >'$scratch/late') & exit 4"
    grep -q '^ok 1 ' "$scratch/late" || fail "the bus was gone before the last process"
}

reports_a_full_folder() {
    cat >"$scratch/fill" <<'END'
set -e
exec 9<"$1" # it may be below /tmp
mount -t tmpfs -o size=4k,nr_inodes=3 none /dev/shm
mount -t tmpfs -o size=4k,nr_inodes="$2" none /tmp
exec /proc/self/fd/9 -- true
END
    unshare --user --map-root-user --mount true 2>"$scratch/output" || {
        echo "SKIPPED: no permission for a mount namespace"
        exit 77
    }
    for inodes in 1 2 3 8 20; do
        expect_status 125 unshare --user --map-root-user --mount sh "$scratch/fill" "$emulate" "$inodes"
        expect_output '^gvusb-emulate: .*: No space left on device$'
    done
}

# While the processors are busy: GVUSB_STARTS starts, in four loops at a time.
starts_many_times() {
    starts=${GVUSB_STARTS:-200}
    busy=
    for _ in 1 2; do
        sh -c 'while kill -0 "$1" 2>/dev/null; do :; done' sh $$ &
        busy="$busy $!"
    done
    loops=
    for loop in 1 2 3 4; do
        (
            for _ in $(seq $((starts / 4))); do
                "$emulate" -- true || echo "status $?" >>"$scratch/failures.$loop"
            done
        ) &
        loops="$loops $!"
    done
    # shellcheck disable=SC2086 # lists of processes
    wait $loops
    # shellcheck disable=SC2086
    kill $busy
    count=$(cat "$scratch"/failures.* 2>/dev/null | wc -l)
    [ "$count" = 0 ] || fail "$count of $starts starts failed: $(sort "$scratch"/failures.* | uniq -c)"
}

cleans_up_after_a_killed_launcher() {
    start_in_background 'exec sleep 100'
    # Not the launcher's: a folder that only looks like it, and a copy.
    foreign=$(mktemp -d "${folder%-*}-XXXXXX")
    touch -d '1 hour ago' "$foreign/lock" "$foreign"
    copy=$(mktemp -d "${folder%-*}-XXXXXX")
    cp "$folder/lock" "$copy"
    kill -KILL "$launcher"
    wait "$launcher" 2>/dev/null
    await process_gone "$program"
    abandoned=$folder
    start_in_background 'exec sleep 100'
    touch -d '1 hour ago' "$folder"
    "$emulate" -- true
    await folder_gone "$abandoned" # by this launcher or one that runs in parallel
    [ -e "$foreign/lock" ] || fail "removed a folder of another program"
    [ -e "$copy/lock" ] || fail "removed a copy of a folder"
    rm -r "$foreign" "$copy"
    [ -d "$folder" ] || fail "removed the folder of a living launcher"
    kill -TERM "$launcher"
    wait "$launcher"
}

keeps_environment() {
    long=$scratch/$(printf '%080d' 0)
    mkdir "$long"
    expect_equal TMPDIR "$(TMPDIR=$long "$emulate" -- sh -c 'echo "$TMPDIR"')" "$long"
    expect_equal "files in TMPDIR" "$(ls "$long")" ""
    expect_equal ASAN_OPTIONS "$(ASAN_OPTIONS=a=1 "$emulate" -- sh -c 'echo "$ASAN_OPTIONS"')" a=1:verify_asan_link_order=0
    expect_equal "no TMPDIR" "$(env -u TMPDIR "$emulate" -- sh -c 'echo "${TMPDIR-none}"')" none
    preloads=$(LD_PRELOAD=libdl.so.2 "$emulate" -- sh -c 'echo "$LD_PRELOAD"')
    case $preloads in
    libdl.so.2:*/libgvusb-emulate-preload.so) ;;
    *) fail "LD_PRELOAD is '$preloads'" ;;
    esac
}

leaves_the_process_alone() {
    # shellcheck disable=SC2016 # for the inner shell
    facts='cat /proc/self/timerslack_ns; ulimit -n; ulimit -Hn
        grep -E "^(Sig(Blk|Ign)|Cpus_allowed):" /proc/self/status; cut -d" " -f18,19,41 /proc/self/stat'
    expect_equal "slack, limits, signals and scheduling" "$("$emulate" -- sh -c "$facts")" "$(sh -c "$facts")"
}

maps_configuration_file() {
    echo 'gvusb_hotplug=1' >"$scratch/gvusb.conf"
    expect_equal "relative" "$(cd "$scratch" && "$emulate" --config gvusb.conf -- cat /etc/gavo/gvusb.conf)" \
        'gvusb_hotplug=1'
    expect_status 1 "$emulate" --no-config -- cat /etc/gavo/gvusb.conf
}

# The library reads the file that GVUSB_CONFIG names in place of the other one.
hides_the_inherited_configuration() {
    echo 'gvusb_hotplug=1' >"$scratch/gvusb.conf"
    # shellcheck disable=SC2016 # for the inner shell
    show='echo "${GVUSB_CONFIG-none}"'
    for option in "--config $scratch/gvusb.conf" --no-config; do
        # shellcheck disable=SC2086 # two words
        expect_equal "with $option" "$(GVUSB_CONFIG=/inherited "$emulate" $option -- sh -c "$show")" none
    done
    expect_equal "without an option" "$(GVUSB_CONFIG=/inherited "$emulate" -- sh -c "$show")" /inherited
    expect_equal "set by the program" \
        "$("$emulate" --no-config -- env GVUSB_CONFIG=/own sh -c "$show")" /own
}

sends_commands() {
    expect_status 1 env -u GVUSB_EMULATE_SOCKET "$emulate" --send list
    expect_output 'GVUSB_EMULATE_SOCKET is not set'
    expect_status 0 "$emulate" --reader id=CAFE -- "$emulate" --send list
    expect_output '^ok 1 [0-9a-f]*:0001 001/002 CAFE$'
    expect_status 0 "$emulate" --reader 'id=CAFE,vendor=0x1234,product=0xab' --reader 'id=a"é,missing=3,plugged=no' -- \
        "$emulate" --send 'list --json'
    expect_output '^ok \[{"number":1,"vendor":"1234","product":"00ab","place":"001/002","id":"CAFE"},{"number":2,.*"place":null,"id":"a\\"é"}\]$'
    expect_status 1 "$emulate" -- "$emulate" --send 'list --yaml'
    expect_output "^error: unexpected argument '--yaml'\$"
    expect_status 1 "$emulate" -- "$emulate" --send 'unplug 3'
    expect_output '^error: reader must be a number from 1 to 2, not .3.$'
    expect_status 1 "$emulate" -- "$emulate" --send 'stall 1'
    expect_output '^error: usage: stall READER PIPE'
    expect_status 1 "$emulate" -- "$emulate" --send 'stall 1 sideways'
    expect_output '^error: pipe must be in, out, control, all or an endpoint such as 0x81, not .sideways.$'
    expect_status 1 "$emulate" -- "$emulate" --send 'busy 1 on off'
    expect_output '^error: unexpected argument .off.$'
    expect_status 1 "$emulate" -- "$emulate" --send 'stall 2 0x81'
    expect_output '^error: reader has no endpoint 0x81$'
    expect_status 1 "$emulate" -- "$emulate" --send 'descriptors all 120'
    expect_output '^error: descriptors must have two digits for each byte, not .120.$'
    expect_status 0 "$emulate" -- sh -c "'$emulate' --send 'unplug 1' && ! '$emulate' --send 'unplug 1' &&
        '$emulate' --send 'plug 1' && '$emulate' --send list"
    expect_output '^ok 1 [0-9a-f]*:0001 001/004 1A2B3C; 2 [0-9a-f]*:0002 001/003 1A2B3D$'
    start=$(date +%s%N)
    expect_status 0 "$emulate" -- "$emulate" --send 'wait 300'
    [ $(($(date +%s%N) - start)) -ge 300000000 ] || fail "did not wait"
}

runs_script() {
    printf '\357\273\277# away and back\r\nat 0 unplug 1\r\nat 1500 plug 1\r\n' >"$scratch/script"
    expect_status 0 "$emulate" --script "$scratch/script" -- sh -c "
        until '$emulate' --send list | grep 'unplugged'; do sleep 0.02; done
        while '$emulate' --send list | grep -q 'unplugged'; do sleep 0.02; done; '$emulate' --send list"
    expect_output '^ok 1 [0-9a-f:]* unplugged 1A2B3C; 2 .*$'
    expect_output '^ok 1 [0-9a-f:]* 001/004 1A2B3C; 2 .*$'
}

checks_scripts_first() {
    while IFS='|' read -r line mistake; do
        printf 'at 0 unplug 1\n%s\n' "$line" >"$scratch/script"
        expect_status 2 "$emulate" --script "$scratch/script" -- touch "$scratch/started"
        expect_output "^gvusb-emulate: $scratch/script:2: $mistake"
    done <<'END'
at 1 unplug 3|reader must be a number from 1 to 2, not '3'
at 1 stall 2 0x81|reader has no endpoint 0x81
at 1 push 1 012|frame must have two digits for each byte
at 1 chance 1 in 101 stall|chance must be a percentage from 0 to 100
at 1 repeat 2|loop without end
END
    [ ! -e "$scratch/started" ] || fail "the program started"
    printf 'at 0 unplug 3\n' >"$scratch/script"
    expect_status 0 "$emulate" --lenient --script "$scratch/script" -- true
    expect_output "script:1: error: reader must be a number from 1 to 2, not '3'"
    printf 'at 0 busy 1 on\n' >"$scratch/script"
    expect_status 2 "$emulate" --usbip --listen 127.0.0.1:0 --script "$scratch/script" -- true
    expect_output 'script:1: not possible over USB/IP'
    printf 'at 0 plug id=77\nat 1 unplug 3\n' >"$scratch/script"
    expect_status 0 "$emulate" --script "$scratch/script" -- sleep 0.3
}

reports_scripts_that_fail() {
    printf 'at 0 forever\nat 0 plug 1\nat 1 end\n' >"$scratch/script"
    for mode in '' '--usbip --listen 127.0.0.1:0'; do
        # shellcheck disable=SC2086 # several words
        expect_status 1 "$emulate" $mode --script "$scratch/script" -- sleep 0.3
        expect_output '^gvusb-emulate: .*/script:2: error: reader 1 is already plugged$'
        expect_equal "reports" "$(grep -c plugged "$scratch/output")" 1
        # shellcheck disable=SC2086
        expect_status 0 "$emulate" $mode --lenient --script "$scratch/script" -- sleep 0.3
    done
    expect_status 7 "$emulate" --script "$scratch/script" -- sh -c 'exit 7'
    printf 'at 0 unplug 1\nat 60000 plug 1\n' >"$scratch/script"
    expect_status 1 "$emulate" --script "$scratch/script" -- true
    expect_output "^gvusb-emulate: .*/script:2: error: the time of 'plug 1' had not come at the end$"
    expect_status 0 "$emulate" --lenient --script "$scratch/script" -- true
    start_server --script "$scratch/script" 2>"$scratch/errors"
    kill "$launcher"
    wait "$launcher"
    expect_equal "exit status of a server" $? 1
}

prints_its_seed() {
    expect_status 0 "$emulate" -- "$emulate" --send 'chance 1 in 5 stall'
    expect_output '^gvusb-emulate: seed [0-9]*$'
    expect_status 0 "$emulate" --seed 5 -- "$emulate" --send 'jitter 1 1-5'
    expect_equal "output" "$(cat "$scratch/output")" ok
    expect_status 0 "$emulate" -- "$emulate" --send 'fail 1 in 5'
    expect_equal "output" "$(cat "$scratch/output")" ok
}

lists_commands() {
    expect_status 0 env -u GVUSB_EMULATE_SOCKET "$emulate" --send help
    commands=$(grep -c '^  [a-z]' "$scratch/output")
    expect_equal "commands in the help" "$("$emulate" --help | sed -n '/^COMMANDS/,/^SCRIPTS/p' | grep -c '^  [a-z]')" \
        "$commands"
    for word in push 'on READER' 'fail READER' chance jitter; do
        expect_output "^  $word"
    done
}

# Starts a server without a program and reads the port and the socket from its output.
start_server() { # OPTION...
    rm -f "$scratch/line"
    env --default-signal=INT,TERM,HUP "$emulate" --usbip --listen 127.0.0.1:0 "$@" >"$scratch/line" &
    launcher=$!
    await grep -q . "$scratch/line"
    port=$(sed -n 's/^gvusb-emulate: USB\/IP at 127\.0\.0\.1:\([1-9][0-9]*\), .*/\1/p' "$scratch/line")
    GVUSB_EMULATE_SOCKET=$(sed -n 's/.*, commands at GVUSB_EMULATE_SOCKET=//p' "$scratch/line")
    export GVUSB_EMULATE_SOCKET
    [ -n "$port" ] && [ -S "$GVUSB_EMULATE_SOCKET" ] || fail "line is '$(cat "$scratch/line")'"
}

serves_usbip_until_a_signal() {
    for signal in TERM INT HUP; do
        start_server
        folder=${GVUSB_EMULATE_SOCKET%/*}
        kill "-$signal" "$launcher"
        wait "$launcher"
        expect_equal "exit status by $signal" $? 0
        folder_gone "$folder" || fail "$signal left $folder"
    done
}

listed() { "$emulate" --send list | grep -q "$1"; } # PATTERN

takes_commands_while_serving_usbip() {
    printf 'at 1500 string 2 1 BEEF\n' >"$scratch/script"
    start_server --reader id=CAFE --reader id=D00F,plugged=no --script "$scratch/script"
    expect_status 0 "$emulate" --send list
    expect_output '^ok 1 [0-9a-f]*:0001 1-1 CAFE; 2 [0-9a-f]*:0001 unplugged D00F$'
    expect_status 1 "$emulate" --send 'busy 1 on'
    expect_output '^error: not possible over USB/IP: the machine that attaches the reader is its host$'
    expect_status 0 "$emulate" --send 'plug 2'
    await listed '1-2 BEEF$'
    kill "$launcher"
    wait "$launcher"
}

runs_program_beside_usbip() {
    expect_status 7 "$emulate" --usbip --listen '[::1]:0' -- sh -c 'echo "$GVUSB_EMULATE_USBIP ${LD_PRELOAD-none}"
        "$1" --send "unplug 1"; exit 7' sh "$emulate"
    expect_output '^\[::1\]:[1-9][0-9]* none$'
    expect_output '^ok$'
}

reports_usage_errors_with_usbip() {
    expect_status 2 "$emulate" --listen 127.0.0.1:0 -- true
    expect_output 'usbip'
    expect_status 2 "$emulate" --usbip --listen localhost
    expect_output "expected ADDRESS:PORT .*, not 'localhost'"
    expect_status 2 "$emulate" --usbip --no-config
    for address in 0.0.0.0:0 '[::]:0' 192.0.2.1:3240 '[::ffff:192.0.2.1]:3240'; do
        expect_status 2 "$emulate" --usbip --listen "$address" -- true
        expect_output 'needs --allow-remote: USB/IP has no authentication and no encryption, so whoever can reach the port owns'
    done
    expect_status 0 "$emulate" --usbip --listen 0.0.0.0:0 --allow-remote -- true
    expect_status 0 "$emulate" --usbip --listen '[::ffff:127.0.0.1]:0' -- true
    expect_status 2 "$emulate" --allow-remote -- true
    expect_status 2 "$emulate" --usbip --usbip-memory 0 -- true
    expect_output '--usbip-memory must be a number from 1 to 2048, not .0.'
    expect_status 2 "$emulate" --usbip --usbip-patience never -- true
    expect_output '--usbip-patience must be a number from 1 to 3600, not .never.'
    expect_status 125 "$emulate" --usbip --listen 127.0.0.1:0 --reader driver=usbhid
    expect_output 'the machine that attaches the reader is its host'
    start_server
    expect_status 125 "$emulate" --usbip --listen "127.0.0.1:$port"
    expect_output "127.0.0.1:$port: Address already in use"
    kill "$launcher"
    wait "$launcher"
}

stock_client_lists_readers() {
    PATH=$PATH:/usr/sbin:/sbin
    command -v usbip >"$scratch/where" || {
        echo "SKIPPED: the usbip client is not installed"
        exit 77
    }
    start_server --reader vendor=0x1234,product=0x5678 --reader vendor=0x1234,product=0x9abc,interfaces=2,bus=3
    expect_status 0 usbip --tcp-port "$port" list -r 127.0.0.1
    expect_output '^ *1-1: .*(1234:5678)$'
    expect_output '^ *3-2: .*(1234:9abc)$'
    expect_output '/sys/devices/gvusb/usb3/3-2$'
    expect_equal "interfaces" "$(grep -c '(ff/00/00)$' "$scratch/output")" 3
    expect_status 0 "$emulate" --send 'unplug 1'
    expect_status 0 usbip --tcp-port "$port" list -r 127.0.0.1
    expect_equal "readers" "$(grep -c '(1234:....)$' "$scratch/output")" 1
    kill "$launcher"
    wait "$launcher"
}

runs_beside_another() {
    for name in AAAA BBBB; do
        (
            for _ in 1 2 3 4 5; do
                "$emulate" --reader "id=$name" -- "$emulate" --send list || echo failed
            done >"$scratch/$name"
        ) &
    done
    wait
    for name in AAAA BBBB; do
        expect_equal "answers of $name" "$(grep -c "^ok 1 .* $name\$" "$scratch/$name")" 5
    done
}

runs_inside_another() {
    expect_equal "inner bus" "$("$emulate" -- "$emulate" --reader id=CAFE -- "$emulate" --send list | cut -d' ' -f5-)" \
        CAFE
}

"$2"
exit $failed
