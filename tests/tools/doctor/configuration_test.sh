#!/usr/bin/env bash
# Tests of what `gvusb doctor` says about the configuration file.
source "$(dirname "$0")/../testing.sh"

shows_the_configuration() {
    shell_on_bus "$doctor"
    expect_sentence 'no /etc/gavo/gvusb.conf, using the defaults; hot-plug mode 1: the library polls'
    expect_sentence 'not parallel: readers wait for each other'
    configure 'gvusb_hotplug=0 gvusb_parallel=1'
    shell_on_bus "$doctor"
    expect_sentence 'gvusb_hotplug=0, gvusb_parallel=1; hot-plug mode 0: nothing is reported; parallel mode: no reader'
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

finds_settings_without_the_wanted_effect() {
    configure 'foo=bar
gvusb_hotplug = 0
# gvusb_debuglevel=2'
    # The log of level 2 goes to standard error.
    shell_on_bus "$doctor"
    expect_status 1
    expect_sentence "PROBLEM configuration line 1: 'foo=bar' is not a setting of the library > The settings are libusb_debuglevel, gvusb_debuglevel, gvusb_hotplug, gvusb_updaterate, gvusb_parallel, gvusb_logfile, and nopnp; see gvusb\.conf(5)\."
    expect_sentence "PROBLEM configuration line 2: 'gvusb_hotplug =' is ignored > Write 'gvusb_hotplug=', in lower case"
    expect_sentence "PROBLEM configuration line 3: 'gvusb_debuglevel=' counts although the line looks like a comment > The library searches the whole file"
    expect_in_output '^3 problems found\.$'
    configuration=(--config "$(dirname "$0")/../../../packaging/gvusb.conf")
    shell_on_bus "$doctor"
    expect_status 0
}

shows_the_file_that_the_environment_names() {
    printf 'gvusb_hotplug=0\ngvusb_logfile=%s/log\n' "$scratch" >"$scratch/my.conf"
    shell_on_bus "GVUSB_CONFIG=\"\$scratch/my.conf\" $doctor"
    expect_status 0
    expect_sentence "$scratch/my.conf: gvusb_hotplug=0, gvusb_logfile=$scratch/log; hot-plug mode 0: nothing"
    shell_on_bus "GVUSB_CONFIG=/missing $doctor"
    expect_status 0
    expect_sentence 'no /missing, using the defaults; hot-plug mode 1'
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
