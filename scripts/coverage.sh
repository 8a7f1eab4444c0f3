#!/bin/bash
# Runs the tests of a build that counts what runs, then says which lines and branches of the library
# and of the program they reached. Runs inside the root.
#   coverage.sh BUILD-FOLDER OUT-FOLDER [CTEST-ARGUMENTS...]
#
# A process counts when it ends, but for one that is ended by TerminateProcess or a crash.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
build=$(readlink -f "$1")
out=$2
shift 2
list=$out/unreached-lines.txt

find "$build" -name '*.gcda' -delete
mkdir -p "$out"
: >"$list"
# Objects know where their counts go by a path of this machine's, which programs see on a drive. Those who
# build the sources anew would count nothing.
status=0
GCOV_PREFIX=Z: "$here/test.sh" "$build" -E '^(NativeTest|PackageTest)' "$@" || status=$?

find "$build"/{Host,Proc,apps} -name '*.gcno' | while read -r notes; do
    x86_64-w64-mingw32-gcov-posix --branch-probabilities --branch-counts --stdout --relative-only \
        --source-prefix "$(dirname "$here")" "$notes"
done 2>/dev/null | awk -v listing="$list" -f "$here/coverage.awk"
exit "$status"
