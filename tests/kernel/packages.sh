# shellcheck shell=bash
# The packages that the guest is made of: fetched, unpacked and kept, but never installed. Sourced by run.

# Debian's own kernel, the udev and the USB/IP client that belong to it, and a shell with the usual commands.
guest_packages=(udev usbip busybox-static)

# unpack_guest_packages FOLDER puts them into FOLDER/NAMES-AND-VERSIONS and tells that folder in $guest_root. What has
# been fetched once is used without asking the archive again for a week.
unpack_guest_packages() {
    local kept=$1 new log names lock
    mkdir -p "$kept"
    # Guests that start together fetch once.
    exec {lock}>"$kept/lock"
    flock "$lock"
    guest_root=$(find "$kept" -maxdepth 1 -name 'guest-*' -mtime -7 -print -quit 2>/dev/null || true)
    if [ -n "$guest_root" ]; then
        exec {lock}>&-
        return
    fi
    new=$(mktemp -d "$kept/new-XXXXXX")
    log=$new.log
    if ! fetch_guest_packages "$new" >"$log" 2>&1; then
        cat "$log" >&2
        rm -rf "$new" "$log"
        echo "The guest's packages could not be fetched." >&2
        return 1
    fi
    names=$(cd "$new/packages" && printf '%s\n' linux-image-*.deb | sed 's/_[^_]*$//; s/%3a/:/')
    rm -rf "$new/packages" "$log" "$kept"/guest-*
    guest_root=$kept/guest-$names
    mv "$new" "$guest_root"
    touch "$guest_root"
    exec {lock}>&-
}

fetch_guest_packages() {
    local kernel package
    # The package without a version in its name depends on the newest kernel.
    kernel=$(apt-cache depends "linux-image-$(dpkg --print-architecture)" |
        sed -n 's/^ *Depends: \(linux-image-[0-9].*\)/\1/p' | head -1)
    if [ -z "$kernel" ]; then
        echo "No kernel among the packages; apt-get update may help."
        return 1
    fi
    mkdir "$1/packages"
    (cd "$1/packages" && apt-get -q -o "APT::Sandbox::User=$(id -un)" download "$kernel" "${guest_packages[@]}")
    for package in "$1"/packages/*.deb; do
        dpkg-deb --extract "$package" "$1"
    done
    # What the guest has no use for is most of it.
    find "$1/lib/modules" -name '*.ko' -not -path '*/drivers/usb/*' -delete
    rm -rf "${1:?}/usr/share"
}
