#!/usr/bin/env bash
# usage: clean_root.sh SOURCES
# Runs as root in a separate root file system that contains only a compiler, CMake, udev and sudo. Installs the packages
# in SOURCES/build-debian-packages according to the guides, uses them, and removes them without leftovers. Then builds
# and installs the sources according to the README.
set -euo pipefail
sources=$1
export DEBIAN_FRONTEND=noninteractive LC_ALL=C.UTF-8
fail() {
    echo "$*"
    exit 1
}
expect() {
    echo "$1: $3"
    [ "$2" = "$3" ] || fail "expected \"$2\""
}
# All files except those that any installation changes (the package manager's data, caches, logs, backups of /etc/passwd
# and similar files), and virtual file systems.
contents() {
    find / -xdev \( -path /proc -o -path /sys -o -path /dev -o -path /run -o -path /tmp -o -path "$sources" \
        -o -path '/etc/*-' -o -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/cache -o -path /var/log \) \
        -prune -o -print |
        LC_ALL=C sort
}
quietly() {
    "$@" >/tmp/log 2>&1 || { cat /tmp/log; fail "failed: $*"; }
}
# Run the n-th shell block of a guide.
shown() {
    local guide=$sources/docs/$1.md
    if [ "$1" = README ]; then
        guide=$sources/README.md
    fi
    awk -v wanted="$2" '
        /^```/ { inside = !fenced && $0 == "```sh" && ++number == wanted; fenced = !fenced; next }
        inside' "$guide" >/tmp/block
    [ -s /tmp/block ] || fail "$guide has no shell block $2"
    echo "run block of $1: $(paste -sd '|' /tmp/block | sed 's/|/; /g')"
    (cd "$sources" && quietly bash -e /tmp/block)
}

mount -t proc proc /proc
mount -t sysfs -o ro sysfs /sys
trap 'umount /proc /sys' EXIT

# Nothing is started by being installed.
printf '#!/bin/sh\nexit 101\n' >/usr/sbin/policy-rc.d
chmod +x /usr/sbin/policy-rc.d
echo 'APT { Get::Assume-Yes "true"; Install-Recommends "false"; };' >/etc/apt/apt.conf.d/90answers
contents >/tmp/before
quietly apt-get update
shown getting-started 1
contents >/tmp/installed

expect "the tool" "gvusb 07.01.00 " "$(gvusb --version | cut -d'(' -f1)"
for file in bash-completion/completions/gvusb zsh/vendor-completions/_gvusb fish/vendor_completions.d/gvusb.fish; do
    [ -e "/usr/share/$file" ] || fail "not installed: $file"
done
for program in gvusb gvusb-emulate; do
    ! readelf --dynamic "/usr/bin/$program" | grep -E 'R(UN)?PATH' || fail "$program has a run path"
done
readers=$(gvusb-emulate --reader id=1A2B3C -- gvusb list)
echo "$readers"
grep -qi 1a2b3c <<<"$readers" || fail "the tool does not list the reader"

"$sources/tests/package/consumer/build.sh" /tmp/consumers >/tmp/programs
while read -r program; do
    expect "$(basename "$program")" "version 07.01.00, mode 1, 5 bytes" "$(gvusb-emulate -- "$program")"
done </tmp/programs

answer=$(gvusb-emulate --reader name=Gate -- python3 -c '
import gvusb
with gvusb.open() as reader:
    print(reader.name, reader.transceive(b"\x02\x00", timeout=30).hex())')
expect "Python" "Gate 0200" "$answer"

# The result of the real udev for this reader. udev remembers a device's former tags, so delete its data first.
judge() {
    rm -rf /run/udev/data /run/udev/tags
    { gvusb-emulate --reader "$1,address=2" -- udevadm test /sys/bus/usb/devices/1-1 2>&1 || true; } |
        sed -nE 's/.*70-gvusb\.rules:[0-9]+ ((GROUP|MODE) .*)/\1/p; /^TAGS=/p' | tr '\n' ' '
}
for product in 1 2 3 4; do
    expect "udev about product $product" "GROUP 46 MODE 0660 TAGS=:uaccess: " "$(judge product=$product)"
done
expect "udev about product 5" "" "$(judge product=5)"

# Run the daemon in a separate network namespace, so that it receives no events about this machine's devices.
unshare --net /lib/systemd/systemd-udevd --daemon
shown containers-and-permissions 1
shown containers-and-permissions 2
expect "the service's group" plugdev "$(id -gn my-service)"
quietly deluser --system my-service
udevadm control --exit
# The daemon leaves its socket behind.
rm /run/udev/control

# The tools must not need the library of a broker.
! dpkg-query --status libmosquitto1 >/dev/null 2>&1 || fail "libmosquitto1 is installed without gvusb-mqtt"
shown readers-of-a-fleet 1
shown readers-of-a-fleet 2
shown readers-of-a-fleet 3
shown readers-of-a-fleet 6
shown readers-of-a-fleet 4
shown readers-of-a-fleet 7
shown readers-of-a-fleet 8
shown readers-of-a-fleet 9
shown readers-of-a-fleet 11
for file in mqtt-topics.schema.json examples/gvusb-mqtt.conf examples/mosquitto-acl; do
    [ -e "/usr/share/doc/gvusb-mqtt/$file" ] || fail "not installed: $file"
done
[ -e /lib/systemd/system/gvusb-mqtt.service ] || fail "the unit is not installed"
[ ! -e /etc/systemd/system/multi-user.target.wants/gvusb-mqtt.service ] || fail "the service is enabled without a broker"
unshare --net "$sources/tests/package/clean_root_fleet.sh" "$sources"
rm -rf "$sources"/gvusb-ca.* "$sources"/broker.* "$sources"/*.password /etc/systemd/system/gvusb-mqtt.service.d \
    /etc/gavo/gvusb-mqtt.password /etc/gavo/gvusb-mqtt-ca.crt /etc/mosquitto/conf.d/gvusb.conf /etc/mosquitto/gvusb.* \
    /etc/mosquitto/certs/broker.* /etc/mosquitto/ca_certificates/gvusb-ca.crt /var/lib/mosquitto/mosquitto.db

# Neither readers nor udev are available here, and the tool must report both.
if (shown getting-started 4) >/tmp/diagnosis; then
    fail "gvusb doctor finds no problem"
fi
for problem in udev readers; do
    grep "^PROBLEM  $problem" /tmp/diagnosis || {
        cat /tmp/diagnosis
        fail "gvusb doctor misses this problem: $problem"
    }
done

quietly apt-get purge -y libgvusb7 libgvusb-dev gvusb-mqtt gvusb-tools mosquitto openssl python3-gvusb
quietly apt-get autoremove -y --purge
contents >/tmp/after
if ! diff /tmp/before /tmp/after >/tmp/left; then
    cat /tmp/left
    fail "the packages left files behind"
fi
echo "$(comm -13 /tmp/before /tmp/installed | wc -l) files and folders were installed and removed again"

shown README 3
shown README 4
expect "the program of the README, from the sources" "GVUSB: (-1112) no device found" "$(
    awk '/^```/ { inside = $0 == "```c"; next } inside' "$sources/README.md" >/tmp/program.c
    cc /tmp/program.c -lgvusb -o /tmp/program
    /tmp/program 2>&1 || true
)"
shown README 5
expect "left in /usr/local" "" "$(find /usr/local -name '*gvusb*' ! -type d)"
shown getting-started 2
