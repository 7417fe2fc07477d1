# Where udev does not run, libusb never hears of plugging and unplugging.
doctor_names_udev() {
    "$tool" doctor >/run/doctor
    [ $? -eq 1 ] && grep -q '^PROBLEM  *udev' /run/doctor
}

# What the monitor tells in two seconds, in which a reader comes and another goes.
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
    check "readers that are there at the start are found" prints '^0  *A1 ' "$tool" list
    check "the diagnosis says that udev does not run" doctor_names_udev
    check "plugging and unplugging is not noticed" unnoticed
    check "a program that starts now sees it" prints '^0  *C3 ' "$tool" list
}

udevadm control --exit
while pidof systemd-udevd >/dev/null; do usleep 10000; done
# It leaves its socket behind, by which libudev tells whether it runs. The device nodes are the kernel's own.
rm -r /run/udev
on_readers --reader id=A1 -- without_udev

/lib/systemd/systemd-udevd --daemon
udevadm trigger --type=devices --subsystem-match=usb --action=add
udevadm settle
on_readers --reader id=A1 -- check "with udev again it is noticed" monitor_tells
