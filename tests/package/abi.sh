#!/usr/bin/env bash
# usage: abi.sh LIBRARY PACKAGING_FOLDER
# Checks that the binary interface (symbols, types and parameters) matches the reference.
set -euo pipefail
library=$1
packaging=$2
reference=$packaging/abi/libgvusb.so.7.abi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
if ! readelf -SW "$library" | grep -q '\.debug_info'; then
    echo "$library has no debugging information, which the comparison of types needs."
    exit 1
fi
"$packaging/abi/describe" "$library" "$folder/built.abi"
status=0
abidiff --no-show-locs --harmless "$reference" "$folder/built.abi" || status=$?
if [ $status -ne 0 ]; then
    cat <<'END'

The binary interface of the library differs from packaging/abi/libgvusb.so.7.abi, as shown above. Existing programs may
break. Removing or changing something requires another SONAME. If the change is intended and compatible, for example an
addition, run scripts/update-abi.
END
    exit 1
fi
