#!/usr/bin/env bash
# usage: readme_program.sh README INCLUDE_FOLDER LIBRARY LAUNCHER COMPILER [FLAGS...]
# The program that the README shows compiles without a warning and gets its answer from a virtual reader.
set -euo pipefail
readme=$1 include=$2 library=$3 launcher=$4
shift 4

folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
sed -n '/^```c$/,/^```$/{/^```/d;p}' "$readme" >"$folder/program.c"
"$@" -std=c99 -Wall -Wextra -Wpedantic -Werror "$folder/program.c" -I"$include" "$library" \
    -Wl,-rpath,"$(dirname "$library")" -o "$folder/program"
answer=$("$launcher" -- "$folder/program")
echo "$answer"
[ "$answer" = "5 bytes, the first is 02" ]
