# Checks that the guest provides what the other scenarios need, and that its USB/IP client works with the virtual
# readers.
by_client() {
    check "the client lists the readers" prints ' 1-[0-9]*: ' usbip list --remote=127.0.0.1
    bus_id=$(usbip list --remote=127.0.0.1 2>/dev/null | sed -n 's/^ *\([0-9.-]*\): .*/\1/p' | head -n 1)
    check "the client attaches a reader" usbip attach --remote=127.0.0.1 --busid="$bus_id"
    udevadm settle
    check "the attached reader is found" prints '^0  *A1 ' "$tool" list
    check "the client shows the port" prints '^Port 00: <Port in Use> at High Speed' usbip port
    check "the client detaches the reader" usbip detach --port=0
    udevadm settle
    check "the detached reader is no longer found" [ "$("$tool" list 2>&1 | head -n 1)" = 'gvusb: GVUSB: (-1112) no device found [GVUSB_ERR_NO_DEVICE_FOUND]' ]
}

# A killed program ends only after its transfers have completed, so the server must keep serving until then.
leaves_a_waiting_program_behind() {
    "$launcher" --send "mute 1 in" >/dev/null
    "$tool" send --timeout 600000 A1 00 >/dev/null 2>&1 &
    until [ "$("$launcher" --send "frames 1" | cut -d' ' -f2)" = 1 ]; do usleep 10000; done
}

check "udev answers" udevadm control --ping
check "no reader is attached yet" [ -z "$(cat /sys/bus/usb/devices/*/idVendor | grep -v 1d6b)" ]
check "the controllers have enough ports" \
    [ "$(cat /sys/devices/platform/vhci_hcd.0/status* | grep -c '^hs')" -gt 40 ]
"$emulator" --usbip --reader id=A1,speed=high --reader id=B2 -- bash -c by_client
check "the launcher ends although another program still waits for a reader" \
    timeout -k 1 20 "$launcher" --reader id=A1 -- bash -c leaves_a_waiting_program_behind
