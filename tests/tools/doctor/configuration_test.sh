#!/usr/bin/env bash
# Tests of what `gvusb doctor` says about the configuration file.
source "$(dirname "$0")/../testing.sh"

shows_the_configuration() {
    shell_on_bus "$doctor"
    expect_sentence 'no /etc/gavo/gvusb.conf, using the defaults; hot-plug mode 1: the library polls'
    configure 'gvusb_debuglevel=0 gvusb_hotplug=2'
    shell_on_bus "$doctor"
    expect_status 0
    expect_sentence '/etc/gavo/gvusb.conf: gvusb_debuglevel=0, gvusb_hotplug=2; hot-plug mode 2: libusb reports'
    configure 'gvusb_updaterate=20 nopnp'
    shell_on_bus "$doctor"
    expect_sentence 'gvusb.conf: gvusb_updaterate=20, nopnp; hot-plug mode 0: nothing is reported'
    configure 'empty, more or less'
    shell_on_bus "$doctor"
    expect_sentence 'gvusb.conf: no settings;'
    configure "$(printf '%1024s' '') gvusb_hotplug=0"
    shell_on_bus "$doctor"
    expect_status 0
    expect_sentence 'gvusb.conf: no settings; hot-plug mode 1'
    expect_sentence 'note configuration the library reads only the first 1023 of the file.s 1041 bytes'
}

finds_a_configuration_that_cannot_be_read() {
    # Not even root can open a link to itself.
    ln -s loop "$scratch/loop"
    shell_on_bus "GVUSB_EMULATE_CONFIG=\"\$scratch/loop\" $doctor"
    expect_status 1
    expect_sentence 'PROBLEM configuration /etc/gavo/gvusb.conf cannot be read: Too many levels'
    expect_sentence ' sudo chmod a+r /etc/gavo/gvusb.conf'
}

run_case
