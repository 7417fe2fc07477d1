#!/usr/bin/env bash
# usage: install.sh [--fleet] BUILD_FOLDER PROGRAM...
# Checks that the installation is complete, works after moving its prefix, and can be removed. With --fleet, it has to contain
# the service for MQTT.
set -euo pipefail
fleet=
if [ "$1" = --fleet ]; then
    fleet=1
    shift
fi
build=$1
shift
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
fail() {
    echo "$*"
    exit 1
}
contents() { (cd "$1" && find . -type f -o -type l | LC_ALL=C sort); }

# As in a system package, which also owns /etc.
DESTDIR=$folder/system cmake --install "$build" --prefix /usr >/dev/null
contents "$folder/system" >"$folder/installed"
for file in ./etc/gavo/gvusb.conf ./usr/lib/udev/rules.d/70-gvusb.rules ./usr/include/gvusb.h ./usr/include/gvusb.hpp \
    ./usr/share/doc/libgvusb-dev/examples/tour.c ./usr/share/doc/libgvusb-dev/guides/getting-started.md \
    ./usr/share/doc/libgvusb-dev/examples/logic/tag_reader.py ./usr/share/gvusb/python/gvusb_logic.py \
    ./usr/share/man/man5/gvusb.conf.5 "${@/#/./usr/bin/}" "${@/#/./usr/share/bash-completion/completions/}"; do
    grep -qxF "$file" "$folder/installed" || fail "not installed: $file"
done
for name in libgvusb.so libgvusb.so.7 libgvusb.so.7.1.0 pkgconfig/gvusb.pc cmake/gvusb/gvusb-config.cmake \
    gvusb/libgvusb-emulate-preload.so; do
    grep -q "^\./usr/lib.*/$name\$" "$folder/installed" || fail "not installed: $name"
done
grep -qE 'ATTR\{idVendor\}=="[0-9a-f]{4}"' "$folder/system/usr/lib/udev/rules.d/70-gvusb.rules" ||
    fail "the udev rule has no vendor ID in the format of udev"

if [[ " $* " == *" gvusb "* ]]; then
    grep -q '^\./usr/lib.*/gvusb/libgvusb-record-preload\.so$' "$folder/installed" || fail "the recorder's preload is not installed"
    for file in zsh/site-functions/_gvusb fish/vendor_completions.d/gvusb.fish; do
        grep -qxF "./usr/share/$file" "$folder/installed" || fail "not installed: $file"
    done
fi
if [ -n "$fleet" ]; then
    for file in bin/gvusb-mqtt lib/systemd/system/gvusb-mqtt.service share/doc/gvusb-mqtt/mqtt-topics.schema.json \
        share/doc/gvusb-mqtt/examples/gvusb-mqtt.conf share/doc/gvusb-mqtt/examples/mosquitto.conf \
        share/doc/gvusb-mqtt/examples/mosquitto-acl share/doc/libgvusb-dev/examples/fleet/drive_fleet.cpp \
        share/doc/libgvusb-dev/examples/fleet/drive_fleet.py; do
        grep -qxF "./usr/$file" "$folder/installed" || fail "not installed: $file"
    done
    grep -q '^\./usr/lib.*/gvusb/gvusb-fleet$' "$folder/installed" || fail "gvusb-fleet is not installed"
    ! grep -q gvusb-mqtt.conf <(ls "$folder/system/etc/gavo") || fail "a configuration without a broker was installed in /etc"
fi
for file in tsan.supp valgrind.supp; do
    grep -qxF "./usr/share/gvusb/$file" "$folder/installed" || fail "not installed: $file"
done

# A reinstallation must keep the administrator's settings.
echo gvusb_debuglevel=1 >"$folder/system/etc/gavo/gvusb.conf"
DESTDIR=$folder/system cmake --install "$build" --prefix /usr >/dev/null
grep -q '^gvusb_debuglevel=1$' "$folder/system/etc/gavo/gvusb.conf" || fail "the configuration was overwritten"

# Removing the listed files must leave only the configuration that existed before.
(cd "$folder/system" && sed 's|^/||' "$build/install_manifest.txt" | xargs -d '\n' rm)
[ "$(contents "$folder/system")" = ./etc/gavo/gvusb.conf ] || fail "not removed: $(contents "$folder/system")"

# Each file must belong to one of the components that make up the packages.
for component in runtime development tools fleet; do
    DESTDIR=$folder/components cmake --install "$build" --prefix /usr --component "$component" >/dev/null
done
contents "$folder/components" | diff "$folder/installed" - || fail "the components differ from the installation"

# With a separate prefix, which is moved afterwards.
cmake --install "$build" --prefix "$folder/before" >/dev/null
prefix=$folder/moved
mv "$folder/before" "$prefix"
[ ! -e "$prefix/etc" ] || fail "a configuration that the library does not read was installed"
libraries=$(dirname "$(find "$prefix" -name libgvusb.so)")
if [ -e "$prefix/bin/gvusb" ]; then
    env -u LD_LIBRARY_PATH "$prefix/bin/gvusb" --version | grep '^gvusb 07\.' || fail "the tool does not find the library"
    path=$(readelf --dynamic "$prefix/bin/gvusb" | sed -n 's/.*R[UN]*PATH.*\[\(.*\)\]/\1/p')
    [[ $path == '$ORIGIN/'* && $path != *:* ]] || fail "the run path is $path"
fi
if [ -n "$fleet" ]; then
    for program in bin/gvusb-mqtt "${libraries#"$prefix"/}/gvusb/gvusb-fleet"; do
        env -u LD_LIBRARY_PATH "$prefix/$program" --version >/dev/null || fail "$program does not find the library"
    done
fi
export LD_LIBRARY_PATH=$libraries PKG_CONFIG_PATH=$libraries/pkgconfig CMAKE_PREFIX_PATH=$prefix
"$here/consumer/build.sh" "$folder/consumers" >"$folder/programs"
while read -r program; do
    for configuration in --no-config "--config=$prefix/share/doc/gvusb/gvusb.conf"; do
        answer=$("$prefix/bin/gvusb-emulate" "$configuration" -- "$program" 2>&1) || true
        echo "$(basename "$program") ${configuration%%=*}: $answer"
        [ "$answer" = "version 07.01.00, mode 1, 5 bytes" ] || fail "unexpected answer"
    done
done <"$folder/programs"
