#!/usr/bin/env bash
# usage: mqtt_samples.sh SAMPLES_FOLDER
# Runs a real broker with the sample configuration and the sample access list, and checks who may do what.
set -euo pipefail
samples=$1
folder=$(mktemp -d)
children=()
finish() {
    # shellcheck disable=SC2317 # called by the trap
    [ ${#children[@]} -eq 0 ] || kill "${children[@]}" 2>/dev/null || true
    # shellcheck disable=SC2317
    wait
    # shellcheck disable=SC2317
    rm -rf "$folder"
}
trap finish EXIT
fail() {
    echo "$*" >&2
    cat "$folder"/*.log >&2 || true
    exit 1
}
await() {
    local i
    for ((i = 0; i < 600; ++i)); do
        if "${@:2}" 2>/dev/null; then
            return
        fi
        sleep 0.05
    done
    fail "$1"
}

cd "$folder"
request() { openssl req -newkey rsa:2048 -noenc -keyout "$1.key" "${@:2}" 2>>openssl.out || fail "$(cat openssl.out)"; }
request ca -x509 -out ca.crt -subj /CN=test
request other -x509 -out other.crt -subj /CN=other
request broker -out broker.csr -subj /CN=localhost
openssl x509 -req -in broker.csr -CA ca.crt -CAkey ca.key -CAcreateserial -out broker.crt \
    -extfile <(echo subjectAltName=DNS:localhost) 2>>openssl.out || fail "$(cat openssl.out)"
touch passwords
for user in gate-1 gate-2 application operator; do
    mosquitto_passwd -b passwords "$user" "secret of $user"
done
cp "$samples/mosquitto-acl" acl
chmod 600 acl passwords
port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
sed -e "s|^listener 8883$|listener $port 127.0.0.1|" \
    -e "s|/etc/mosquitto/ca_certificates/gvusb-ca.crt|$folder/ca.crt|" \
    -e "s|/etc/mosquitto/certs/broker|$folder/broker|" \
    -e "s|/etc/mosquitto/gvusb.passwords|$folder/passwords|" \
    -e "s|/etc/mosquitto/gvusb.acl|$folder/acl|" "$samples/mosquitto.conf" >broker.conf
# Only when it starts as root does mosquitto become another user, who cannot read this folder.
echo "user $(id -un)" >>broker.conf
! grep -n /etc/mosquitto broker.conf | grep -v ':#' || fail "the sample names files that this test does not know"
grep -q "^listener $port " broker.conf || fail "the sample has no listener for TLS"
mosquitto -c broker.conf >broker.log 2>&1 &
children+=($!)

as() {
    "$2" -V 5 -h localhost -p "$port" --cafile ca.crt -u "$1" -P "secret of $1" -q 1 "${@:3}"
}
await "the broker does not start" as operator mosquitto_pub -t gvusb/gate-9/status -n

for what in "anonymous: --cafile ca.crt" "wrong password: --cafile ca.crt -u operator -P wrong" \
    "wrong authority: --cafile other.crt -u operator -P secret" "no TLS: -u operator -P secret"; do
    # shellcheck disable=SC2086 # options
    if timeout 30 mosquitto_pub -V 5 -h localhost -p "$port" -q 1 -t gvusb/gate-9/status -n ${what#*: } >>refused.log 2>&1; then
        fail "the broker lets a client in: $what"
    fi
done

for user in gate-1 gate-2 application operator; do
    mosquitto_sub -V 5 -h localhost -p "$port" --cafile ca.crt -u "$user" -P "secret of $user" -q 1 -t '#' -F '%t %p' \
        >"$user.seen" 2>"$user.log" &
    children+=($!)
    await "$user is not subscribed" eval "as operator mosquitto_pub -t gvusb/$user/ready -m 1; grep -q $user/ready *.seen"
done

# may USER TOPIC... and may_not USER TOPIC...: a message that the broker refuses makes the client print a warning.
publish() {
    as "$1" mosquitto_pub -t "$2" -m "from-$1" 2>&1
}
may() {
    local topic result
    for topic in "${@:2}"; do
        result=$(publish "$1" "$topic")
        [ -z "$result" ] || fail "$1 may not publish to $topic: $result"
    done
}
may_not() {
    local topic result
    for topic in "${@:2}"; do
        result=$(publish "$1" "$topic")
        [[ $result == *"Not authorized"* ]] || fail "$1 may publish to $topic"
    done
}
reader=gvusb/gate-1/readers/1A2B3C
may gate-1 gvusb/gate-1/status gvusb/gate-1/events "$reader" gvusb-answers/application/gate-1/x \
    gvusb-answers/operator/gate-1/x
may_not gate-1 gvusb/gate-2/status gvusb/gate-2/readers/1 gvusb/gate-2/readers/1/transceive \
    gvusb-answers/application/gate-2/x gvusb-answers/application elsewhere
may application "$reader/transceive" "$reader/transmit" "$reader/receive" "$reader/get" gvusb/gate-1/scan
may_not application "$reader/set" "$reader" gvusb/gate-1/status gvusb/gate-1/events gvusb-answers/operator/gate-1/x \
    gvusb-answers/application/gate-1/x elsewhere
may operator "$reader/set" "$reader/transceive" "$reader" gvusb/gate-1/scan
may_not operator gvusb-answers/application/gate-1/x elsewhere
for user in gate-1 gate-2 application operator; do
    as operator mosquitto_pub -t "gvusb/$user/status" -m end
done

# reads USER TOPIC...: exactly these topics reached the user, between the message that said it was subscribed and the end.
reads() {
    local user=$1
    shift
    await "$user did not see the end" grep -q ' end$' "$user.seen"
    printf '%s\n' "$@" | sort -u >expected
    grep -vE '/ready 1$| end$|gate-9' "$user.seen" | cut -d' ' -f1 | sort -u >got || true
    diff expected got || fail "$user reads other topics than expected"
}
reads gate-1 gvusb/gate-1/status gvusb/gate-1/events "$reader" "$reader"/{transceive,transmit,receive,get,set} gvusb/gate-1/scan
reads application gvusb/gate-1/status gvusb/gate-1/events "$reader" gvusb-answers/application/gate-1/x
reads operator gvusb/gate-1/status gvusb/gate-1/events "$reader" "$reader"/{transceive,transmit,receive,get,set} \
    gvusb/gate-1/scan gvusb-answers/operator/gate-1/x
await "gate-2 did not see the end" grep -q ' end$' gate-2.seen
! grep -vE '/ready 1$| end$|gate-9' gate-2.seen || fail "gate-2 reads what is not its own"
echo "the sample access list does what it says"
