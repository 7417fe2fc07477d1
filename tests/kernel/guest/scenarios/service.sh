# The service of a fleet as the package's unit runs it: with the real systemd, a user of its own and no other rights.
install_service() {
    local drop_in=/etc/systemd/system/gvusb-mqtt.service.d
    cp "$service" /usr/bin/gvusb-mqtt
    cp "$library" "/usr/lib/$(basename "${library%.*.*}")"
    mkdir -p /etc/udev/rules.d "$drop_in"
    cp "$rule" /etc/udev/rules.d
    cp "$unit" /etc/systemd/system
    echo secret >/etc/gavo/gvusb-mqtt.password
    chmod 600 /etc/gavo/gvusb-mqtt.password
    printf '%s\n' broker=127.0.0.1 machine=gate user=gate password-file=credential:broker-password \
        >/etc/gavo/gvusb-mqtt.conf
    printf '%s\n' '[Service]' LoadCredential=broker-password:/etc/gavo/gvusb-mqtt.password WatchdogSec=20 \
        >"$drop_in/test.conf"
    udevadm control --reload
}

start_broker() {
    "$broker_passwords" -b -c /run/broker.passwords gate secret &&
        printf '%s\n' 'user root' 'listener 1883 127.0.0.1' 'password_file /run/broker.passwords' >/run/broker.conf &&
        "$broker" -d -c /run/broker.conf
}

# A unit that runs the script "confined" in the place of the service, and what everybody may do without the unit.
install_confined() {
    sed -e 's|^ExecStart=.*|ExecStart=/bin/bash /kernel/confined|' -e 's/^Type=.*/Type=oneshot/' -e '/^Restart/d' \
        -e 's|^StateDirectory=.*|StateDirectory=confined|' -e 's|^#LoadCredential=|LoadCredential=|' \
        -e 's|^\[Service\]|&\nStandardOutput=truncate:/run/confined|' "$unit" >/etc/systemd/system/confined.service
    mkdir -p /home
    mkdir -m 777 /etc/open_to_all
    echo text | tee /home/open_to_all >/tmp/open_to_all
    mknod -m 666 /dev/open_to_all c 4 64 # a serial port
}

# Another user may do everything but be root.
unconfined() {
    su user -c 'bash /kernel/confined' >/run/unconfined
    cat /run/unconfined
    [ "$(grep -v '^possible: ' /run/unconfined)" = 'prevented: [ 1000 = 0 ]' ]
}

confined() {
    systemctl start confined || return
    cat /run/confined
    [ "$(wc -l </run/confined)" = "$(wc -l </run/unconfined)" ] && ! grep -v '^prevented: ' /run/confined
}

on_fleet() {
    "$tool" --broker mqtt://127.0.0.1 --user gate --password-file /etc/gavo/gvusb-mqtt.password "$@"
}

main_process() {
    systemctl show --property MainPID --value gvusb-mqtt
}

# eventually COMMAND...: succeed when the command does, at the latest after a minute.
eventually() {
    local end=$((SECONDS + 60))
    until "$@"; do
        [ $SECONDS -lt $end ] || return 1
        usleep 200000
    done
}

answers() {
    prints '^01 02$' on_fleet send "gate/$1" '01 02'
}

# Ends the process with this signal, and waits until systemd has started another one, with its readers.
comes_back_after() {
    local before
    before=$(main_process)
    [ "$before" != 0 ] || return
    kill -"$1" "$before"
    eventually is_another "$before" && eventually answers A1
}

is_another() {
    local now
    now=$(main_process)
    [ "$now" != 0 ] && [ "$now" != "$1" ]
}

ends_in_order() {
    systemctl stop gvusb-mqtt
    systemctl show --property Result,ExecMainCode,ExecMainStatus gvusb-mqtt
    [ "$(systemctl show --property Result --value gvusb-mqtt)" = success ]
}

is_offline() {
    on_fleet list >/run/list 2>&1
    cat /run/list
    grep -q '1 machine is offline' /run/list
}

is_not_restarted() {
    systemctl show --property Result,NRestarts,ActiveState gvusb-mqtt
    [ "$(systemctl show --property NRestarts --value gvusb-mqtt)" = 0 ] && systemctl is-failed gvusb-mqtt
}

served() {
    check "without the unit, a user may do what the unit prevents" unconfined
    check "the unit gives the service what it needs, and no more" confined
    check "the service says when it is ready" systemctl start gvusb-mqtt
    check "its reader answers" eventually answers A1
    "$launcher" --send "plug id=B2" >/dev/null
    check "a reader that is plugged in answers" eventually answers B2
    check "it comes back after it is killed" comes_back_after KILL
    check "the watchdog restarts it after it has stopped" comes_back_after STOP
    check "the journal has its messages" prints 'connected to 127.0.0.1:1883 as gate' \
        journalctl --unit gvusb-mqtt --priority notice
    check "it ends in order" ends_in_order
    check "the broker knows that" is_offline
    echo 'queue=many' >>/etc/gavo/gvusb-mqtt.conf
    systemctl start gvusb-mqtt 2>/dev/null
    check "it is not started again with an invalid configuration" is_not_restarted
}

# Other guests have another first process.
if [ -d /run/systemd/system ]; then
    install_service
    install_confined
    start_broker
    systemctl daemon-reload
    on_readers --reader id=A1 -- served
fi
