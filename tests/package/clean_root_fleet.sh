#!/usr/bin/env bash
# usage: clean_root_fleet.sh SOURCES
# Runs as root in the root file system of clean_root.sh, in a network namespace of its own: starts the broker and the service
# that were set up according to the guide, and uses them as the guide does.
set -euo pipefail
cd "$1"
broker=broker.example.org
fail() {
    echo "$*"
    cat /tmp/broker.log /tmp/service.log || true
    exit 1
}
await() {
    local i
    for ((i = 0; i < 600; ++i)); do
        if "${@:2}" >/dev/null 2>&1; then
            return
        fi
        sleep 0.1
    done
    fail "not so in time: $1"
}

# There is no program here that brings an interface up.
python3 - <<'END'
import fcntl, socket, struct
control = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
fcntl.ioctl(control, 0x8914, struct.pack("16sh14x", b"lo", 1))
END
[ ! -e /etc/hosts ] || fail "this root has hosts already"
echo "127.0.0.1 localhost $broker" >/etc/hosts
trap 'rm -f /etc/hosts' EXIT

# What systemd would do.
install -d -o mosquitto /run/mosquitto /var/log/mosquitto
mosquitto -c /etc/mosquitto/mosquitto.conf >/tmp/broker.log 2>&1 &
install -d -m 700 /tmp/credentials /tmp/state
install -m 400 /etc/gavo/gvusb-mqtt.password /tmp/credentials/broker-password
CREDENTIALS_DIRECTORY=/tmp/credentials gvusb-mqtt --check || fail "the configuration of the guide is not valid"
CREDENTIALS_DIRECTORY=/tmp/credentials STATE_DIRECTORY=/tmp/state gvusb-emulate --reader id=1A2B3C -- gvusb-mqtt \
    >/tmp/service.log 2>&1 &

as() {
    gvusb --broker "mqtts://$broker" --ca-file gvusb-ca.crt --user "$1" --password-file "$1.password" "${@:2}"
}
lists_the_reader() { as operator list | grep -q 'gate-1 .*1A2B3C'; }
await "the operator sees the reader" lists_the_reader
as operator list
[ "$(as application send gate-1/1A2B3C 02 00)" = "02 00" ] || fail "the application cannot talk to the reader"
as operator set gate-1/1A2B3C TIMEOUT 250 || fail "the operator cannot change a setting"
[ "$(as application get gate-1/1A2B3C TIMEOUT)" = 250 ] || fail "the setting has not changed"
! as application set gate-1/1A2B3C TIMEOUT 500 >/tmp/refused 2>&1 || fail "the application can change a setting"
cat /tmp/refused
[ "$(as application get gate-1/1A2B3C TIMEOUT)" = 250 ] || fail "the application has changed a setting"
! gvusb --broker "mqtts://$broker" --ca-file gvusb-ca.crt list >/dev/null 2>&1 || fail "the broker lets anyone in"
kill %1 %2
wait
rm -rf /tmp/credentials /tmp/state /run/mosquitto
