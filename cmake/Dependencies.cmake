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

# A target that the project around this one has made is taken as it is; what is found here, that
# project's own targets see too.
set(CMAKE_FIND_PACKAGE_TARGETS_GLOBAL ON)

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

if(NORVEX_PROGRAM)
    if(CMAKE_CROSSCOMPILING)
        set(ZLIB_USE_STATIC_LIBS ON)
    endif()
    find_package(PNG REQUIRED)
    find_package(ZLIB REQUIRED)
endif()

if(NOT CMAKE_CROSSCOMPILING)
    find_package(Boost REQUIRED)
    if(NORVEX_PROGRAM)
        find_package(CLI11 CONFIG REQUIRED)
    endif()
    if(NORVEX_PROGRAM OR NORVEX_BENCH)
        find_package(nlohmann_json CONFIG REQUIRED)
    endif()
endif()
if(NOT MINGW)
    find_package(directx-headers CONFIG REQUIRED)
    return()
endif()

function(norvex_header_only_package name folder)
    if(NOT TARGET ${name})
        add_library(${name} INTERFACE IMPORTED GLOBAL)
        target_include_directories(${name} SYSTEM INTERFACE "${folder}")
    endif()
endfunction()

if(CMAKE_CROSSCOMPILING)
    set(kDirectXHeaders "${NORVEX_SDK}/system-headers")
    foreach(name IN ITEMS Boost::headers CLI11::CLI11 nlohmann_json::nlohmann_json)
        norvex_header_only_package(${name} "${NORVEX_SDK}/system-headers")
    endforeach()
else()
    # Packages of MinGW's own may come without CMake's files.
    find_path(kDirectXHeaders directx/d3d12.h REQUIRED)
endif()
norvex_header_only_package(Microsoft::DirectX-Headers "${kDirectXHeaders}")
if(NOT PROJECT_IS_TOP_LEVEL)
    # The Direct3D headers have more lines than GCC keeps columns of, but for those that are read once
    # (Platform.cmake).
    target_compile_options(Microsoft::DirectX-Headers INTERFACE -flarge-source-files)
endif()
if(NOT TARGET Microsoft::DirectX-Guids)
    add_library(Microsoft::DirectX-Guids INTERFACE IMPORTED GLOBAL)
    target_link_libraries(Microsoft::DirectX-Guids INTERFACE dxguid uuid)
endif()
