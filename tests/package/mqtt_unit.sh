#!/usr/bin/env bash
# usage: mqtt_unit.sh UNIT GUIDE
# Checks the unit of gvusb-mqtt: systemd understands it, its exposure is below 2.0, and the guide states the figure.
set -euo pipefail
unit=$1 guide=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

# The program and its manual page are not installed here.
sed -e 's|^ExecStart=gvusb-mqtt|ExecStart=/bin/true|' -e '/^Documentation=/d' "$unit" >"$folder/gvusb-mqtt.service"
grep -q '^ExecStart=/bin/true$' "$folder/gvusb-mqtt.service" || { echo "the unit starts another program"; exit 1; }
# The example of a credential, too.
sed -i 's/^#LoadCredential=/LoadCredential=/' "$folder/gvusb-mqtt.service"
grep -q '^LoadCredential=' "$folder/gvusb-mqtt.service" || { echo "the unit has no example of a credential"; exit 1; }
problems=$(systemd-analyze verify --man=no "$folder/gvusb-mqtt.service" 2>&1) || { echo "$problems"; exit 1; }
[ -z "$problems" ] || { echo "$problems"; exit 1; }

level=$(systemd-analyze security --offline=true --no-pager "$folder/gvusb-mqtt.service" |
    sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p')
echo "exposure level: $level"
awk -v level="$level" 'BEGIN { exit !(level != "" && level < 2.0) }' || { echo "it is not below 2.0"; exit 1; }
# The figure is that of one release of systemd. Others rate more settings.
if [ "$(systemd-analyze --version | sed -n '1s/systemd \([0-9]*\).*/\1/p')" = 252 ]; then
    grep -qF "exposure level of $level" "$guide" || { echo "$guide states another figure"; exit 1; }
fi
