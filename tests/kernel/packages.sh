# shellcheck shell=bash
# The guest's packages, which are downloaded, unpacked and cached, but never installed. Sourced by run.

# In addition to Debian's kernel: udev, the USB/IP client, and a shell with the usual commands.
guest_packages=(udev usbip busybox-static)

# unpack_guest_packages FOLDER: unpack the packages into FOLDER/NAMES-AND-VERSIONS and set $guest_root to that folder.
# Packages are cached for a week without a query of the archive.
unpack_guest_packages() {
    local kept=$1 new log names lock
    mkdir -p "$kept"
    # Guests that start at the same time download only once.
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
    # The unversioned package depends on the newest kernel.
    kernel=$(apt-cache depends "linux-image-$(dpkg --print-architecture)" |
        sed -n 's/^ *Depends: \(linux-image-[0-9].*\)/\1/p' | head -1)
    if [ -z "$kernel" ]; then
        echo "No kernel package found; try apt-get update."
        return 1
    fi
    mkdir "$1/packages"
    (cd "$1/packages" && apt-get -q -o "APT::Sandbox::User=$(id -un)" download "$kernel" "${guest_packages[@]}")
    for package in "$1"/packages/*.deb; do
        dpkg-deb --extract "$package" "$1"
    done
    # Most files are not needed in the guest.
    find "$1/lib/modules" -name '*.ko' -not -path '*/drivers/usb/*' -delete
    rm -rf "${1:?}/usr/share"
}
