#!/usr/bin/env bash
# usage: mqtt_configuration.sh SERVICE SAMPLE
# Checks the sample configuration of gvusb-mqtt: it names every option, states the defaults, changes nothing, and each line is
# valid when it is taken into use.
set -euo pipefail
service=$1 sample=$2
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
fail() {
    echo "$*"
    exit 1
}

"$service" --help >"$folder/help"
# One line for each option, with what it takes and its text.
awk '/^  --/ { if (line != "") print line; line = $0; next } /^ {20}/ { line = line " " $0; next } { if (line != "") print line; line = "" }' \
    "$folder/help" | tr -s ' ' >"$folder/options"
sed -n 's/^ --\([a-z-]*\).*/\1/p' "$folder/options" | grep -vxE 'help|version|config|check' | sort >"$folder/wanted"
[ "$(wc -l <"$folder/wanted")" -gt 10 ] || fail "the help lists too few options"
sed -n 's/^#\([a-z-]*\)=.*/\1/p' "$sample" | sort >"$folder/named"
diff "$folder/wanted" "$folder/named" || fail "the sample does not name the options of the help"

# The help gives defaults that are numbers or names in parentheses.
while IFS='=' read -r name value; do
    default=$(sed -n "s/^ --$name .*(\([^()]*\))\$/\1/p" "$folder/options")
    if [[ $default =~ ^[0-9a-z]+$ ]]; then
        echo "$name: $default"
        [ "$value" = "$default" ] || fail "the sample says $name=$value"
    fi
done < <(sed -n 's/^#\([a-z-]*=.*\)/\1/p' "$sample") >"$folder/defaults"
cat "$folder/defaults"
[ "$(wc -l <"$folder/defaults")" -ge 6 ] || fail "too few defaults were compared"

! "$service" --check --config "$sample" >"$folder/output" 2>&1 || fail "the sample changes something: it names a broker"
grep -q broker "$folder/output" || fail "the message does not name the broker: $(cat "$folder/output")"

# With every line in use, and the files that they name.
mkdir "$folder/credentials"
for name in broker-ca.crt gvusb-mqtt.crt gvusb-mqtt.key credentials/broker-password; do
    touch "$folder/$name"
    chmod 600 "$folder/$name"
done
sed -e 's/^#\([a-z-]*=\)/\1/' -e "s|/etc/gavo/|$folder/|" "$sample" >"$folder/used"
CREDENTIALS_DIRECTORY=$folder/credentials "$service" --check --config "$folder/used" || fail "a line of the sample is not valid"
