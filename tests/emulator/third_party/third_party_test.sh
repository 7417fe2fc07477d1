#!/bin/sh
# Tests that programs of Debian work on the emulated bus as they do on a real one.
#
#   third_party_test.sh LAUNCHER VENDOR-ID PROGRAM CASE
# PROGRAM is built from exchange.c.
# shellcheck source=tests/emulator/testing.sh
. "$(dirname "$0")/../testing.sh"
emulate=$1
vendor=$2
program=$3
here=$(dirname "$0")
readers="--reader id=A1,vendor=$vendor --reader id=B2,vendor=$vendor,product=2,speed=high,interfaces=2,driver=usbhid"

on_bus() { # COMMAND...
    # shellcheck disable=SC2086 # the options
    "$emulate" $readers --no-config -- "$@" >"$scratch/output" 2>"$scratch/errors"
    status=$?
    [ $status -eq 0 ] || fail "exit status $status of $*: $(cat "$scratch/output" "$scratch/errors")"
}

expect_line() { # PATTERN, the whole line
    grep -q -x -e "$1" "$scratch/output" || fail "no line '$1' in: $(cat "$scratch/output")"
}

expect_lines() { # COUNT
    [ "$(wc -l <"$scratch/output")" -eq "$1" ] || fail "not $1 lines: $(cat "$scratch/output")"
}

expect_no_errors() {
    [ ! -s "$scratch/errors" ] || fail "on standard error: $(cat "$scratch/errors")"
}

digits=${vendor#0x}

lsusb_lists() {
    on_bus lsusb
    expect_lines 3
    expect_line "Bus 001 Device 002: ID $digits:0001 .*"
    expect_line "Bus 001 Device 003: ID $digits:0002 .*"
    expect_line 'Bus 001 Device 001: ID 1d6b:0002 .*'
    on_bus lsusb -d "$digits:0002"
    expect_lines 1
    on_bus lsusb -s 001:002
    expect_lines 1
    expect_line "Bus 001 Device 002: .*"
}

lsusb_shows_all() {
    on_bus lsusb -v
    expect_no_errors
    expect_line '  iSerial  *1 A1'
    expect_line '      iInterface  *6 TESK RCI2'
    expect_line '        bEndpointAddress     0x81  EP 1 IN'
    expect_line '  nNbrPorts  *8'
    expect_line '   Port 1: 0000.0103 power enable connect'
    expect_line '   Port 2: 0000.0503 highspeed power enable connect'
    expect_line '   Port 3: 0000.0100 power'
    on_bus lsusb -D /dev/bus/usb/001/002
    expect_no_errors
    expect_line '  iProduct  *5 Virtual Reader'
}

lsusb_shows_the_tree() {
    on_bus lsusb -t
    expect_no_errors
    expect_lines 4
    expect_line '/:  Bus 01.Port 1: Dev 1, Class=root_hub, Driver=gvusb/8p, 480M'
    expect_line '    |__ Port 1: Dev 2, If 0, Class=Vendor Specific Class, Driver=, 12M'
    expect_line '    |__ Port 2: Dev 3, If 0, Class=Vendor Specific Class, Driver=usbhid, 480M'
    expect_line '    |__ Port 2: Dev 3, If 1, Class=Vendor Specific Class, Driver=, 480M'
}

usb_devices_shows_all() {
    on_bus usb-devices
    expect_no_errors
    expect_line 'T:  Bus=01 Lev=00 Prnt=00 Port=00 Cnt=00 Dev#=  1 Spd=480 MxCh= 8'
    expect_line 'T:  Bus=01 Lev=01 Prnt=01 Port=00 Cnt=01 Dev#=  2 Spd=12  MxCh= 0'
    expect_line 'S:  SerialNumber=B2'
    expect_line 'C:  #Ifs= 2 Cfg#= 1 Atr=80 MxPwr=100mA'
    expect_line 'I:  If#= 0 Alt= 0 #EPs= 2 Cls=ff(vend.) Sub=00 Prot=00 Driver=usbhid'
    expect_line 'E:  Ad=81(I) Atr=02(Bulk) MxPS=  64 Ivl=0ms'
}

udevadm_finds_devices() {
    on_bus udevadm info -n /dev/bus/usb/001/002
    expect_line 'P: /devices/platform/gvusb.1/usb1/1-1'
    expect_line 'E: DEVNAME=/dev/bus/usb/001/002'
    expect_line 'E: DRIVER=usb'
    on_bus udevadm info -q all -p /sys/bus/usb/devices/1-2:1.0
    expect_line 'E: DEVTYPE=usb_interface'
    expect_line 'E: DRIVER=usbhid'
    on_bus udevadm info -a -n /dev/bus/usb/001/003
    expect_line '    ATTR{serial}=="B2"'
    expect_line "  looking at parent device '/devices/platform/gvusb.1/usb1':"
    expect_line '    ATTRS{maxchild}=="8"'
}

pyusb_exchanges() {
    on_bus /usr/bin/python3 "$here/exchange.py" "$vendor"
    expect_line 'Virtual; Virtual Reader; A1; TESK RCI2'
    expect_line '010203'
    expect_line '0908'
    expect_line '\[9, 0, 0\]'
}

valgrind_finds_no_error() {
    on_bus valgrind -q --leak-check=full --error-exitcode=9 "$program"
    expect_no_errors
    expect_line 'A1 3 passed'
}

gdb_stops_and_continues() {
    on_bus gdb --batch -nx -ex 'break exchange' -ex run -ex 'print handle != 0' -ex finish -ex delete -ex continue "$program"
    expect_line '\$1 = 1'
    expect_line 'Value returned is \$2 = 3'
    expect_line 'A1 3 passed'
    expect_line '\[Inferior 1 (process [0-9]*) exited normally\]'
}

strace_shows_system_calls() {
    on_bus strace -f -o "$scratch/calls" "$program"
    expect_line 'A1 3 passed'
    grep -q 'exited with 0' "$scratch/calls" || fail "no end in: $(tail "$scratch/calls")"
}

sanitizers_of_gcc_find_no_error() {
    flags=$(pkg-config --cflags --libs libusb-1.0)
    for sanitizer in address thread undefined; do
        # shellcheck disable=SC2086 # the flags
        gcc -g "-DGVUSB_VENDOR_ID=$vendor" "-fsanitize=$sanitizer" "$here/exchange.c" -o "$scratch/exchange" $flags -lpthread
        on_bus "$scratch/exchange"
        expect_no_errors
        expect_line 'A1 3 passed'
    done
}

"$4"
exit $failed
