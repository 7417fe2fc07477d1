#!/usr/bin/env bash
# usage: header_version.sh INCLUDE_FOLDER VERSION COMPILER...
# Checks that the public header states the version of the project, in numbers that the preprocessor can compare.
set -euo pipefail
folder=$1 version=$2
shift 2
IFS=. read -r major minor patch <<<"$version"
"$@" -I "$folder" -x c -std=c11 -Wall -Wextra -Wpedantic -Werror -fsyntax-only - <<EOF
#include <gvusb.h>
#if GVUSB_VERSION_MAJOR != $major || GVUSB_VERSION_MINOR != $minor || GVUSB_VERSION_PATCH != $patch
#error "the header does not state version $version"
#endif
#if GVUSB_VERSION != $major * 10000 + $minor * 100 + $patch
#error "GVUSB_VERSION is not made of the three numbers"
#endif
EOF
