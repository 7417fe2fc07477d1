# shellcheck shell=bash
# Installs Debian packages that are missing; sourced by the scripts beside it.

# For build folders that do not exist yet; one that somebody has configured by hand keeps its generator.
export CMAKE_GENERATOR=Ninja

# What building the library, the virtual readers and the examples takes.
build_packages=(g++ cmake ninja-build pkg-config libusb-1.0-0-dev libumockdev-dev umockdev libcli11-dev
    nlohmann-json3-dev)

# What the tests take beyond that: clang for its sanitizers and its analysis of locks, llvm to name functions in reports,
# abigail-tools to compare the binary interface, doxygen and help2man to make the manual, python3 to do what it shows,
# usbip to look at virtual readers with the client that everybody has, QEMU and cpio for a machine with its own kernel.
test_packages=(clang libclang-rt-14-dev llvm clang-format libgtest-dev libgmock-dev libcmocka-dev gcovr git
    abigail-tools doxygen help2man python3 usbip qemu-system-x86 cpio)

# What looking for mistakes without running anything takes beyond both; run-clang-tidy is a Python program.
analysis_packages=(clang-tidy cppcheck gcc git jq python3 shellcheck)

# What measuring takes beyond the first.
bench_packages=(binutils libbenchmark-dev python3 strace valgrind)

# What building Debian packages and trying them takes beyond the first.
packaging_packages=(blhc debhelper doxygen dpkg-dev git help2man lintian mmdebstrap python3)

install_missing() {
    local missing=() package
    for package in "$@"; do
        if [ "$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null)" != installed ]; then
            missing+=("$package")
        fi
    done
    if [ ${#missing[@]} -eq 0 ]; then
        return
    fi
    echo "Installing: ${missing[*]}"
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        as_root=(sudo)
    fi
    local log
    log=$(mktemp)
    if ! { "${as_root[@]}" apt-get update -qq &&
        "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
            apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        cat "$log" >&2
        rm -f "$log"
        echo "The packages could not be installed." >&2
        return 1
    fi
    rm -f "$log"
}

# unpack_missing ARCHITECTURE PACKAGE... unpacks packages of another architecture into build-packages/ARCHITECTURE. They
# are not installed: that would take a second architecture into the system, and with it every library's version there
# would have to be the one here.
unpack_missing() {
    local architecture=$1 root=$PWD/build-packages/$1
    shift
    if [ "$(cat "$root/unpacked" 2>/dev/null)" = "$*" ]; then
        return
    fi
    echo "Unpacking for $architecture: $*"
    rm -rf "$root"
    mkdir -p "$root/apt/lists/partial" "$root/apt/archives/partial"
    local apt=(apt-get -q -o "APT::Architecture=$architecture" -o "APT::Architectures=$architecture"
        -o "Dir::State=$root/apt" -o Dir::State::status=/dev/null -o "Dir::Cache=$root/apt"
        -o "APT::Sandbox::User=$(id -un)")
    # A mirror may lack an index that is not needed here, so what counts is whether the packages come.
    if ! { "${apt[@]}" update || true; (cd "$root/apt/archives" && "${apt[@]}" download "$@"); } \
        >"$root/log" 2>&1; then
        cat "$root/log" >&2
        echo "The packages for $architecture could not be fetched." >&2
        return 1
    fi
    local package
    for package in "$root"/apt/archives/*.deb; do
        dpkg-deb --extract "$package" "$root"
    done
    rm -rf "$root/apt"
    echo "$*" >"$root/unpacked"
}
