# Installs Debian packages that are missing; sourced by the scripts beside it.

# For build folders that do not exist yet; one that somebody has configured by hand keeps its generator.
export CMAKE_GENERATOR=Ninja

# What building the library, the virtual readers and the examples takes.
build_packages=(g++ cmake ninja-build pkg-config libusb-1.0-0-dev libumockdev-dev umockdev libcli11-dev)

# What the tests take beyond that: clang for its sanitizers and its analysis of locks, llvm to name functions in reports.
test_packages=(clang libclang-rt-14-dev llvm clang-format libgtest-dev libgmock-dev libcmocka-dev gcovr git)

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
