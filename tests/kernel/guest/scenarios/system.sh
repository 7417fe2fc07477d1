# That this is a Linux as the rest needs it, and that its own USB/IP client gets on with the virtual readers.
by_client() {
    check "the client lists the readers" prints ' 1-[0-9]*: ' usbip list --remote=127.0.0.1
    bus_id=$(usbip list --remote=127.0.0.1 2>/dev/null | sed -n 's/^ *\([0-9.-]*\): .*/\1/p' | head -n 1)
    check "the client attaches a reader" usbip attach --remote=127.0.0.1 --busid="$bus_id"
    udevadm settle
    check "the attached reader is found" prints '^0  *A1 ' "$tool" list
    check "the client tells the port" prints '^Port 00: <Port in Use> at High Speed' usbip port
    check "the client detaches the reader" usbip detach --port=0
    udevadm settle
    check "the detached reader is found no more" [ "$("$tool" list 2>&1 | head -n 1)" = 'gvusb: GVUSB: (-1112) no device found' ]
}

# A program that is killed ends only when its transfers have been given back, and a server that no longer serves gives
# nothing back.
leaves_a_waiting_program_behind() {
    "$launcher" --send "mute 1 in" >/dev/null
    "$tool" send --timeout 600000 A1 00 >/dev/null 2>&1 &
    until [ "$("$launcher" --send "frames 1" | cut -d' ' -f2)" = 1 ]; do usleep 10000; done
}

check "udev answers" udevadm control --ping
check "no reader is there yet" [ -z "$(cat /sys/bus/usb/devices/*/idVendor | grep -v 1d6b)" ]
check "the controllers have ports enough" \
    [ "$(cat /sys/devices/platform/vhci_hcd.0/status* | grep -c '^hs')" -gt 40 ]
"$emulator" --usbip --reader id=A1,speed=high --reader id=B2 -- bash -c by_client
check "the launcher ends although its program leaves another waiting for a reader" \
    timeout -k 1 20 "$launcher" --reader id=A1 -- bash -c leaves_a_waiting_program_behind
