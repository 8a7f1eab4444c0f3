#!/bin/bash
# Builds hosts as other people would, in empty folders, and runs them: from the installed library alone
# by find_package and by pkg-config, and by add_subdirectory. ctest calls this, inside the root.
#   package-test.sh BUILD-FOLDER RESULT.xml [--whole]
# --whole builds the library inside the host's project too, on its own host SDK and on another, and
# compiles every installed header alone: minutes, for `./dev package`. Without, the host is compiled
# once, where find_package has found the library; the other ways must find the same headers, and link
# that object; inside a host's project the library is configured, but taken as it was built.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
if [ -z "${NORVEX_WINE_SESSION:-}" ]; then
    exec "$here/wine-session" "$0" "$@"
fi
build=$(readlink -f "$1")
result=$2
whole=${3:-}
tree=$(dirname "$here")
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT
cd "$folder"
# shellcheck source=/dev/null
. "$here/cases.sh"

compiler=x86_64-w64-mingw32-g++-posix
object=found/CMakeFiles/host.dir/host.cpp.obj
of=(-S "$tree/tests/Package/host" -DSOURCE="$tree/examples/version.cpp" -G Ninja)
user=("${of[@]}" -DCMAKE_SYSTEM_NAME=Windows -DCMAKE_CXX_COMPILER="$compiler")
developer=("${of[@]}" -DCMAKE_TOOLCHAIN_FILE="$tree/cmake/mingw-toolchain.cmake" -DNORVEX_TREE="$tree")

# runs PROGRAM: it says what it should, with the DLLs beside it and the compiler's
runs() {
    local expected="NorvexDX $version, headers $version, scale 1.00, level 1" said
    cp --update=none "$folder"/sdk/bin/lib*.dll "$(dirname "$1")"
    said=$(timeout 100 "$here/wine-run" "$1")
    [ "${said:0:${#expected}}" = "$expected" ] || { echo "It said: $said"; return 1; }
}

