# Third-party packages, by the target names that vcpkg gives them:
#   glog::glog  fmt::fmt  PNG::PNG  ZLIB::ZLIB  GTest::gtest  GTest::gmock  Boost::headers  CLI11::CLI11
#   nlohmann_json::nlohmann_json  Microsoft::DirectX-Headers  Microsoft::DirectX-Guids  benchmark::benchmark
#
# Cross builds find glog, fmt and libpng in NORVEX_SDK and build GoogleTest from its sources, once a test
# wants it. Header-only packages come from the system's include folder, through
# NORVEX_SDK/system-headers, a folder of links to just those packages: /usr/include itself holds the
# headers of another operating system.
#
# fmt is linked: as headers alone it is compiled anew in every source, which costs a third of the
# compiler's time.

find_package(glog CONFIG REQUIRED)
find_package(fmt CONFIG REQUIRED)
if(NORVEX_TESTS AND CMAKE_CROSSCOMPILING)
    set(INSTALL_GTEST OFF)
    set(kGoogleTestSource /usr/src/googletest CACHE PATH "GoogleTest's sources")
    add_subdirectory("${kGoogleTestSource}" googletest EXCLUDE_FROM_ALL SYSTEM)
    foreach(part IN ITEMS gtest gmock gmock_main)
        target_compile_options(${part} PRIVATE -O0 -g0)
        target_compile_definitions(${part} PRIVATE WIN32_LEAN_AND_MEAN)
    endforeach()
elseif(NORVEX_TESTS)
    find_package(GTest CONFIG REQUIRED)
endif()

if(NORVEX_BENCH)
    find_package(benchmark CONFIG REQUIRED)
endif()

if(NOT CMAKE_CROSSCOMPILING)
    find_package(PNG REQUIRED)
    find_package(ZLIB REQUIRED)
    find_package(Boost REQUIRED)
    find_package(CLI11 CONFIG REQUIRED)
    find_package(nlohmann_json CONFIG REQUIRED)
    find_package(directx-headers CONFIG REQUIRED)
    return()
endif()

set(ZLIB_USE_STATIC_LIBS ON)
find_package(PNG REQUIRED)
find_package(ZLIB REQUIRED)

function(norvex_header_only_package name)
    add_library(${name} INTERFACE IMPORTED)
    target_include_directories(${name} SYSTEM INTERFACE "${NORVEX_SDK}/system-headers")
endfunction()

norvex_header_only_package(Boost::headers)
norvex_header_only_package(CLI11::CLI11)
norvex_header_only_package(nlohmann_json::nlohmann_json)
norvex_header_only_package(Microsoft::DirectX-Headers)
# DirectX-Headers asks for a newer <rpcndr.h> than MinGW's and for more lines than GCC keeps columns
# of.
target_compile_definitions(Microsoft::DirectX-Headers INTERFACE __REQUIRED_RPCNDR_H_VERSION__=475)
target_compile_options(Microsoft::DirectX-Headers INTERFACE -flarge-source-files)
add_library(Microsoft::DirectX-Guids INTERFACE IMPORTED)
target_link_libraries(Microsoft::DirectX-Guids INTERFACE dxguid uuid)
