#!/usr/bin/env bash
# usage: abi.sh LIBRARY PACKAGING_FOLDER
# The binary interface is the one in the reference, to the last argument, member and symbol.
set -euo pipefail
library=$1
packaging=$2
reference=$packaging/abi/libgvusb.so.7.abi

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
if ! readelf -SW "$library" | grep -q '\.debug_info'; then
    echo "$library has no debugging information, without which its types cannot be compared."
    exit 1
fi
"$packaging/abi/describe" "$library" "$folder/built.abi"
status=0
abidiff --no-show-locs --harmless "$reference" "$folder/built.abi" || status=$?
if [ $status -ne 0 ]; then
    cat <<'END'

The binary interface of the library differs from its reference, packaging/abi/libgvusb.so.7.abi; see above.
Programs that were built before may break. What is removed or changed needs another SONAME.
If the change is meant and harms nobody, for example an addition, run scripts/update-abi.
END
    exit 1
fi
