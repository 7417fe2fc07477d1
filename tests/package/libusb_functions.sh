#!/usr/bin/env bash
# usage: libusb_functions.sh LIBRARY LIST
# Checks that the library uses exactly the listed libusb functions ("weak" marks optional ones).
set -euo pipefail
diff -u "$2" <(nm -D --undefined-only "$1" | sed -nE 's/^ +U (libusb_[a-z_]+)$/\1/p; s/^ +w (libusb_[a-z_]+)$/weak \1/p' |
    LC_ALL=C sort)
