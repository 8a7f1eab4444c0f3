#!/bin/bash
# Checks the sources' format, then each source twice: with clang-tidy, as the cross compiler sees it,
# and with clang in the manner of Microsoft's compiler. Runs inside the root.
#   lint.sh BUILD-FOLDER TOOLS [--fix]
# BUILD-FOLDER is configured without precompiled headers; TOOLS is where the tools were unpacked.
# A source that passed is not checked again, in whichever clone, until it, a header that it sees, the
# rules, the tools or its command line change.
set -euo pipefail

build=$(readlink -f "$1")
tools=$2
cd "$(dirname "$(readlink -f "$0")")/.."
export LD_LIBRARY_PATH=$tools/usr/lib/x86_64-linux-gnu
export PATH=$tools/usr/bin:$tools/usr/lib/llvm-19/bin:$PATH
passed=$NORVEXDX_CACHE/lint
mkdir -p "$passed"
failed=

mapfile -t scripts < <(find dev .ci/run scripts -maxdepth 1 -type f ! -name '*.awk' ! -name '*.conf')
shellcheck --shell=bash --severity=warning "${scripts[@]}" || failed=1

mapfile -t sources < <(find . -path ./build -prune -o -path ./out -prune -o \
    \( -name '*.cpp' -o -name '*.h' \) -printf '%P\n' | LC_ALL=C sort)
[ "${3:-}" != --fix ] || clang-format -i "${sources[@]}"
clang-format --dry-run -Werror "${sources[@]}" || failed=1
clang-tidy --verify-config >/dev/null || failed=1

printf '%s\n' "${sources[@]}" | grep -E '^(Platform|Host|Core|Proc)/' | xargs awk -f scripts/floors.awk docs/architecture.md || failed=1

# Tests stay small beside what they test: lines of C++ and HLSL that are neither blank nor comment.
# Benchmarks count as neither, nor do the headers that stand in for Microsoft's.
kMostTestsInPercent=33
count_lines() { grep -hcvE '^[[:space:]]*(//.*)?$' "$@" | awk '{ sum += $1 } END { print sum }'; }
mapfile -t testing < <(find tests cmake/PrecompiledTests.h -name '*.cpp' -o -name '*.h' -o -name '*.hlsl')
mapfile -t tested < <(find apps cmake/Precompiled.h Core examples Host Platform Proc -name '*.cpp' -o -name '*.h' -o -name '*.hlsl')
testLines=$(count_lines "${testing[@]}")
otherLines=$(count_lines "${tested[@]}")
echo "lint: $testLines lines of tests to $otherLines others, $((testLines * 100 / otherLines)) %"
if [ $((testLines * 100)) -gt $((otherLines * kMostTestsInPercent)) ]; then
    echo "lint: tests are more than $kMostTestsInPercent % of the other code" >&2
    failed=1
fi

# Microsoft's compiler, acted by clang: a C++ library and Windows headers that Debian has, and what
# those lack in msvc-mode. Back end, linker, the real SDK and ATL are not seen this way.
msvc=(
    clang++-19 -fsyntax-only -Wshadow-uncaptured-local -Wshadow-field --target=x86_64-pc-windows-msvc19.44 -fms-extensions -fms-compatibility
    -fno-delayed-template-parsing -fexceptions -fcxx-exceptions -D_MT -D_DLL -D_LIBCPP_NO_VCRUNTIME
    -D_LIBCPP_ENABLE_EXPERIMENTAL -DWINE_UNICODE_NATIVE -D__REQUIRED_RPCNDR_H_VERSION__=475 -nostdinc
    -isystem "$PWD/scripts/msvc-mode" -isystem "$tools/usr/lib/llvm-19/include/c++/v1"
    -isystem "$tools/usr/lib/llvm-19/lib/clang/19/include"
    -idirafter "$tools/usr/include/wine/wine/msvcrt" -idirafter "$tools/usr/include/wine/wine/windows"
)

