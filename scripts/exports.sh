#!/bin/bash
# Compares what the DLLs export with the reviewed lists, tests/exports/NAME.txt, or writes those anew.
# Runs inside the root.
#   exports.sh BUILD-FOLDER [--update]
# A readable name a line; of an exported class everything is exported, inline and private members too.
# What the compiler makes of a class by itself (tables, thunks) is left out.
set -euo pipefail

build=$1
lists=$(dirname "$(readlink -f "$0")")/../tests/exports

exports() {
    x86_64-w64-mingw32-objdump -p "$1" |
        awk '/^\[Ordinal\/Name Pointer\] Table/ { on = 1 } NF == 0 { on = 0 } on && /^\t\[/ { print $NF }' |
        x86_64-w64-mingw32-c++filt |
        sed -E 's/\[abi:cxx11\]//g; s/std::__cxx11::/std::/g' |
        awk '!/^(vtable|VTT|typeinfo|typeinfo name|construction vtable|guard variable|virtual thunk|non-virtual thunk|covariant return thunk) (for|to) /' |
        LC_ALL=C sort -u
}

status=0
for name in NorvexDX NorvexHost; do
    if [ "${2:-}" = --update ]; then
        exports "$build/bin/$name.dll" >"$lists/$name.txt"
    elif ! diff -u --label reviewed --label exported "$lists/$name.txt" <(exports "$build/bin/$name.dll"); then
        echo "$name.dll exports other functions than tests/exports/$name.txt says. What is gone breaks hosts (docs/abi.md)." \
            "If it is meant: ./dev shell scripts/exports.sh build/mingw-release --update"
        status=1
    fi
done
exit "$status"