installs() {
    "$here/install.sh" "$build" sdk
    # Public headers alone, and nothing that is not the library's.
    [ ! -e sdk/include/NorvexDX/Proc/DirectX/Manager/Throw.h ]
    [ -e sdk/share/NorvexDX/LICENSE ]
    # The guide, with the examples' lines in it, and its links.
    [ -e sdk/share/doc/NorvexDX/CHANGELOG.md ]
    ! grep -rF '\snippet' sdk/share/doc/NorvexDX/guide || return 1
    local name page link
    for page in sdk/share/doc/NorvexDX/*.md sdk/share/doc/NorvexDX/guide/*.md; do
        for link in $(grep -oE '\]\([^): #]+\)' "$page" | sed 's/^](//; s/)$//'); do
            [ -e "$(dirname "$page")/$link" ] || { echo "$page: no $link"; return 1; }
        done
    done
    for name in NorvexDX NorvexHost; do
        x86_64-w64-mingw32-strings -el "sdk/bin/$name.dll" | grep -qx "$version" # its version resource
    done
}

finds_package() {
    cmake -B found "${user[@]}" -DCMAKE_PREFIX_PATH="$folder/sdk"
    cmake --build found
    runs found/host.exe
}

# With CMake's parser, for there may be no pkg-config; it does not know where the file is.
takes_pkg_config() {
    mkdir pkgconfig packaged
    sed "s|\${pcfiledir}|$folder/sdk/lib/pkgconfig|" sdk/lib/pkgconfig/norvexdx.pc >pkgconfig/norvexdx.pc
    cat >flags.cmake <<'END'
set(CMAKE_PKG_CONFIG_PC_PATH pkgconfig)
cmake_pkg_config(EXTRACT norvexdx REQUIRED ALLOW_SYSTEM_INCLUDES ON ALLOW_SYSTEM_LIBS ON)
file(WRITE flags "${CMAKE_PKG_CONFIG_CFLAGS} ${CMAKE_PKG_CONFIG_LIBS}\n")
END
    cmake -P flags.cmake
    cp sdk/bin/*.dll packaged
    read -ra flags <flags
    "$compiler" -std=c++20 -E found/host.cpp -o packaged/host.ii "${flags[@]}"
    "$compiler" "$object" -o packaged/host.exe "${flags[@]}"
    runs packaged/host.exe
}

# A module with headers of another version is refused at first use, in words; another patch is none.
refuses_other_versions() {
    local other said
    read -ra flags <flags
    for other in 20304 $((${version:0:1} * 10000 + 199)); do
        printf '#include "Proc/DirectX/Manager/Version.h"\nextern const bool fits = NORVEX_DX_BUILT_AS(%s);\n' "$other" >other.cpp
        "$compiler" -std=c++20 other.cpp "$object" -o "packaged/$other.exe" "${flags[@]}"
    done
    said=$(timeout 100 "$here/wine-run" packaged/20304.exe | tr -d '\r') || true
    [ "$said" = "The host was compiled with headers of NorvexDX 2.3.4, this is NorvexDX $version" ] || { echo "$said"; return 1; }
    runs "packaged/$other.exe"
}

# A wrong pair does not link, and the linker says why.
tells_wrong_pairs() {
    printf '#include "Proc/DirectX/Manager/Version.h"\nint main() {}\n' >pair.cpp
    "$compiler" -std=c++20 pair.cpp -o pair.exe -Isdk/include/NorvexDX -Lsdk/lib -lNorvexDX
    if "$compiler" -std=c++20 -D_GLIBCXX_DEBUG pair.cpp -o pair.exe -Isdk/include/NorvexDX -Lsdk/lib -lNorvexDX 2>said; then return 1; fi
    grep -q 'NorvexDX_built_with_its_own_CComPtr_and_checked_containers' said
}

# d3d12.h of the toolchain first: one message that says what to do.
tells_wrong_headers() {
    printf '#include <d3d12.h>\n#include "Platform/Direct3D.h"\n' >first.cpp
    if "$compiler" -E -Wfatal-errors -std=c++20 first.cpp -Isdk/include/NorvexDX -Isdk/include/NorvexDX/dependencies >first.ii 2>said; then return 1; fi
    grep -q 'error: #error .*came before Platform/Direct3D.h' said
}

# inside FOLDER OPTIONS...: configures a project with the library inside; what the build knows of the
# compiler is not asked again
inside() {
    mkdir -p "$1/CMakeFiles"
    cp -r "$build"/CMakeFiles/[0-9]* "$1/CMakeFiles"
    cmake -B "$1" "${developer[@]}" "${@:2}"
}

takes_sources() {
    inside inside
    mkdir -p inside/NorvexDX/{Host,Proc/DirectX/Manager}
    cp "$build"/{lib/libNorvexHost.dll.a,bin/NorvexHost.dll} inside/NorvexDX/Host
    cp "$build"/{lib/libNorvexDX.dll.a,bin/NorvexDX.dll} inside/NorvexDX/Proc/DirectX/Manager
    mkdir -p "inside/$(dirname "${object#found/}")"
    cp "$object" "inside/${object#found/}"
    cd inside
    eval "$(ninja -t commands -s "${object#found/}" | sed 's/ -o [^ ]* -c / -E -o host.ii /')"
    eval "$(ninja -t commands -s host.exe)"
    runs host.exe
}

# On another host SDK a source that uses much of it sees that one's headers, and no others of their names.
takes_other_host_sdk() {
    inside other -DOTHER_HOST_SDK="$tree/examples/host_sdk" -DNORVEX_UNITY=OFF -DNORVEX_PCH=OFF
    cd other
    local source
    source=$(ninja -t commands NorvexDX | grep -o '[^ ]*/Exceptions.cpp.obj' | head -n 1)
    eval "$(ninja -t commands -s "$source" | sed 's/ -MD .* -c / -M -MF seen /')"
    grep -q '/sdk/Host/RefCountable.h' seen
    grep -q '/examples/host_sdk/OtherHost.h' seen
    if grep -E "$tree/Host/(Color|CoreTracker|RefCountable|Registry).h" seen; then return 1; fi
}

builds_sources() {
    cmake -B "whole$1" "${developer[@]}" "${@:2}"
    cmake --build "whole$1"
    runs "whole$1/host.exe"
}

compiles_every_header() {
    (cd sdk/include/NorvexDX && find Host Platform Proc -name '*.h') |
        xargs -P "$(nproc)" -I HEADER "$compiler" -fsyntax-only -std=c++20 -Wall -Wextra -Werror -x c++ \
            -Isdk/include/NorvexDX -isystem sdk/include/NorvexDX/dependencies -include HEADER /dev/null
}

run_case PackageTest ExportsAreReviewed "$here/exports.sh" "$build"
run_case PackageTest Installs installs
run_case PackageTest IsFoundByCMake finds_package
run_case PackageTest IsFoundByPkgConfig takes_pkg_config
run_case PackageTest RefusesHeadersOfAnotherVersion refuses_other_versions
run_case PackageTest WrongPairsDoNotLink tells_wrong_pairs
run_case PackageTest WrongHeadersFirstAreNamed tells_wrong_headers
if [ -z "$whole" ]; then
    run_case PackageTest IsPartOfAProject takes_sources
    run_case PackageTest TakesAnotherHostSDK takes_other_host_sdk
else
    run_case PackageTest IsBuiltInAProject builds_sources ""
    run_case PackageTest IsBuiltOnAnotherHostSDK builds_sources -other -DOTHER_HOST_SDK="$tree/examples/host_sdk"
    run_case PackageTest EveryHeaderCompilesAlone compiles_every_header
fi
write_results "$result"
