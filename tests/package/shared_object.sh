#!/usr/bin/env bash
# usage: shared_object.sh LIBRARY FOLDER
# Checks the library's names and SONAME, immediate binding, read-only relocations, a non-executable stack, and that it reads
# the environment only by secure_getenv.
set -euo pipefail
library=$1
folder=$2
dynamic=$(readelf -dW "$library")
segments=$(readelf -lW "$library")

grep -q 'Library soname: \[libgvusb.so.7\]' <<<"$dynamic"
grep -q 'BIND_NOW' <<<"$dynamic"
grep -q 'GNU_RELRO' <<<"$segments"
grep -qE 'GNU_STACK.* RW ' <<<"$segments"
[ "$(basename "$library")" = libgvusb.so.7.1.0 ]
[ "$(readlink "$folder/libgvusb.so.7")" = libgvusb.so.7.1.0 ]
[ "$(readlink "$folder/libgvusb.so")" = libgvusb.so.7 ]
imports=$(nm -D --undefined-only "$library")
grep -q ' secure_getenv@' <<<"$imports"
! grep -q ' getenv@' <<<"$imports"