# The cross compiler's commands, without flags that only GCC knows, for each of the tools.
mkdir -p "$build/clang-tidy" "$build/msvc"
sed -e 's/ -flarge-source-files//' "$build/compile_commands.json" >"$build/clang-tidy/compile_commands.json"
sed -e "s|\"command\": \"[^ ]*|\"command\": \"${msvc[*]}|" -e 's/ -Wpedantic\| -g\b\| -gdwarf-4\| -o [^ ]* -c / /g' \
    "$build/clang-tidy/compile_commands.json" >"$build/msvc/compile_commands.json"

# command_of TOOL SOURCE: nothing where the source is not compiled for Windows
command_of() {
    awk -v file="  \"file\": \"$PWD/$2\"," '/"command":/ { line = $0 } $0 == file { print line; exit }' \
        "$build/$1/compile_commands.json" | sed -e 's/^ *"command": "//' -e 's/",$//' -e 's/\\\(.\)/\1/g'
}

# check TOOL SOURCE: says what the tool said, unless it is content
check() {
    local tool=$1 source=$2 command headers key output
    command=$(command_of "$tool" "$source")
    # What is not compiled for Windows is not here; the compiler's own warnings must do there.
    [ -n "$command" ] || return 0
    mapfile -t headers < <(awk -F '\t' -v source="$source" '$1 == source { print $2 }' "$build/headers" | tr -s ' ' '\n' | sort)
    key=$(printf '%s\n' "$tool" "${command//$PWD/.}" "$common" | cat - "$source" "${headers[@]:1}" | sha256sum | cut -c1-32)
    [ ! -e "$passed/$key" ] || return 0
    if [ "$tool" = clang-tidy ]; then
        command="clang-tidy --quiet -p '$build/clang-tidy' --extra-arg=--target=x86_64-w64-mingw32 '$source'"
    fi
    if output=$(eval "$command" 2>&1); then
        touch "$passed/$key"
        echo "$tool: checked $source" >&2
    else
        printf '%s\n' "$output"
        return 1
    fi
}

# The public headers as a host reads them: installed, each alone, without this project's definitions.
installed=$build/installed/include/NorvexDX
rm -rf "$build/installed"
cmake --install "$build" --prefix "$build/installed" --component Headers >/dev/null
mapfile -t publicHeaders < <(cd "$installed" && find Host Platform Proc -name '*.h' | LC_ALL=C sort)
(cd "$installed" && awk -v headers=1 -f "$OLDPWD/scripts/headers-of.awk" "${publicHeaders[@]}") >"$build/public-headers"
asHost="${msvc[*]} -std=c++20 -Wno-pragma-once-outside-header -I$installed -isystem $NORVEX_SDK/system-headers -x c++"

check_header() {
    local header=$1 headers key
    cd "$installed"
    mapfile -t headers < <(awk -F '\t' -v source="$header" '$1 == source { print $2 }' "$build/public-headers" | tr -s ' ' '\n' | sort)
    key=$(printf '%s\n' "${asHost//$build/.}" "$common" | cat - "$header" "${headers[@]:1}" | sha256sum | cut -c1-32)
    [ ! -e "$passed/$key" ] || return 0
    $asHost "$header" && touch "$passed/$key" && echo "msvc: checked $header, installed" >&2
}
awk -f scripts/headers-of.awk "${sources[@]}" >"$build/headers"
common=$(echo "$tools" | cat - .clang-tidy tests/.clang-tidy scripts/msvc-mode/* | sha256sum)
export -f check check_header command_of
export asHost build common installed passed

for tool in msvc clang-tidy; do
    printf '%s\n' "${sources[@]}" | grep '\.cpp$' |
        xargs -n 1 -P "$(nproc)" bash -c 'check "$1" "$2"' lint "$tool" || failed=1
done
printf '%s\n' "${publicHeaders[@]}" |
    xargs -n 1 -P "$(nproc)" bash -c 'check_header "$1"' lint || failed=1

[ -z "$failed" ] || { echo "lint: there are findings" >&2; exit 1; }
echo "lint: no findings in ${#sources[@]} files"
