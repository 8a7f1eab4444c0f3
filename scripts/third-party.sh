#!/bin/bash
# Cross-builds what the project links: glog (one shared DLL), fmt and libpng (static). Runs inside
# the root.
#   third-party.sh SOURCES PREFIX
# SOURCES holds the original tarballs; PREFIX must not exist yet.
set -euo pipefail

sources=$1
prefix=$2
here=$(dirname "$(readlink -f "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$prefix/system-headers"

# Only these of the machine's own headers are fit for Windows.
for name in boost directx dxguids CLI nlohmann; do
    ln -s "/usr/include/$name" "$prefix/system-headers/$name"
done

export NORVEX_SDK=$prefix
build() { # build NAME SOURCE-FOLDER CMAKE-ARGUMENTS...
    local name=$1 source=$2
    shift 2
    cmake -S "$source" -B "$work/$name.build" -G Ninja -Wno-dev \
        -DCMAKE_TOOLCHAIN_FILE="$here/../cmake/mingw-toolchain.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_POLICY_VERSION_MINIMUM=3.5 "$@" &&
        cmake --build "$work/$name.build" &&
        cmake --install "$work/$name.build"
}

mkdir "$work/glog" "$work/fmt" "$work/png"
tar -xf "$sources"/google-glog_*.orig.tar.gz -C "$work/glog" --strip-components=1
tar -xf "$sources"/fmtlib_*.orig.tar.gz -C "$work/fmt" --strip-components=1
tar -xf "$sources"/libpng1.6_*.orig.tar.gz -C "$work/png" --strip-components=1

# All at once: most of the time goes into CMake's questions to the compiler, one after the other.
build glog "$work/glog" -DBUILD_SHARED_LIBS=ON -DWITH_GFLAGS=OFF -DWITH_GTEST=OFF \
    -DWITH_UNWIND=OFF -DBUILD_TESTING=OFF &
glog=$!
build fmt "$work/fmt" -DFMT_TEST=OFF -DFMT_DOC=OFF &
fmt=$!
build png "$work/png" -DPNG_SHARED=OFF -DPNG_STATIC=ON -DPNG_TESTS=OFF -DPNG_TOOLS=OFF \
    -DZLIB_USE_STATIC_LIBS=ON
wait "$glog"
wait "$fmt"
