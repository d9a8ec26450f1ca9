#!/usr/bin/env bash
# Installs the build tree into a temporary prefix, then builds and runs a C++20 client against
# it with pkg-config and with find_package(PreferencesClient).
# Usage: installed_client_test.sh BUILD_DIR SOURCE_DIR CXX [EXTRA_FLAGS]
set -euo pipefail
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
cmake --install "$1" --prefix "$prefix" >/dev/null
if ls "$prefix"/lib*/libbinder.so* 2>/dev/null; then echo "libbinder.so in the public lib/"; exit 1; fi

run() {
    local out
    out=$(BINDER_DIR=$work/none "$1")
    [ "$out" = "service unreachable: status -2 (no such service): nothing is published under that name" ] \
        || { echo "$1 printed '$out'"; exit 1; }
}

flags=$(PKG_CONFIG_PATH=$(dirname "$(find "$prefix" -name prefsclient.pc)") pkg-config --cflags --libs prefsclient)
case " $flags " in *" -std="*) echo "prefsclient.pc forces a standard: $flags"; exit 1 ;; esac
"$3" -std=c++20 ${4:-} "$2/client.cpp" $flags -o "$work/pc-client"
run "$work/pc-client"

mkdir "$work/src" && cp "$2/client.cpp" "$work/src/" && cp "$2/CMakeLists.txt.in" "$work/src/CMakeLists.txt"
cmake -S "$work/src" -B "$work/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_COMPILER="$3" \
    -DCMAKE_CXX_FLAGS="${4:-}" -DCMAKE_EXE_LINKER_FLAGS="${4:-}" >/dev/null
cmake --build "$work/build" >/dev/null
run "$work/build/client"
