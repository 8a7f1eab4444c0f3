# Sourced by ./dev: Google Benchmark, downloaded and cross-built when ./dev bench or ./dev lint first
# wants it.

kBenchmarkPackage=benchmark
kBenchmarkFile=benchmark_1.9.1.orig.tar.gz
kBenchmarkVersion=v1.9.1
kBenchmarkHash=32131c08ee31eeff2c8968d7e874f3cb648034377dfc32a4c377fa8796d84981

make_benchmark() {
    local target=$1 work
    work=$(mktemp -d)
    : >"$work/status"
    debian_apt "$work" "$work/status"
    (cd "$work" && APT_CONFIG=$work/apt.conf apt-get source --tar-only "$kBenchmarkPackage")
    check_hash "$kBenchmarkHash" "$work/$kBenchmarkFile"
    tar -xf "$work/$kBenchmarkFile" -C "$work" --one-top-level=sources --strip-components=1
    # What it would find out by running programs of the target's.
    in_root cmake -S "$work/sources" -B "$work/build" -G Ninja -Wno-dev \
        -DCMAKE_TOOLCHAIN_FILE="$project/cmake/mingw-toolchain.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$target" -DGIT_VERSION="$kBenchmarkVersion" -DHAVE_STD_REGEX=1 -DHAVE_STEADY_CLOCK=1 \
        -DBENCHMARK_ENABLE_TESTING=OFF -DBENCHMARK_ENABLE_WERROR=OFF -DBENCHMARK_INSTALL_DOCS=OFF
    in_root cmake --build "$work/build"
    in_root cmake --install "$work/build"
    rm -rf "$work"
}

ensure_benchmark() {
    benchmark=$cache/benchmark-$(hash_of "$kBenchmarkHash" "$project/cmake/mingw-toolchain.cmake" "$kSuite" "$(declare -f make_benchmark)")
    locked "$cache/lock" make_once "$benchmark" "Downloading and cross-building Google Benchmark" make_benchmark
}
