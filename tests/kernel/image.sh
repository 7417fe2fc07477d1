# shellcheck shell=bash
# Builds the root file system that the guest's kernel unpacks into memory. Sourced by run.

# The modules that a reader needs: the USB core, a controller whose ports connect to a server, and a driver that may
# bind a reader before the library uses it. Then the one that captures transfers.
guest_modules=(usb/common/usb-common usb/core/usbcore usb/usbip/usbip-core usb/usbip/vhci-hcd usb/serial/usbserial
    usb/mon/usbmon)

# The udev rules for all devices and for USB; the others concern hardware that the guest lacks.
guest_rules=(50-udev-default.rules 80-drivers.rules)

# With systemd as the first process: its programs and those units that each service depends on.
systemd_files=(/lib/systemd/systemd /lib/systemd/systemd-journald /bin/journalctl /bin/systemctl
    /lib/systemd/system/{basic,local-fs,paths,shutdown,slices,sockets,swap,sysinit,timers,umount}.target
    /lib/systemd/system/systemd-journald{.service,.socket,-dev-log.socket})

# make_image GUEST_ROOT SCRIPTS IMAGE FILE...: build IMAGE from the packages in GUEST_ROOT, the folder SCRIPTS and these
# files, each under the same path as here and with the libraries that it needs.
make_image() {
    local root=$1 scripts=$2 image=$3 stage folder programs
    shift 3
    stage=$(mktemp -d)
    chmod 755 "$stage"
    mkdir -p "$stage"/{dev,proc,sys,run,tmp,etc,root,var}
    ln -s /run "$stage/var/run"
    for folder in bin sbin lib lib64; do
        mkdir -p "$stage/usr/$folder"
        ln -s "usr/$folder" "$stage/$folder"
    done
    add_system "$root" "$stage"
    cp -r "$scripts" "$stage/kernel"
    ln -s kernel/init "$stage/init"
    cp --parents --recursive -t "$stage" "$@" /bin/bash
    mapfile -d '' programs < <(find "$@" -type d -name CMakeFiles -prune -o -type f -perm /111 -print0)
    add_libraries "$stage" /bin/bash "${programs[@]}"
    (cd "$stage" && find . -print0 | cpio --quiet --null --create --format=newc --owner=0:0) >"$image"
    rm -rf "$stage"
}

add_system() {
    local root=$1 stage=$2 modules module
    cp "$root/bin/busybox" "$root/bin/udevadm" "$stage/bin"
    cp "$root/usr/sbin/usbip" "$stage/sbin"
    mkdir -p "$stage/lib/systemd" "$stage/lib/udev/rules.d"
    ln -s /bin/udevadm "$stage/lib/systemd/systemd-udevd"
    cp "${guest_rules[@]/#/$root/lib/udev/rules.d/}" "$stage/lib/udev/rules.d"
    add_libraries "$stage" "$root/bin/udevadm" "$root/usr/sbin/usbip"

    modules=$(echo "$root"/lib/modules/*)
    modules=${modules#"$root/"}
    for module in "${guest_modules[@]}"; do
        (cd "$root" && cp --parents -t "$stage" "$modules/kernel/drivers/$module.ko")
    done
    cp "$root/$modules"/modules.{builtin,order} "$stage/$modules"
    "$root/bin/busybox" depmod -b "$stage" "${modules##*/}"
}

# The libraries and the loader of the programs.
add_libraries() {
    local stage=$1
    shift
    { ldd "$@" 2>/dev/null || true; } | grep -v ':$' | grep -o '/[^ ]*\.so[^ ]*' | sort -u |
        xargs cp --dereference --parents --update -t "$stage"
}
