#!/bin/bash
# Makes the archives: the library for other people's projects, and the program for a Windows machine
# with nothing installed; then uses both as their receivers would. Runs inside the root.
#   package.sh BUILD-FOLDER OUT-FOLDER
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
if [ -z "${NORVEX_WINE_SESSION:-}" ]; then
    exec "$here/wine-session" "$0" "$@"
fi
build=$(readlink -f "$1")
out=$2
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

library=NorvexDX-$version-mingw-x64
program=norvexdx-$version-x64
symbols=NorvexDX-$version-mingw-x64-debug
"$here/install.sh" "$build" "$library"

# The program, its DLLs and their terms, in one folder.
mkdir "$program"
cmake --install "$build" --prefix "$work/staged" --component Program >/dev/null
cp staged/bin/norvexdx.exe "$library"/bin/*.dll "$program"
cp -r "$library/share/NorvexDX/LICENSE" "$library/share/NorvexDX/licenses" "$program"
cp "$here/../docs/program.txt" "$program/README.txt"

# Found by the debugger beside the DLLs and the program.
cmake --install "$build" --prefix "$work/$symbols" --component Debug >/dev/null

# Whatever a part asks for at its start is a part, or Windows has it.
for binary in "$program"/*.exe "$program"/*.dll; do
    for name in $(x86_64-w64-mingw32-objdump -p "$binary" | sed -n 's/^\s*DLL Name: //p'); do
        if [ ! -e "$program/$name" ] && [ ! -e "$WINEPREFIX/drive_c/windows/system32/${name,,}" ]; then
            echo "$(basename "$binary") needs $name, which is not in the package" >&2
            exit 1
        fi
    done
done

mkdir -p "$out"
for name in "$library" "$program" "$symbols"; do
    rm -f "$out/$name.zip"
    cmake -E tar cf "$out/$name.zip" --format=zip "$name"
done

# Unpacked in an empty folder, the program converts a picture of its own making.
mkdir unpacked
cd unpacked
cmake -E tar xf "$out/$program.zip"
cd "$program"
"$here/wine-run" norvexdx.exe --version
"$here/wine-run" norvexdx.exe info >/dev/null
"$here/wine-run" norvexdx.exe fill red.png --size 64x64 --color FF0000FF >/dev/null
"$here/wine-run" norvexdx.exe convert red.png pq.png --from srgb --to rec2020-pq --depth 16 >/dev/null
[ -s pq.png ]
