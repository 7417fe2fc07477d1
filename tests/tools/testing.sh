# shellcheck shell=bash
# What the tests of the tool share; sourced by them with their own arguments: LAUNCHER TOOL UDEV_PRELOAD CASE.
#
# A test is a function. It runs the tool on a bus of virtual readers by `on_bus`, which keeps standard output, standard
# error and the exit status.
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

# The bus of the tests that need no other. Readers 1 and 2 by number.
desk='id=A1,family=Desk,name=Desk reader,type=D-100'
gate='id=B2,family=Gate,name=Gate reader,type=G-200,product=2,endpoints=control'
readers=(--reader "$desk" --reader "$gate")
configuration=(--no-config)

# Uses another configuration file from now on.
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

# The same for a text in the shell's language, which finds the tool in $gvusb and sends commands to the bus by `bus`.
shell_on_bus() { # TEXT [ARGUMENTS...]
    keep "$emulate" "${configuration[@]}" "${readers[@]}" -- bash -c '
        bus() { "$emulate" --send "$1" >>"$scratch/bus" || echo "bus: $1 was refused" >&2; }
        await() { # COMMAND..., for at most 10 seconds
            for _ in $(seq 500); do
                "$@" && return
                sleep 0.02
            done
            echo "never came true: $*" >&2
        }
        contains() { grep -q -e "$2" "$1" 2>/dev/null; }
        lines() { [ "$(wc -l <"$1")" -ge "$2" ]; }
        '"$1" "$@"
}

# Runs a text in the shell's language in a terminal of its own; what appears there is the output. Standard input is typed.
# No other shell stays in between: the interrupt key would end that one too, with a status of its own.
in_terminal() { # TEXT
    printf '%s\n' "$1" >"$scratch/commands"
    keep "$emulate" "${configuration[@]}" "${readers[@]}" -- \
        script -qec "exec bash $scratch/commands" "$scratch/typescript"
}

# The text that runs the doctor. A preload makes it find udev running or not: the emulated bus sends udev's events without
# udev.
doctor='LD_PRELOAD="$udev_preload:$LD_PRELOAD" "$gvusb" doctor'
export GVUSB_TEST_UDEV=yes

expect_status() { # WANTED
    [ "$status" -eq "$1" ] || fail "the exit status is $status instead of $1; standard error: $errors"
}

expect_output() { # WANTED
    expect_equal "standard output" "$output" "$1"
}

expect_in_output() { # PATTERN
    grep -q -e "$1" "$scratch/output" || fail "no '$1' in the output: $output"
}

expect_not_in_output() { # PATTERN
    ! grep -q -e "$1" "$scratch/output" || fail "'$1' is in the output: $output"
}

# Standard output in one line, so that sentences are found wherever they were broken.
expect_sentence() { # PATTERN
    tr -s ' \n' '  ' <"$scratch/output" | grep -q -e "$1" || fail "no '$1' in the output: $output"
}

expect_errors() { # WANTED
    expect_equal "standard error" "$errors" "$1"
}

expect_in_errors() { # PATTERN
    grep -q -e "$1" "$scratch/errors" || fail "no '$1' in standard error: $errors"
}

run_case() {
    trap 'rm -rf "$scratch"' EXIT
    "$test_case"
    exit $failed
}
