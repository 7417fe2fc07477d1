#!/usr/bin/env bash
# usage: sample_configuration.sh FILE
# The sample configuration names every setting, has no effect, and is read to its end.
set -euo pipefail
sample=$1
for key in libusb_debuglevel= gvusb_debuglevel= gvusb_hotplug= gvusb_updaterate= nopnp; do
    if grep -qF "$key" "$sample"; then
        echo "\"$key\" would be found in the sample, in a comment too"
        exit 1
    fi
done
for name in libusb_debuglevel gvusb_debuglevel gvusb_hotplug gvusb_updaterate '"no" and "pnp"'; do
    grep -qF "$name" "$sample" || { echo "not explained: $name"; exit 1; }
done
size=$(wc -c <"$sample")
[ "$size" -le 850 ] || { echo "$size bytes leave too little of the 1023 that count"; exit 1; }
