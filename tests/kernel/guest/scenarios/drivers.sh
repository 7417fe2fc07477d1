# A kernel driver, or another program, uses the reader's interface before the library does.

# The driver of the reader's interface. The names of the root hubs' interfaces contain port 0.
driver_is() {
    local driver
    driver=$(basename "$(readlink -f /sys/bus/usb/devices/*-[1-9]*:1.0/driver)")
    echo "the driver is $driver"
    [ "$driver" = "$1" ]
}

has_no_driver() {
    local interface
    interface=$(echo /sys/bus/usb/devices/*-[1-9]*:1.0)
    [ -d "$interface" ] && [ ! -e "$interface/driver" ]
}

exchanges() {
    prints '^02 00 FF$' "$tool" send 1A2B3C '02 00 FF'
}

with_a_driver() {
    check "the kernel's serial driver takes a reader that is plugged in" driver_is usbserial_generic
    check "the diagnosis names the driver" prints 'usbserial_generic' "$tool" doctor
    check "the reader works nevertheless" exchanges
    check "the driver is detached" has_no_driver
}

cannot_be_claimed() {
    "$examples/exchange_frame" 1A2B3C 02 00 FF
    [ $? -eq 1 ]
}

with_another_program() {
    "$examples/handle_errors" 1000 >/run/other &
    local other=$!
    until grep -q 'exchange 1: 5 bytes' /run/other; do usleep 10000; done
    check "a reader that another program has claimed cannot be used" cannot_be_claimed
    kill $other
    wait $other 2>/dev/null
    check "after that program has ended it works" exchanges
}

modprobe usbserial vendor="0x$vendor" product=0x0001
on_readers --reader id=1A2B3C -- with_a_driver
rmmod usbserial
on_readers --reader id=1A2B3C -- with_another_program
