#!/bin/bash
# Installs a MinGW cross build as a folder that a host can be built from with nothing else at hand:
# with the Boost and DirectX headers that the library's own include, and with the DLLs that it needs,
# without debug information. Runs inside the root.
#   install.sh BUILD-FOLDER PREFIX
set -euo pipefail

build=$(readlink -f "$1")
mkdir -p "$2"
prefix=$(readlink -f "$2")
dependencies=$prefix/include/NorvexDX/dependencies

for component in Runtime Headers Development; do
    cmake --install "$build" --prefix "$prefix" --component "$component" >/dev/null
done
for file in "$prefix"/bin/lib*.dll; do
    x86_64-w64-mingw32-strip --strip-debug "$file"
done
# Which compiler's runtime that is, and on what terms.
cp /usr/share/doc/gcc-mingw-w64-base/copyright "$prefix/share/NorvexDX/licenses/gcc-runtime.txt"
cp /usr/share/doc/mingw-w64-common/copyright "$prefix/share/NorvexDX/licenses/mingw-w64.txt"

# Those that any source of the build has included; and all that describe compilers, for another one.
mkdir -p "$dependencies"
cd /usr/include
{
    ninja -C "$build" -t deps | sed -nE 's!^ .*/((boost|directx|dxguids)/)!\1!p'
    find -L boost/config boost/predef -name '*.hpp' -o -name '*.h'
} | sort -u | xargs cp -L --parents -t "$dependencies"
