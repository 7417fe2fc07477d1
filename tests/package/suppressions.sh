#!/usr/bin/env bash
# usage: suppressions.sh SOURCES BUILD LAUNCHER COMPILER...
# Checks what the guide says about sanitizers and valgrind: with the installed suppressions, a program on virtual readers
# that makes no mistake has no report. Without them, it has.
set -uo pipefail
sources=$1 build=$2 launcher=$3
shift 3
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
failed=0

read -ra libusb < <(pkg-config --cflags --libs libusb-1.0)
compiled() { # NAME OPTION...
    local name=$1
    shift
    "${compiler[@]}" "$@" -g -pthread "$sources/tests/package/suppressions.c" -I "$sources/include" -L "$build" -lgvusb \
        "${libusb[@]}" -Wl,-rpath,"$build" -o "$folder/$name" || exit 1
}
compiler=("$@")
# gcc's address sanitizer must come first among the libraries, but the launcher preloads others. clang links it into the
# program.
static_runtime=()
"${compiler[@]}" --version | grep -q clang || static_runtime=(-static-libasan)

echo 'gvusb_hotplug=2' >"$folder/gvusb.conf"
run() { # WANTED "none"|"some" COMMAND...: whether the status is that of a report
    local wanted=$1
    shift
    "$launcher" --config "$folder/gvusb.conf" --reader id=A1 --reader id=B2,endpoints=control \
        -- env "$@" >"$folder/output" 2>&1
    local status=$?
    local found=none
    [ $status -eq 0 ] || found=some
    echo "$found reports: $*"
    if [ "$found" != "$wanted" ] || { [ $status -ne 0 ] && [ $status -ne 66 ]; }; then
        tail -40 "$folder/output"
        failed=1
    fi
}

compiled plain
compiled thread -fsanitize=thread
compiled address -fsanitize=address,undefined "${static_runtime[@]}"
suppressions=$sources/packaging/suppressions
run some "$folder/thread"
run none "TSAN_OPTIONS=suppressions=$suppressions/tsan.supp" "$folder/thread"
run none "TSAN_OPTIONS=suppressions=$suppressions/tsan.supp" "$folder/thread" events
run none ASAN_OPTIONS=exitcode=66 "$folder/address"
run none valgrind --error-exitcode=66 --leak-check=full --undef-value-errors=no "$folder/plain"
for tool in helgrind drd; do
    run some valgrind --tool=$tool --error-exitcode=66 "$folder/plain"
    run none valgrind --tool=$tool --error-exitcode=66 --suppressions="$suppressions/valgrind.supp" "$folder/plain"
done
exit $failed
