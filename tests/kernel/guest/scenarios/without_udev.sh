# Without udev, libusb is never notified of plugging and unplugging.
doctor_names_udev() {
    "$tool" doctor >/run/doctor
    [ $? -eq 1 ] && grep -q '^PROBLEM  *udev' /run/doctor
}

# Print what the monitor reports in two seconds, while one reader is plugged in and another unplugged.
monitor_tells() {
    "$tool" monitor >/run/events 2>&1 &
    local monitor=$!
    sleep 2
    "$launcher" --send "plug id=C3" >/dev/null
    "$launcher" --send "unplug 1" >/dev/null
    sleep 2
    kill -INT $monitor
    wait $monitor
    cat /run/events
    [ -s /run/events ]
}

unnoticed() {
    ! monitor_tells
}

without_udev() {
    check "readers that are plugged at the start are found" prints '^0  *A1 ' "$tool" list
    check "the diagnosis says that udev does not run" doctor_names_udev
    check "plugging and unplugging are not noticed" unnoticed
    check "a program that starts now finds the new reader" prints '^0  *C3 ' "$tool" list
}

# udev may miss a request while it is busy.
while pidof systemd-udevd >/dev/null; do
    udevadm control --exit --timeout=5
    usleep 10000
done
# udev leaves its socket behind, which libudev uses to detect whether udev is running. The kernel made the device nodes.
rm -r /run/udev
on_readers --reader id=A1 -- without_udev

/lib/systemd/systemd-udevd --daemon
udevadm trigger --type=devices --subsystem-match=usb --action=add
udevadm settle
on_readers --reader id=A1 -- check "with udev again they are noticed" monitor_tells
