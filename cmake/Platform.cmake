# norvex_public: what the public headers need of whoever includes them: language level, Boost, the
#     Direct3D headers; with the headers of Platform/
# norvex_platform: besides, definitions, include folder and debug information, for every target of the
#     project
# norvex_quickly_compiled: for tests, without optimisation in whichever configuration, and with debug
#     information in a debug configuration alone
# norvex_precompile(<target> [<norvex_precompiled or norvex_precompiled_tests>]): gives it precompiled
#     headers; those of Direct3D, and a test's GoogleMock, cost every source seconds
# norvex_split_debug_information(<target>): moves it into a file beside the program or DLL, which loads
#     faster without
# norvex_copy_runtime(): puts the compiler's and the dependencies' DLLs beside the programs

add_library(norvex_public INTERFACE)
add_library(Norvex::Platform ALIAS norvex_public)
set_target_properties(norvex_public PROPERTIES EXPORT_NAME Platform)
target_compile_features(norvex_public INTERFACE cxx_std_20)
target_link_libraries(norvex_public INTERFACE Boost::headers Microsoft::DirectX-Headers)
target_sources(norvex_public INTERFACE FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES
    "${PROJECT_SOURCE_DIR}/Platform/Abi.h"
    "${PROJECT_SOURCE_DIR}/Platform/ComPtr.h"
    "${PROJECT_SOURCE_DIR}/Platform/D3D12Abi.h"
    "${PROJECT_SOURCE_DIR}/Platform/D3D12Video.h"
    "${PROJECT_SOURCE_DIR}/Platform/Direct3D.h"
    "${PROJECT_SOURCE_DIR}/Platform/Export.h"
    "${PROJECT_SOURCE_DIR}/Platform/Mutex.h"
    "${PROJECT_SOURCE_DIR}/Platform/WindowsHeader.h")

add_library(norvex_platform INTERFACE)
target_include_directories(norvex_platform INTERFACE "${PROJECT_SOURCE_DIR}" "${PROJECT_BINARY_DIR}/include")
target_compile_definitions(norvex_platform INTERFACE
    NOMINMAX WIN32_LEAN_AND_MEAN UNICODE _UNICODE _WIN32_WINNT=0x0A00
    GLOG_NO_ABBREVIATED_SEVERITIES) # the Windows headers have a macro ERROR of their own
target_link_libraries(norvex_platform INTERFACE norvex_public fmt::fmt)

if(MINGW)
    # MinGW's headers of COM and Direct3D include each other before they look whether they were
    # included already, so that GCC reads some of them a hundred times, and keeps a place for each
    # line of each time. Then it has no room left for tokens' ends, and makes a table of millions of
    # them, anew in each source: a second or more. These stand before them and are skipped by name.
    set(once "${PROJECT_BINARY_DIR}/read-once")
    foreach(header IN ITEMS _mingw d3d10 d3d11 d3dcommon dxgi oaidl objidl ocidl ole2 rpc rpcndr unknwn)
        string(TOUPPER "NORVEX_READ_ONCE_${header}" guard)
        file(CONFIGURE OUTPUT "${once}/${header}.h"
            CONTENT "#ifndef ${guard}\n#define ${guard}\n#include_next <${header}.h>\n#endif\n" @ONLY)
    endforeach()
    target_include_directories(norvex_platform SYSTEM BEFORE INTERFACE "${once}")
endif()

if(NOT MSVC)
    # __FILE__ and std::source_location give paths relative to the project.
    target_compile_options(norvex_platform INTERFACE "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=")
    if(PROJECT_IS_TOP_LEVEL)
        # DWARF 4 is what Wine's debugger reads; lines without variables need no tracking.
        target_compile_options(norvex_platform INTERFACE
            -gdwarf-4 "$<IF:$<CONFIG:Debug>,-g,-g1;-fno-var-tracking>")
    endif()
    if(NORVEX_UBSAN)
        # An instruction that is none: MinGW has no runtime that would tell more than the place.
        target_compile_options(norvex_platform INTERFACE
            -fsanitize=undefined -fsanitize-trap=all -fno-sanitize=vptr)
    endif()
