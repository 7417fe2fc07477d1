# shellcheck shell=sh
# Shared by the shell tests of the virtual readers. A test script runs the case that its last argument names, and exits with
# $failed. Files are in the folder $scratch.
set -u
failed=0
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

fail() {
    echo "$*" >&2
    failed=1
}

expect_equal() { # WHAT GOT WANTED
    [ "$2" = "$3" ] || fail "$1: '$2' instead of '$3'"
}
