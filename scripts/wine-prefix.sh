#!/bin/bash
# Makes the Wine prefix that every session copies. Runs inside the root.
#   wine-prefix.sh PREFIX      PREFIX must not exist yet
set -euo pipefail

export WINEPREFIX=$1
# shellcheck source=scripts/wine-environment.sh
. "$(dirname "$(readlink -f "$0")")/wine-environment.sh"
unset DISPLAY

wine64 wineboot.exe --init
# A program that crashes must end, not ask.
wine64 reg.exe add 'HKCU\Software\Wine\WineDbg' /v ShowCrashDialog /t REG_DWORD /d 0 /f
wineserver -w
rm -rf "/tmp/$(basename "$(cat "$WINEPREFIX/wineserver" 2>/dev/null || echo wine-none)")"
rm -f "$WINEPREFIX/wineserver"

# Wine's own libraries come with debug information that takes more than half of the prefix.
find "$WINEPREFIX/drive_c" -type f \( -name '*.dll' -o -name '*.exe' \) -size +40k -print0 |
    xargs -0 -n 20 -P "$(nproc)" x86_64-w64-mingw32-strip --strip-debug 2>/dev/null || true
