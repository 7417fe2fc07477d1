#!/usr/bin/env bash
# usage: clean_root.sh FOLDER
# Runs as root in a root file system of its own with nothing in it but a compiler, CMake and udev. Installs the packages
# in FOLDER, uses them as their users would, and removes them without a trace. FOLDER also holds consumer/, the programs
# to compile.
set -euo pipefail
folder=$1
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
fail() {
    echo "$*"
    exit 1
}
expect() {
    echo "$1: $3"
    [ "$2" = "$3" ] || fail "but \"$2\" was expected"
}
# What others write at any installation: the package manager's own books, caches, logs, and the virtual file systems.
contents() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path "$folder" \
        -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log \) -prune -o -print |
        LC_ALL=C sort
}
quietly() {
    "$@" >/tmp/log 2>&1 || { cat /tmp/log; fail "failed: $*"; }
}

mount -t proc proc /proc
mount -t sysfs -o ro sysfs /sys
trap 'umount /proc /sys' EXIT

contents >/tmp/before
# apt takes from Debian what the packages say that they depend on.
quietly apt-get update
quietly apt-get install -y --no-install-recommends "$folder"/*.deb
contents >/tmp/installed

expect "the tool" "gvusb 07.01.00 " "$(gvusb --version | cut -d'(' -f1)"
readers=$(gvusb-emulate --reader id=1A2B3C -- gvusb list)
echo "$readers"
grep -qi 1a2b3c <<<"$readers" || fail "the tool does not list the reader"

"$folder/consumer/build.sh" /tmp/consumers >/tmp/programs
while read -r program; do
    expect "$(basename "$program")" "version 07.01.00, mode 1, 5 bytes" "$(gvusb-emulate -- "$program")"
done </tmp/programs

# The real udev, asked what it would do with a reader and with another device of the same vendor. It keeps the tags that
# a device has had.
judge() {
    rm -rf /run/udev/data /run/udev/tags
    { gvusb-emulate --reader "$1,address=1" -- udevadm test /sys/bus/usb/devices/1-1 2>&1 || true; } |
        sed -nE 's/.*70-gvusb\.rules:[0-9]+ ((GROUP|MODE) .*)/\1/p; /^TAGS=/p' | tr '\n' ' '
}
for product in 1 2 3 4; do
    expect "udev about product $product" "GROUP 46 MODE 0660 TAGS=:uaccess: " "$(judge product=$product)"
done
expect "udev about product 5" "" "$(judge product=5)"

quietly apt-get purge -y libgvusb7 libgvusb-dev gvusb-tools
quietly apt-get autoremove -y --purge
contents >/tmp/after
if ! diff /tmp/before /tmp/after >/tmp/left; then
    cat /tmp/left
    fail "the packages left something behind"
fi
echo "$(comm -13 /tmp/before /tmp/installed | wc -l) files and folders were installed and are gone again"
