#!/bin/bash
# Checks the sources' format and runs clang-tidy over them, as the cross compiler sees them. Runs
# inside the root.
#   lint.sh BUILD-FOLDER TOOLS [--fix]
# BUILD-FOLDER is configured without precompiled headers; TOOLS is where the tools were unpacked.
# A file that passed is not checked again until it, a header, the rules or its command line change.
set -euo pipefail

build=$(readlink -f "$1")
tools=$2
cd "$(dirname "$(readlink -f "$0")")/.."
export LD_LIBRARY_PATH=$tools/usr/lib/x86_64-linux-gnu
export PATH=$tools/usr/bin:$tools/usr/lib/llvm-19/bin:$PATH
passed=$NORVEXDX_CACHE/lint
mkdir -p "$passed"
failed=

for script in dev .ci/run scripts/*; do
    case $script in
    *.awk | *.conf) ;;
    *) bash -n "$script" || failed=1 ;;
    esac
done

mapfile -t sources < <(find . -path ./build -prune -o -path ./out -prune -o \
    \( -name '*.cpp' -o -name '*.h' \) -printf '%P\n' | LC_ALL=C sort)
[ "${3:-}" != --fix ] || clang-format -i "${sources[@]}"
clang-format --dry-run -Werror "${sources[@]}" || failed=1

# Flags that only GCC knows.
sed -e 's/ -flarge-source-files//g' "$build/compile_commands.json" >"$build/clang-commands.tmp"
mkdir -p "$build/clang"
mv "$build/clang-commands.tmp" "$build/clang/compile_commands.json"

# One file; says what clang-tidy said, unless it is content.
tidy() {
    local source=$1 build=$2 common=$3 key output
    key=$(
        {
            cat "$source"
            echo "$common"
            grep -F "/$source\"" "$build/clang/compile_commands.json"
        } | sha256sum | cut -c1-32
    )
    [ ! -e "$passed/$key" ] || return 0
    if output=$(clang-tidy --quiet -p "$build/clang" --extra-arg=--target=x86_64-w64-mingw32 \
        "$source" 2>/dev/null); then
        touch "$passed/$key"
        echo "checked $source" >&2
    else
        printf '%s\n' "$output"
        return 1
    fi
}
export -f tidy
export passed

common=$(printf '%s\n' "${sources[@]}" | grep '\.h$' | xargs cat .clang-tidy | sha256sum)
printf '%s\n' "${sources[@]}" | grep '\.cpp$' | while read -r source; do
    # What is not compiled for Windows is not in the list of commands; the compiler's own warnings
    # must do there.
    if grep -qF "/$source\"" "$build/compile_commands.json"; then printf '%s\0' "$source"; fi
done | xargs -0 -n 1 -P "$(nproc)" bash -c 'tidy "$3" "$1" "$2"' tidy "$build" "$common" || failed=1

[ -z "$failed" ] || { echo "lint: there are findings" >&2; exit 1; }
echo "lint: no findings in ${#sources[@]} files"
