#!/bin/bash
# Makes each mistake of a list in turn and says which test finds it. Runs inside the root.
#   mutate.sh BUILD-FOLDER SPARE-FOLDER LIST [PATTERN]
# BUILD-FOLDER holds everything built and right; SPARE-FOLDER is configured without tests and without
# unity builds, so that a mistake in the library costs one source and a link. A mistake elsewhere is
# built in BUILD-FOLDER itself. PATTERN picks mistakes by their first line.
#
# Sources are changed in place and put back; after a run that was killed, at the start of the next.
# Prints a table for docs/testing.md; fails below kLeastShare percent found.
set -euo pipefail

here=$(dirname "$(readlink -f "$0")")
project=$(dirname "$here")
build=$(readlink -f "$1")
spare=$(readlink -f "$2")
list=$3
pattern=${4:-}
kLeastShare=90
libraries=(NorvexHost.dll NorvexDX.dll)
kept=$spare/kept
log=$spare/mutate.log
mkdir -p "$kept"
export GTEST_FAIL_FAST=1

put_back() {
    local changed library
    [ -e "$kept/changed" ] || return 0
    changed=$(cat "$kept/changed")
    # Unless somebody has worked on it since; newer than what was built from the mistake.
    ! cmp -s "$kept/mistake" "$project/$changed" || cp "$kept/source" "$project/$changed"
    for library in "${libraries[@]}"; do
        cp -p "$kept/$library" "$build/bin/$library"
    done
    rm "$kept/changed"
}

# make_mistake: puts $new in the place of $old in $file, which must have it once. What is needed to put
# it back is kept first.
make_mistake() {
    local text rest
    text=$(cat "$project/$file" && echo x)
    text=${text%x}
    rest=${text#*"$old"}
    case $rest in
    "$text") echo "not in the file"; return 1 ;;
    *"$old"*) echo "more than once in the file"; return 1 ;;
    esac
    printf '%s' "${text%%"$old"*}$new$rest" >"$kept/mistake"
    cp "$project/$file" "$kept/source"
    echo "$file" >"$kept/changed"
    cp "$kept/mistake" "$project/$file"
}

build_mistake() {
    case $file in
    Proc/* | Host/*)
        ninja -C "$spare" NorvexDX NorvexHost &&
            for library in "${libraries[@]}"; do cp "$spare/bin/$library" "$build/bin/"; done
        ;;
    *) ninja -C "$build" ;;
    esac
}

# run_tests ARGUMENTS...: whether all pass; one that hangs fails
run_tests() {
    "$here/wine-session" ctest --test-dir "$build" --output-on-failure --stop-on-failure \
        --parallel "$(nproc)" --timeout 120 -LE '^microsoft-compiler$' "$@"
}

# The first failed cases that the log names, else the failed program.
finder() {
    awk '/^\[  FAILED  \] [^ ]+\.[^ ]+/ && !seen[$4]++ && n++ < 1 { sub(/,$/, "", $4); print $4; exit }' "$log" |
        grep . || awk '/\*\*\*/ { for (i = 1; i <= NF; ++i) if ($i == "#" || $i ~ /^#[0-9]+:$/) { print $(i + 1); exit } }' "$log"
}

# try: one line of the table
try() {
    local reason verdict
    if ! reason=$(make_mistake); then
        echo "$what: $file: $reason" >&2
        stale=$((stale + 1))
        return
    fi
    if ! build_mistake >"$log" 2>&1; then
        verdict="does not compile"
        stale=$((stale + 1))
        tail -n 5 "$log" >&2
    elif run_tests -R "$tests" >"$log" 2>&1 && run_tests -E "$tests" >"$log" 2>&1; then
        verdict="**not found**"
        made=$((made + 1))
    else
        verdict=$(finder)
        made=$((made + 1)) found=$((found + 1))
    fi
    put_back
    echo "| ${file##*/} | $what | $verdict |"
}

put_back
for library in "${libraries[@]}"; do
    cp -p "$build/bin/$library" "$kept/$library"
done
trap put_back EXIT
trap 'exit 130' INT TERM
made=0 found=0 stale=0 file='' what=''
echo "| where | mistake | found by |"
echo "|---|---|---|"
old='' new=''
flush() {
    if [ -n "$what" ] && [[ $what == *$pattern* ]]; then
        old=${old%$'\n'} new=${new%$'\n'}
        try
    fi
    what='' old='' new='' file=''
}
while IFS= read -r line; do
    case $line in
    '= '*)
        flush
        IFS='|' read -r what file tests <<<"${line#= }"
        what=${what% } file=${file# } file=${file% }
        tests=${line##* | }
        ;;
    -*) old+=${line#-}$'\n' ;;
    +*) new+=${line#+}$'\n' ;;
    esac
done <"$list"
flush
echo
echo "$found of $made mistakes were found."
[ "$stale" = 0 ] || { echo "$stale do not fit the sources any more" >&2; exit 1; }
[ "$made" -gt 0 ] && [ $((found * 100)) -ge $((made * kLeastShare)) ]
