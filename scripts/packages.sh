# shellcheck shell=bash
# Functions that install missing Debian packages, for the scripts in this folder.

# For new build folders. A folder that was configured by hand keeps its generator.
export CMAKE_GENERATOR=Ninja

# Needed to build the library, the virtual readers, the tool and the examples.
build_packages=(g++ cmake ninja-build pkg-config libusb-1.0-0-dev libcli11-dev libmosquitto-dev libpcap-dev
    libsystemd-dev nlohmann-json3-dev)

# Also needed for the tests: abigail-tools to compare the binary interface, doxygen and help2man to build the manual,
# gnuplot-nox to draw recordings and tshark to read them, mosquitto as the broker of a fleet, with its clients, those of
# Python and certificates of openssl, mypy and the packages for Python to check and install the Python package, python3 to run
# what the guides show, python3-jsonschema to check the schema of the topics, systemd to check the unit, usbip to try the
# virtual readers with the standard client, fish and zsh to try their completions, and the programs that have to work on
# virtual readers.
test_packages=(libgtest-dev libgmock-dev libcmocka-dev abigail-tools doxygen fish gnuplot-nox help2man mosquitto
    mosquitto-clients mypy openssl python3 python3-jsonschema python3-paho-mqtt python3-pip python3-setuptools python3-venv
    python3-wheel systemd usbip zsh gdb python3-usb strace tshark udev usbutils valgrind)

# Also needed for the tests on a real kernel, in a virtual machine.
kernel_packages=(qemu-system-x86 cpio)

# Also needed for the tests with sanitizers: clang for these and for its thread-safety analysis, llvm to name functions in
# reports.
sanitizer_packages=(clang libclang-rt-14-dev llvm)

# Needed to check the format.
format_packages=(clang-format git)

# Needed to measure the coverage, in addition to those for the tests.
coverage_packages=(gcovr)

# Also needed for static analysis. run-clang-tidy is a Python program.
analysis_packages=(clang-tidy cppcheck gcc git jq python3 shellcheck)

# Needed for the benchmarks, in addition to build_packages.
bench_packages=(binutils libbenchmark-dev python3 strace valgrind)

# Needed to build and test Debian packages, in addition to build_packages.
packaging_packages=(blhc debhelper dh-python doxygen dpkg-dev git help2man lintian mmdebstrap pybuild-plugin-pyproject
    python3-all python3-setuptools python3-wheel)

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
        echo "Installing the packages failed." >&2
        return 1
    fi
    rm -f "$log"
}

# unpack_missing ARCHITECTURE PACKAGE... unpacks packages of another architecture into build-packages/ARCHITECTURE.
# Installing them would add the architecture to the system, and all libraries would need the same version in both.
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
    # The update may fail on an index that is not needed here. What matters is whether the download succeeds.
    if ! { "${apt[@]}" update || true; (cd "$root/apt/archives" && "${apt[@]}" download "$@"); } \
        >"$root/log" 2>&1; then
        cat "$root/log" >&2
        echo "Downloading the packages for $architecture failed." >&2
        return 1
    fi
    local package
    for package in "$root"/apt/archives/*.deb; do
        dpkg-deb --extract "$package" "$root"
    done
    rm -rf "$root/apt"
    echo "$*" >"$root/unpacked"
}
