#!/bin/sh
# Check that a replay counts its inputs, and that it fails if one of its folders is empty or missing.
#   replay_corpus_test.sh FOLDER COMMAND...
set -eu
folder=$1
shift
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
mkdir "$scratch/empty"

fail() {
    echo "$1. The replay printed:" >&2
    cat "$scratch/output" >&2
    exit 1
}

expect_failure() {
    if "$@" >"$scratch/output" 2>&1; then
        fail "The replay succeeds where it must fail"
    fi
    grep -q "$message" "$scratch/output" || fail "The replay does not say '$message'"
}

"$@" "$folder" >"$scratch/output" 2>&1 || fail "The replay of $folder fails"
grep -qx "$(find "$folder" -type f | wc -l) inputs replayed" "$scratch/output" || fail "The number of inputs is wrong"

message="$scratch/empty has no inputs"
expect_failure "$@" "$folder" "$scratch/empty"
message="$scratch/missing cannot be opened"
expect_failure "$@" "$folder" "$scratch/missing"
message="^Usage: "
expect_failure "$@"
