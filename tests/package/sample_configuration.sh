#!/usr/bin/env bash
# usage: sample_configuration.sh FILE
# Checks that the sample configuration names every setting, has no effect, and leaves room for settings.
set -euo pipefail
sample=$1
for key in libusb_debuglevel= gvusb_debuglevel= gvusb_hotplug= gvusb_updaterate= gvusb_parallel= gvusb_logfile= nopnp; do
    if grep -qF "$key" "$sample"; then
        echo "the library would find \"$key\" in the sample, even in a comment"
        exit 1
    fi
done
for name in libusb_debuglevel gvusb_debuglevel gvusb_hotplug gvusb_updaterate gvusb_parallel gvusb_logfile '"no" and "pnp"'; do
    grep -qF "$name" "$sample" || { echo "not explained: $name"; exit 1; }
done
size=$(wc -c <"$sample")
[ "$size" -le 880 ] || { echo "$size bytes leave too little room within the first 1023"; exit 1; }
