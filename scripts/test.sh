#!/bin/bash
# Runs the tests with ctest in one Wine session, then counts what ran. Runs inside the root.
#   test.sh BUILD-FOLDER [--update-list] [CTEST-ARGUMENTS...]
#
# tests/expected-tests.txt names every case that there is, so that one that silently stops running
# fails the run.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
build=$1
shift
list=$here/../tests/expected-tests.txt
update=
if [ "${1:-}" = --update-list ]; then
    update=1
    shift
fi
partial=
[ $# -eq 0 ] && [ -z "${GTEST_FILTER:-}" ] || partial=1

results=$build/test-results
rm -rf "$results"
mkdir -p "$results"
leftOut=$results/left-out-tests.txt
cp "$build/left-out-tests.txt" "$leftOut"
if [ -z "${NORVEX_TEST_D3DCOMPILER_FILE:-}" ]; then
    cat "$build/microsoft-compiler-tests.txt" >>"$leftOut"
    set -- -LE '^microsoft-compiler$' "$@"
fi
# Tests draw little with many shaders: the drivers are neither to optimise them nor to share the work
# among threads of their own, which takes longer than it saves.
export GALLIVM_PERF=nopt LP_NUM_THREADS=${LP_NUM_THREADS:-0}
status=0
# One more than there are processors: some wait for timers and windows.
"$here/wine-session" ctest --test-dir "$build" --output-on-failure --parallel "$(($(nproc) + 1))" --no-tests=error \
    --output-junit "$results/ctest.junit" "$@" || status=$?
[ -s "$results/ctest.junit" ] || { echo "ctest ended without results (status $status)"; exit 1; }

exec awk -v folder="$results" -v list="$list" -v leftOut="$leftOut" -v update="$update" \
    -v partial="$partial" -f "$here/count-tests.awk" "$results/ctest.junit"
