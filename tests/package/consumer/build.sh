#!/usr/bin/env bash
# usage: build.sh FOLDER
# Builds the consumers in FOLDER against an installed library, in C and in C++ with both headers, each with pkg-config
# and with CMake.
# Prints the paths of the programs.
set -euo pipefail
source=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
folder=$1
mkdir -p "$folder"

# Split into words on purpose: the output is a list of options.
read -ra flags <<<"$(pkg-config --cflags --libs gvusb)"
"${CC:-cc}" -Wall -Wextra -Wpedantic -Werror "$source/consumer.c" -o "$folder/pkg-config-c" "${flags[@]}"
"${CXX:-c++}" -Wall -Wextra -Wpedantic -Werror "$source/consumer.cpp" -o "$folder/pkg-config-cxx" "${flags[@]}"
hpp=()
for standard in 17 20 2b; do
    "${CXX:-c++}" "-std=c++$standard" -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Werror \
        "$source/consumer_hpp.cpp" -o "$folder/pkg-config-hpp-$standard" "${flags[@]}"
    hpp+=("$folder/pkg-config-hpp-$standard")
done

cmake -S "$source" -B "$folder/cmake" >"$folder/cmake.log" || { cat "$folder/cmake.log"; exit 1; }
cmake --build "$folder/cmake" >"$folder/cmake.log" || { cat "$folder/cmake.log"; exit 1; }
printf '%s\n' "$folder/pkg-config-c" "$folder/pkg-config-cxx" "${hpp[@]}" \
    "$folder"/cmake/consumer_{c,cxx,hpp_17,hpp_20,hpp_23}
