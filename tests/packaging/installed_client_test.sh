#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and builds a small client against it twice:
# with pkg-config and with find_package(PreferencesClient). Both are C++20 programs, so a -std
# flag forced by the package would break them; both must run and find the client library and
# its private Binder runtime from the prefix.
# Usage: installed_client_test.sh BUILD_DIR SOURCE_DIR CXX [EXTRA_FLAGS]
set -euo pipefail
build=$1
here=$2
cxx=$3
extra=${4:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
expected="service unreachable: status -2 (no such service): nothing is published under that name"

cmake --install "$build" --prefix "$prefix" >/dev/null
# No generic runtime library may land in the public library directory.
if ls "$prefix"/lib*/libbinder.so* >/dev/null 2>&1; then
    echo "libbinder.so installed into the public library directory"
    exit 1
fi

check() {
    local output
    output=$(BINDER_DIR=$work/no-services "$1")
    if [ "$output" != "$expected" ]; then
        echo "$1 printed '$output'"
        exit 1
    fi
}

pc_dir=$(dirname "$(find "$prefix" -name prefsclient.pc)")
flags=$(PKG_CONFIG_PATH=$pc_dir pkg-config --cflags --libs prefsclient)
case " $flags " in *" -std="*) echo "prefsclient.pc forces a standard: $flags"; exit 1 ;; esac
# shellcheck disable=SC2086
"$cxx" -std=c++20 $extra "$here/client.cpp" $flags -o "$work/pc-client"
check "$work/pc-client"

mkdir "$work/cmake-client"
cp "$here/client.cpp" "$work/cmake-client/"
cp "$here/CMakeLists.txt.in" "$work/cmake-client/CMakeLists.txt"
cmake -S "$work/cmake-client" -B "$work/cmake-build" -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx" -DCMAKE_CXX_FLAGS="$extra" -DCMAKE_EXE_LINKER_FLAGS="$extra" \
    >/dev/null
cmake --build "$work/cmake-build" >/dev/null
check "$work/cmake-build/client"
