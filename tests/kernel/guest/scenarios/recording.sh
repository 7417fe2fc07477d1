# A recording and a capture of usbmon that is made at the same time agree, and play back the same.
modprobe usbmon

# What is recorded: exchanges with a reader on bulk pipes and with one on the control pipe, long frames, a time-out.
exchange_frames() {
    printf '%s\n' "02 00 07" FF "$(printf '%02400d' 0)" | "$tool" send B1
    "$tool" send C1 02 01
    "$tool" send --timeout 300 B1 AA
}

# The readers are plugged in while usbmon captures, so that it sees their descriptors.
record_both() {
    local usbmon status
    "$usbmon_capture" /run/usbmon.pcap >/run/usbmon.output &
    usbmon=$!
    while ! grep -q ready /run/usbmon.output; do
        sleep 0.1
    done
    "$launcher" --send "plug 1" && "$launcher" --send "plug 2" && "$launcher" --send "on 1 AA mute"
    "$tool" record -o /run/session.pcapng -- bash -c exchange_frames >/run/recorded.output 2>&1
    status=$?
    kill -TERM $usbmon
    wait $usbmon || return
    cat /run/recorded.output
    [ $status -eq 3 ] && "$capture_comparison" /run/session.pcapng /run/usbmon.pcap
}

play_back() {
    local status=0
    "$emulator" --no-config --replay "$1" --replay-speed 0 -- bash -c exchange_frames >/run/played.output 2>&1 || status=$?
    # The player says what a capture of usbmon lacks.
    grep -v '^gvusb-emulate: /run/' /run/played.output | sed 's/[0-9.]* ms/... ms/' >/run/played
    sed 's/[0-9.]* ms/... ms/' /run/recorded.output | diff - /run/played && [ $status -eq 3 ]
}

check "a recording agrees with usbmon" on_readers \
    --reader id=B1,plugged=no --reader id=C1,product=2,endpoints=control,plugged=no -- record_both
check "a recording plays back the same" play_back /run/session.pcapng
check "usbmon's capture plays back the same" play_back /run/usbmon.pcap
