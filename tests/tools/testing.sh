# shellcheck shell=bash
# Shared by the tests of the tool, which source it with their own arguments: LAUNCHER TOOL UDEV_PRELOAD CASE.
#
# A test is a function. It runs the tool on a bus of virtual readers with `on_bus`, which stores standard
# output, standard error and the exit status.
set -u
export LC_ALL=C
emulate=$1
gvusb=$2
export udev_preload=$3
test_case=$4
failed=0
scratch=$(mktemp -d)
export emulate gvusb scratch

fail() {
    echo "$*" >&2
    failed=1
}

expect_equal() { # WHAT GOT WANTED
    [ "$2" = "$3" ] || fail "$1 is
$2
instead of
$3"
}

# The default bus, with readers 1 and 2.
desk='id=A1,family=Desk,name=Desk reader,type=D-100'
gate='id=B2,family=Gate,name=Gate reader,type=G-200,product=2,endpoints=control'
readers=(--reader "$desk" --reader "$gate")
configuration=(--no-config)

# Use another configuration file from now on.
configure() { # TEXT
    printf '%s\n' "$1" >"$scratch/gvusb.conf"
    configuration=(--config "$scratch/gvusb.conf")
}

keep() { # COMMAND...
    "$@" >"$scratch/output" 2>"$scratch/errors"
    status=$?
    output=$(cat "$scratch/output")
    errors=$(cat "$scratch/errors")
}

on_bus() { # ARGUMENTS OF THE TOOL...
    keep "$emulate" "${configuration[@]}" "${readers[@]}" -- "$gvusb" "$@"
}

# The same for a shell script, which finds the tool in $gvusb and sends commands to the bus with `bus`.
shell_on_bus() { # SCRIPT [ARGUMENTS...]
    keep "$emulate" "${configuration[@]}" "${readers[@]}" -- bash -c '
        bus() { "$emulate" --send "$1" >>"$scratch/bus" || echo "bus: $1 was refused" >&2; }
        await() { # COMMAND..., for at most 10 seconds
            for _ in $(seq 500); do
                "$@" && return
                sleep 0.02
            done
            echo "timed out waiting for: $*" >&2
        }
        contains() { grep -q -e "$2" "$1" 2>/dev/null; }
        lines() { [ "$(wc -l <"$1")" -ge "$2" ]; }
        '"$1" "$@"
}

# Run a shell script in a terminal and capture its content; standard input is typed there. Without `exec`, an
# intermediate shell would run, which the interrupt key would end too, with its own status.
in_terminal() { # SCRIPT
    printf '%s\n' "$1" >"$scratch/commands"
    keep "$emulate" "${configuration[@]}" "${readers[@]}" -- \
        script -qec "exec bash $scratch/commands" "$scratch/typescript"
}

# A script that runs the doctor. The emulated bus sends udev's events without udev, so a preload makes the
# doctor find udev running or not.
doctor='LD_PRELOAD="$udev_preload:$LD_PRELOAD" "$gvusb" doctor'
export GVUSB_TEST_UDEV=yes

expect_status() { # WANTED
    [ "$status" -eq "$1" ] || fail "the exit status is $status instead of $1; standard error: $errors"
}

expect_output() { # WANTED
    expect_equal "standard output" "$output" "$1"
}

expect_in_output() { # PATTERN
    grep -q -e "$1" "$scratch/output" || fail "'$1' is not in the output: $output"
}

expect_not_in_output() { # PATTERN
    ! grep -q -e "$1" "$scratch/output" || fail "'$1' is in the output: $output"
}

# Searches standard output as one line, because sentences are wrapped.
expect_sentence() { # PATTERN
    tr -s ' \n' '  ' <"$scratch/output" | grep -q -e "$1" || fail "'$1' is not in the output: $output"
}

expect_errors() { # WANTED
    expect_equal "standard error" "$errors" "$1"
}

expect_in_errors() { # PATTERN
    grep -q -e "$1" "$scratch/errors" || fail "'$1' is not in standard error: $errors"
}

run_case() {
    trap 'rm -rf "$scratch"' EXIT
    "$test_case"
    exit $failed
}
