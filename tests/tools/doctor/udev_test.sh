#!/usr/bin/env bash
# Tests of what `gvusb doctor` says about udev.
source "$(dirname "$0")/../testing.sh"

finds_that_udev_is_not_running() {
    GVUSB_TEST_UDEV=no shell_on_bus "unset GVUSB_EMULATE_SOCKET; $doctor"
    expect_status 1
    expect_sentence 'PROBLEM udev not running, so plugging and unplugging is not noticed'
    expect_in_output '^            sudo systemctl start systemd-udevd$'
    expect_equal "the last line" "$(tail -n 1 "$scratch/output")" '1 problem found.'
}

needs_no_udev_for_virtual_readers() {
    GVUSB_TEST_UDEV=no shell_on_bus "$doctor"
    expect_status 0
    expect_sentence 'note udev not running; the virtual readers of gvusb-emulate do not need it'
}

needs_udev_for_readers_served_by_usbip() {
    GVUSB_TEST_UDEV=no shell_on_bus "GVUSB_EMULATE_USBIP=127.0.0.1:3240; export GVUSB_EMULATE_USBIP; $doctor"
    expect_status 1
    expect_sentence 'PROBLEM udev not running, so plugging and unplugging is not noticed'
}

run_case
