#!/bin/bash
# Cross-builds what the project links: glog (one shared DLL), fmt and libpng (static). Runs inside
# the root.
#   third-party.sh SOURCES PREFIX
# SOURCES holds the original tarballs; PREFIX must not exist yet.
set -euo pipefail

sources=$1
prefix=$2
here=$(dirname "$(readlink -f "$0")")

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$prefix/system-headers"

# Only these of the machine's own headers are fit for Windows.
for name in boost directx dxguids CLI nlohmann; do
    ln -s "/usr/include/$name" "$prefix/system-headers/$name"
done

# Few of the Windows headers, and not every processor's vector instructions with them: sources of all
# three each include them.
fewHeaders='-DWIN32_LEAN_AND_MEAN -D_X86INTRIN_H_INCLUDED'

export NORVEX_SDK=$prefix
build() { # build NAME SOURCE-FOLDER CMAKE-ARGUMENTS...
    local name=$1 source=$2
    shift 2
    cmake -S "$source" -B "$work/$name.build" -G Ninja -Wno-dev \
        -DCMAKE_C_FLAGS="$fewHeaders" -DCMAKE_CXX_FLAGS="$fewHeaders" \
        -DCMAKE_TOOLCHAIN_FILE="$here/../cmake/mingw-toolchain.cmake" -DCMAKE_BUILD_TYPE=Release \
        -DCMAKE_INSTALL_PREFIX="$prefix" -DCMAKE_POLICY_VERSION_MINIMUM=3.5 "$@" &&
        cmake --build "$work/$name.build" &&
        cmake --install "$work/$name.build"
}

mkdir "$work/glog" "$work/fmt" "$work/png"
tar -xf "$sources"/google-glog_*.orig.tar.gz -C "$work/glog" --strip-components=1
tar -xf "$sources"/fmtlib_*.orig.tar.gz -C "$work/fmt" --strip-components=1
tar -xf "$sources"/libpng1.6_*.orig.tar.gz -C "$work/png" --strip-components=1

# What glog's configuration would ask the compiler, two thirds of the time that glog takes otherwise.
glogYes=(
    CMAKE_HAVE_LIBC_PTHREAD COMPILER_HAS_DEPRECATED COMPILER_HAS_DEPRECATED_ATTR
    HAVE_ALIGNED_STORAGE HAVE_CXX11_ATOMIC HAVE_CXX11_CHRONO HAVE_CXX11_CONSTEXPR
    HAVE_CXX11_NULLPTR_T HAVE_CXX11_TLS HAVE_DBGHELP HAVE_EXT_HASH_MAP HAVE_EXT_HASH_SET
    HAVE_EXT_SLIST HAVE_GCC_TLS HAVE_HAVE_UINT16_T HAVE_HAVE___UINT16 HAVE_INTTYPES_H
    HAVE_MEMORY_H HAVE_MSVC_TLS HAVE_NAMESPACES HAVE_NO_DEPRECATED HAVE_RWLOCK HAVE_SNPRINTF
    HAVE_STDDEF_H HAVE_STDINT_H HAVE_STRINGS_H HAVE_SYS_STAT_H HAVE_SYS_TIME_H HAVE_SYS_TYPES_H
    HAVE_TR1_UNORDERED_MAP HAVE_TR1_UNORDERED_SET HAVE_UNISTD_H HAVE_UNORDERED_MAP
    HAVE_UNORDERED_SET HAVE_UNWIND_H HAVE_USING_OPERATOR HAVE__UNWIND_BACKTRACE
    HAVE___ATTRIBUTE__ HAVE___ATTRIBUTE__VISIBILITY_DEFAULT HAVE___ATTRIBUTE__VISIBILITY_HIDDEN
    HAVE___BUILTIN_EXPECT HAVE___DECLSPEC HAVE___SYNC_VAL_COMPARE_AND_SWAP STL_STD_NAMESPACE
)
glogNo=(
    HAVE_DLADDR HAVE_DLFCN_H HAVE_EXECINFO_H HAVE_FCNTL HAVE_GLOB_H HAVE_HAVE_U_INT16_T
    HAVE_LOCALTIME_R HAVE_NO_UNNAMED_TYPE_TEMPLATE_ARGS HAVE_PREAD HAVE_PTHREAD_THREADID_NP
    HAVE_PWD_H HAVE_PWRITE HAVE_SIGACTION HAVE_SIGALTSTACK HAVE_SYMBOLIZE HAVE_SYSCALL_H
    HAVE_SYSLOG_H HAVE_SYS_SYSCALL_H HAVE_SYS_UTSNAME_H HAVE_SYS_WAIT_H HAVE_UCONTEXT_H
    HAVE_U_INT16_T STL_NO_NAMESPACE
)
printf 'set(%s 1 CACHE INTERNAL "")\n' "${glogYes[@]}" >"$work/answers.cmake"
printf 'set(%s "" CACHE INTERNAL "")\n' "${glogNo[@]}" >>"$work/answers.cmake"
printf 'set(%s 2 CACHE INTERNAL "")\n' HAVE_UINT16_T HAVE___UINT16 >>"$work/answers.cmake"

# All at once, on all cores.
build glog "$work/glog" -C "$work/answers.cmake" -DBUILD_SHARED_LIBS=ON -DWITH_GFLAGS=OFF -DWITH_GTEST=OFF \
    -DWITH_UNWIND=OFF -DBUILD_TESTING=OFF &
glog=$!
build fmt "$work/fmt" -DFMT_TEST=OFF -DFMT_DOC=OFF &
fmt=$!
build png "$work/png" -DPNG_SHARED=OFF -DPNG_STATIC=ON -DPNG_TESTS=OFF -DPNG_TOOLS=OFF \
    -DZLIB_USE_STATIC_LIBS=ON
wait "$glog"
wait "$fmt"