else()
    # With either separator: the compiler compares letters, and paths come in both forms.
    string(REPLACE "/" "\\" nativeFolder "${PROJECT_SOURCE_DIR}/")
    target_compile_options(norvex_platform INTERFACE
        "/d1trimfile:${PROJECT_SOURCE_DIR}/" "/d1trimfile:${nativeFolder}"
        /bigobj # sources compiled in groups have more sections than an object file otherwise takes
        # Members and bases of exported classes that are not exported themselves (the C++ library's,
        # smart pointers): all modules share one compiler and one runtime.
        /wd4251 /wd4275)
endif()

# A test waits for its compiler longer than for its own code.
add_library(norvex_quickly_compiled INTERFACE)
if(NOT MSVC)
    target_compile_options(norvex_quickly_compiled INTERFACE -O0 $<$<NOT:$<CONFIG:Debug>>:-g0>
        "$<$<CONFIG:Coverage>:-fno-profile-arcs;-fno-test-coverage>") # ./dev coverage is of what is tested
endif()

function(norvex_precompile target)
    set(from norvex_precompiled ${ARGN})
    list(GET from -1 from)
    if(NORVEX_PCH)
        target_link_libraries(${target} PRIVATE Microsoft::DirectX-Headers)
        if(MSVC)
            # Targets differ in their definitions, and this compiler takes precompiled headers of
            # others ill (C4605).
            target_precompile_headers(${target} PRIVATE "${PROJECT_SOURCE_DIR}/cmake/Precompiled.h")
        else()
            target_precompile_headers(${target} REUSE_FROM ${from})
            if(from STREQUAL norvex_precompiled_tests)
                # GCC takes headers that were precompiled with the same definitions alone.
                target_compile_options(${target} PRIVATE
                    $<TARGET_PROPERTY:GTest::gtest,INTERFACE_COMPILE_OPTIONS>)
            endif()
            # Once precompiled, MinGW's inline wmemcpy is no system header to GCC, which then warns
            # of L"" copied by it.
            target_compile_options(${target} PRIVATE -Wno-array-bounds -Wno-stringop-overread)
        endif()
    endif()
endfunction()

# Headers are precompiled for a target, and a target needs a source.
function(norvex_add_precompiled target header)
    file(CONFIGURE OUTPUT "${PROJECT_BINARY_DIR}/Precompiled.cpp" CONTENT "")
    add_library(${target} OBJECT "${PROJECT_BINARY_DIR}/Precompiled.cpp")
    target_link_libraries(${target} PRIVATE
        norvex_platform norvex_warnings Microsoft::DirectX-Headers ${ARGN})
    target_precompile_headers(${target} PRIVATE "${PROJECT_SOURCE_DIR}/cmake/${header}")
endfunction()

if(NORVEX_PCH AND NOT MSVC)
    norvex_add_precompiled(norvex_precompiled Precompiled.h)
    if(NORVEX_TESTS)
        norvex_add_precompiled(norvex_precompiled_tests PrecompiledTests.h GTest::gmock norvex_quickly_compiled)
    endif()
endif()

function(norvex_split_debug_information target)
    if(PROJECT_IS_TOP_LEVEL AND NOT MSVC)
        set(file "$<TARGET_FILE:${target}>")
        add_custom_command(TARGET ${target} POST_BUILD
            COMMAND "${CMAKE_OBJCOPY}" --only-keep-debug "${file}" "${file}.debug"
            COMMAND "${CMAKE_OBJCOPY}" --strip-debug "--add-gnu-debuglink=${file}.debug" "${file}"
            VERBATIM)
    endif()
endfunction()

set(norvex_compiler_runtime libstdc++-6.dll libgcc_s_seh-1.dll libwinpthread-1.dll)
function(norvex_copy_runtime)
    foreach(name IN LISTS norvex_compiler_runtime)
        execute_process(COMMAND "${CMAKE_CXX_COMPILER}" -print-file-name=${name}
            OUTPUT_VARIABLE file OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
        file(COPY_FILE "${file}" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/${name}" ONLY_IF_DIFFERENT)
    endforeach()
    file(COPY_FILE "${NORVEX_SDK}/bin/libglog.dll" "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/libglog.dll"
        ONLY_IF_DIFFERENT)
endfunction()

# On Windows itself the package manager's toolchain file does this for each program.
if(PROJECT_IS_TOP_LEVEL AND MINGW AND CMAKE_CROSSCOMPILING)
    file(MAKE_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
    norvex_copy_runtime()
endif()
