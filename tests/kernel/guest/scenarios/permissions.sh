# Only root may use a reader until the rule is installed; then the members of the group may use it too.
as_user() {
    local user=$1
    shift
    su "$user" -c "$*"
}

finds_no_reader() {
    as_user "$1" "$tool list"
    [ $? -eq 4 ]
}

exchanges() {
    prints '^02 00 FF$' as_user "$1" "$tool send 1A2B3C '02 00 FF'"
}

doctor_blames_the_node() {
    as_user "$1" "$tool doctor" >/run/doctor
    local status=$?
    cat /run/doctor
    [ $status -eq 1 ] && grep -q 'this user may not write to /dev/bus/usb' /run/doctor
}

doctor_knows_the_rule() {
    doctor_blames_the_node "$1" && grep -q '/etc/udev/rules.d/70-gvusb.rules grants access' /run/doctor
}

on_the_bus() {
    check "without the rule root uses the reader" exchanges root
    check "without the rule no other user finds it" finds_no_reader member
    check "without the rule the diagnosis names the device node" doctor_blames_the_node member

    mkdir -p /etc/udev/rules.d
    cp "$rule" /etc/udev/rules.d
    # The diagnosis advises these commands. They also set the permissions of readers that are already plugged in.
    udevadm control --reload
    udevadm trigger --action=add --attr-match=idVendor="$vendor"
    udevadm settle
    check "with the rule a member of the group uses the reader" exchanges member
    check "with the rule a user outside the group does not find it" finds_no_reader user
    check "with the rule the diagnosis names it and the group" doctor_knows_the_rule user

    "$launcher" --send "replug 1" >/dev/null
    check "with the rule a member uses a replugged reader" exchanges member
    rm /etc/udev/rules.d/*
    udevadm control --reload
    "$launcher" --send "replug 1" >/dev/null
    check "after the rule is removed no other user finds the reader" finds_no_reader member
}

# The file that the environment names chooses where the log goes. A program with the rights of another user must not let its
# caller choose this.
logs_as_the_environment_says() {
    prints 'gvUSB-DebugLevel=1$' as_user user "GVUSB_CONFIG=/run/callers.conf $1"
}

ignores_the_environment() {
    as_user user "GVUSB_CONFIG=/run/callers.conf $1" >/run/printed 2>&1
    local status=$?
    cat /run/printed
    [ $status -eq 0 ] && [ ! -s /run/printed ]
}

set_user_id() {
    rm -f "$GVUSB_TEST_CONFIGURATION_FILE"
    echo 'gvusb_debuglevel=1' >/run/callers.conf
    cp "$child_programs/version" /run/version
    check "GVUSB_CONFIG names the configuration of a program" logs_as_the_environment_says /run/version
    chmod u+s /run/version
    check "GVUSB_CONFIG means nothing to a set-user-ID program" ignores_the_environment /run/version
}

on_readers --reader id=1A2B3C -- on_the_bus
set_user_id
