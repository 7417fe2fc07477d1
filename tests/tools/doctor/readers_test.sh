#!/usr/bin/env bash
# Tests of what `gvusb doctor` says about the readers on the bus.
source "$(dirname "$0")/../testing.sh"

finds_that_there_is_no_reader() {
    readers=(--reader 'id=A1,vendor=0x1234' --reader 'id=B2,product=5')
    shell_on_bus "$doctor"
    expect_status 1
    expect_sentence 'note devices [0-9a-f]*:0005 has the vendor ID of the readers, but is not a product that the library knows'
    expect_sentence '> The library uses products 1 to 4. If this device is a reader, install a version of the library that knows it\.'
    expect_sentence 'PROBLEM readers no reader (USB vendor [0-9a-f]*) is on the bus'
    expect_in_output '^            lsusb -d [0-9a-f]*:$'
}

finds_a_node_without_write_permission() {
    # The rule as installed, with any vendor ID.
    local rule
    rule=$(sed -n '/^ACTION/{s/[][*.]/\\&/g; s/@[A-Z_]*@/[0-9a-f]*/; p}' "$(dirname "$0")/../../../packaging/udev/70-gvusb.rules.in")
    shell_on_bus "bus 'refuse 1 EACCES'; $doctor"
    expect_status 1
    expect_sentence 'PROBLEM bus 1 device 2 this user may not write to /dev/bus/usb/001/002'
    if ls {/etc,/run,/usr/local/lib,/usr/lib,/lib}/udev/rules.d/70-gvusb.rules >/dev/null 2>&1; then
        expect_sentence '/udev/rules.d/70-gvusb.rules grants access to the user at the machine'
    else
        expect_in_output 'into /etc/udev/rules.d/70-gvusb.rules:$'
        expect_in_output "^            $rule\$"
    fi
    expect_in_output '^            sudo udevadm control --reload && sudo udevadm trigger --action=add --attr-match=idVendor=[0-9a-f]*$'
    expect_in_output '^ok       bus 1 device 3  reader B2 '
}

finds_a_missing_node() {
    shell_on_bus "bus 'refuse 1 ENOENT'; $doctor"
    expect_status 1
    expect_sentence 'PROBLEM bus 1 device 2 /dev/bus/usb/001/002 cannot be opened: '
    expect_sentence 'share /dev/bus/usb with it'
}

finds_a_reader_without_device_id() {
    readers=(--reader missing=1 --reader id=xyz --reader id=1)
    shell_on_bus "$doctor"
    expect_status 1
    expect_sentence 'PROBLEM bus 1 device 2 the device ID is missing or not hexadecimal, so no scan finds the reader'
    expect_sentence 'PROBLEM bus 1 device 3 the device ID is missing or not hexadecimal, so no scan finds the reader'
    expect_in_output '^2 problems found\.$'
}

finds_a_reader_that_lacks_a_text() {
    readers=(--reader 'id=A1,missing=3' --reader 'id=B2,missing=5+6' --reader id=C3)
    shell_on_bus "$doctor"
    expect_status 1
    expect_sentence 'PROBLEM bus 1 device 2 reader A1 .*: cannot be read: family name (string 3); so no scan finds the reader > Unplug the reader'
    expect_sentence 'PROBLEM bus 1 device 3 reader B2 .*: cannot be read: device name (string 5), interface type (string 6); so'
    expect_in_output '^ok       bus 1 device 4  reader C3 '
    expect_in_output '^2 problems found\.$'
}

notes_a_reader_that_lacks_the_type_number() {
    readers=(--reader 'id=A1,missing=10')
    shell_on_bus "$doctor"
    expect_status 0
    expect_sentence 'note bus 1 device 2 reader A1 .*: its type number (string 10) cannot be read > A program that reads the parameter TYPENUMBER gets -1168\.'
    expect_in_output '^ok       bus 1 device 2  reader A1 '
}

finds_readers_with_the_same_id() {
    readers=(--reader id=A1 --reader id=B2 --reader id=A1)
    shell_on_bus "$doctor"
    expect_status 1
    expect_sentence 'PROBLEM readers 2 readers have the device ID A1 (bus 1 device [24], bus 1 device [24]), so a program that opens a reader by this ID gets the first one > Give every reader a device ID of its own'
    expect_in_output '^1 problem found\.$'
}

notes_a_kernel_driver() {
    readers=(--reader 'id=A1,driver=usbhid')
    shell_on_bus "$doctor"' && "$gvusb" send A1 02'
    expect_status 0
    expect_sentence 'note bus 1 device 2 reader A1 .*: the kernel driver usbhid is bound to interface 0; the library detaches it at the first exchange'
    expect_equal "the last line" "$(tail -n 1 "$scratch/output")" '02'
}

finds_a_kernel_driver_in_the_way() {
    readers=(--reader 'id=A1,driver=usbhid,configuration=2+1')
    shell_on_bus "$doctor"
    expect_status 1
    expect_sentence 'PROBLEM .* usbhid is bound to interface 0, so the reader cannot be switched to configuration 1'
    expect_in_output 'sudo tee /sys/bus/usb/drivers/usbhid/unbind$'
}

# Run a script while another process claims reader 1.
while_claimed() { # SCRIPT
    shell_on_bus 'mkfifo "$scratch/frames"; "$gvusb" send A1 <"$scratch/frames" >"$scratch/answers" & other=$!
        exec 3>"$scratch/frames"; echo 02 >&3; await test -s "$scratch/answers"
        '"$1"'
        status=$?; exec 3>&-; wait $other; echo "other: $other"; exit $status'
}

names_the_process_that_claimed_the_interface() {
    while_claimed "$doctor"
    expect_status 1
    other=$(sed -n 's/^other: //p' "$scratch/output")
    # The launcher also has the node open.
    expect_sentence "PROBLEM bus 1 device 2 reader A1 [^:]*: interface 0 is claimed by gvusb (process $other), so no other program can"
    expect_in_output "^            kill $other\$"
    expect_in_output '^ok       bus 1 device 3  reader B2 '
}

says_that_root_can_name_the_process() {
    # Inspecting a process requires all the capabilities that it has.
    if [ "$(id -u)" -eq 0 ]; then
        lesser='setpriv --bounding-set=-sys_ptrace,-chown'
    else
        lesser='unshare --user --map-root-user'
    fi
    $lesser true || {
        echo "Skipped: needs root or permission to create a user namespace."
        exit 77
    }
    while_claimed "$lesser bash -c '$doctor'"
    expect_status 1
    expect_sentence "interface 0 is claimed by another program"
    expect_sentence "Run 'gvusb doctor' as root to see which program it is"
}

run_case
