# Sourced by ./dev: what must be there before building and running, and the build itself.

prefixMaker='' # the process that makes the Wine prefix

# Names of everything that the set-up makes, from what it depends on.
find_setup() {
    local scripts=$project/scripts
    find_root
    check_folders
    downloads=$cache/downloads-$(hash_of "${kSourceHashes[*]}" "$kPhotoPackage" "$kPhotoFile")
    sdk=$cache/third-party-$(hash_of "$scripts/third-party.sh" "$project/cmake/mingw-toolchain.cmake" \
        "${kSourceHashes[*]}" "$kSuite" "${kBuildPackages[*]}")
    winePrefix=$cache/wine-prefix-$(hash_of "$scripts/wine-prefix.sh" "$scripts/wine-environment.sh" "$rootKey")
    photo=$downloads/photo.jpg
    compilerFolder=$cache/d3dcompiler-$(hash_of "$kCompilerHash")
    microsoftCompiler=
    [ ! -d "$compilerFolder" ] || microsoftCompiler=$compilerFolder/d3dcompiler_47.dll
}

# Where NORVEXDX_STRICT is set, a machine that can have the compiler must have it.
ensure_compiler() {
    [ -z "$microsoftCompiler" ] || return 0
    if ! command -v npm >/dev/null; then
        say "There is no npm on this machine: the tests do without Microsoft's HLSL compiler."
    elif (make_once "$compilerFolder" "Downloading Microsoft's HLSL compiler, 50 MB" download_compiler); then
        microsoftCompiler=$compilerFolder/d3dcompiler_47.dll
    elif [ -n "${NORVEXDX_STRICT:-}" ]; then
        fail "There is no Microsoft HLSL compiler for the tests."
    else
        say "The tests do without Microsoft's HLSL compiler."
    fi
}

# Side by side: downloads, the system, and, as soon as that has compilers, what they make. The rest of the
# system may still be on its way afterwards; its maker holds the lock.
setup_steps() {
    local download
    make_once "$downloads" "Downloading sources and a photograph, 14 MB" download &
    download=$!
    ensure_root &
    rootMaker=$!
    wait_for_compilers
    wait "$download"
    make_once "$sdk" "Cross-building glog, fmt and libpng" in_root "$project/scripts/third-party.sh" "$downloads"
}

is_set_up() { [ -d "$downloads" ] && [ -d "$sdk" ] && root_is_whole; }

# What builds the program is there; the rest may be on its way.
begin_setup() {
    find_setup
    is_set_up || locked "$cache/lock" setup_steps
}

ensure_setup() {
    begin_setup
    wait_for_root
}

# The Wine prefix is made beside the build that comes before in_wine.
begin_wine() {
    [ -d "$winePrefix" ] || {
        locked "$cache/wine-lock" make_wine_prefix &
        prefixMaker=$!
    }
}

make_wine_prefix() {
    wait_for_root || return
    make_once "$winePrefix" "Making the Wine prefix" in_root "$project/scripts/wine-prefix.sh"
}

# in_wine COMMAND...: in_root, for what runs Windows programs
in_wine() {
    [ -z "$prefixMaker" ] || wait "$prefixMaker"
    prefixMaker=''
    wait_for_root
    in_root "$@"
}

# build TARGET...: configures where that is due, then builds; none: everything. Without tests where
# `tests` is OFF, and without benchmarks where `benchmark` is empty, and no earlier call wanted them.
build() {
    mkdir -p "$buildFolder"
    locked "$buildFolder/.lock" build_steps "$@"
}

# In place, so that what is compiled stays; from nothing only where what was found before is not to be
# used any more.
configure_when_due() {
    local key fresh=()
    [ ! -e "$buildFolder/.with-tests" ] || tests=ON
    [ "$tests" = OFF ] || wait_for_root # which has more than the program needs
    [ -n "$benchmark" ] || [ ! -d "$(cat "$buildFolder/.with-benchmark" 2>/dev/null)" ] || benchmark=$(cat "$buildFolder/.with-benchmark")
    key=$(hash_of "$sdk" "$tests" "$benchmark" "$project/CMakePresets.json" "${configureArguments[*]}")
    if [ -e "$buildFolder/build.ninja" ] && [ "$(cat "$buildFolder/.key" 2>/dev/null)" = "$key" ]; then
        return
    fi
    say "Configuring build/$preset"
    [ "$(cat "$buildFolder/.sdk" 2>/dev/null)" = "$sdk" ] || fresh=(--fresh)
    quietly "$buildFolder/configure.log" in_root cmake "${fresh[@]}" -S "$project" --preset "$preset" \
        -B "$buildFolder" -DNORVEX_TESTS="$tests" -DNORVEX_BENCH="${benchmark:+ON}" \
        -Dbenchmark_DIR="$benchmark/lib/cmake/benchmark" "${configureArguments[@]}"
    echo "$sdk" >"$buildFolder/.sdk"
    echo "$key" >"$buildFolder/.key"
    [ "$tests" = OFF ] || touch "$buildFolder/.with-tests"
    [ -z "$benchmark" ] || echo "$benchmark" >"$buildFolder/.with-benchmark"
}

build_steps() {
    configure_when_due
    if [ -n "$buildLog" ]; then
        quietly "$buildLog" in_root ninja -C "$buildFolder" "$@"
    else
        in_root ninja -C "$buildFolder" "$@" >&2
    fi
}
