# Tests. One ctest entry is one GoogleTest program: starting a process costs far more than most
# cases.
#
# norvex_add_test(<name> SOURCES ... [LIBRARIES ...]
#     [VALIDATED]                 run under the Vulkan validation layer; one message fails the test
#     [VALIDATED_BUT <text>]      the same, but messages that have <text>
#     [VALIDATION_REPORTS <text>] run under the layer; the test fails unless the layer says <text>
#     [WINDOWS_VERSION <win7|win8|win81|win10|win11>]  what Windows tells the program to be
#     [STARTS <target>]           with WINDOWS_VERSION: the program that the test starts is told, not
#                                 the test
#     [MICROSOFT_COMPILER]        run with Microsoft's d3dcompiler_47.dll instead of Wine's; where there
#                                 is none when the tests run, they leave it out
#     [SECOND_DIRECT3D11]         run on DXVK's Direct3D 11 instead of Wine's
#     [WITHOUT <d3d12|d3dcompiler_47|vulkan>]  run where the system lacks this library
#     [LONG]                      takes most of a minute, and so begins first
#     [ENVIRONMENT K=V ...] [ARGUMENTS ...] [TIMEOUT <seconds>] [NO_MAIN])
# norvex_add_test_run(<name> PROGRAM <target> ...)
#     one more run of a test program, with the same options
# norvex_add_native_test(<name> SOURCES ... SANITIZER <thread|address> [DEFINITIONS ...]
#     [TIMEOUT <seconds>])
#     builds the sources for the machine that builds, not for Windows, and runs them there
#
# The results, a GoogleTest XML file each, go to <build>/test-results. A first argument or NAME
# <name> both name the test.

set(NORVEX_RESULTS "${PROJECT_BINARY_DIR}/test-results")
file(MAKE_DIRECTORY "${NORVEX_RESULTS}")
# Names of the tests that are left out, one a line, for the runner's count; and of those that the
# runner leaves out where there is no Microsoft compiler.
file(WRITE "${PROJECT_BINARY_DIR}/left-out-tests.txt" "")
file(WRITE "${PROJECT_BINARY_DIR}/microsoft-compiler-tests.txt" "")

set(kTestSwitches VALIDATED MICROSOFT_COMPILER SECOND_DIRECT3D11 LONG NO_MAIN)
set(kTestValues NAME PROGRAM WINDOWS_VERSION STARTS WITHOUT VALIDATED_BUT VALIDATION_REPORTS TIMEOUT SANITIZER)
set(kTestLists SOURCES LIBRARIES ENVIRONMENT ARGUMENTS DEFINITIONS)

macro(norvex_parse_test_arguments)
    cmake_parse_arguments(arg "${kTestSwitches}" "${kTestValues}" "${kTestLists}" ${ARGN})
    if(NOT arg_NAME)
        list(POP_FRONT arg_UNPARSED_ARGUMENTS arg_NAME)
    endif()
    if(arg_UNPARSED_ARGUMENTS)
        message(FATAL_ERROR "test ${arg_NAME}: unknown arguments ${arg_UNPARSED_ARGUMENTS}")
    endif()
    if(NOT arg_TIMEOUT)
        set(arg_TIMEOUT 100)
    endif()
endmacro()

function(norvex_leave_out_test name reason)
    message(STATUS "Test ${name} is left out: ${reason}")
    file(APPEND "${PROJECT_BINARY_DIR}/left-out-tests.txt" "${name}\n")
endfunction()

function(norvex_add_test)
    norvex_parse_test_arguments(${ARGN})
    add_executable(${arg_NAME} ${arg_SOURCES})
    target_link_libraries(${arg_NAME} PRIVATE
        norvex_platform norvex_warnings norvex_quickly_compiled ${arg_LIBRARIES} norvex_test_support)
    norvex_precompile(${arg_NAME} norvex_precompiled_tests)
    if(NOT arg_NO_MAIN)
        target_link_libraries(${arg_NAME} PRIVATE GTest::gmock_main)
    endif()
    norvex_add_test_run(${ARGN} PROGRAM ${arg_NAME})
endfunction()

function(norvex_add_test_run)
    norvex_parse_test_arguments(${ARGN})
    set(result "${NORVEX_RESULTS}/${arg_NAME}.xml")
    if(CMAKE_HOST_WIN32)
        norvex_add_windows_run()
        return()
    endif()

    set(options --result "${result}" --timeout ${arg_TIMEOUT})
    if(arg_VALIDATED)
        list(APPEND options --validated)
    endif()
    if(arg_VALIDATED_BUT)
        list(APPEND options --validated-but "${arg_VALIDATED_BUT}")
    endif()
    if(arg_VALIDATION_REPORTS)
        list(APPEND options --validation-reports "${arg_VALIDATION_REPORTS}")
    endif()
    if(arg_WINDOWS_VERSION)
        list(APPEND options --windows-version ${arg_WINDOWS_VERSION})
    endif()
    if(arg_STARTS)
        list(APPEND options --starts "$<TARGET_FILE:${arg_STARTS}>")
    endif()
    if(arg_MICROSOFT_COMPILER)
        list(APPEND options --microsoft-compiler)
        file(APPEND "${PROJECT_BINARY_DIR}/microsoft-compiler-tests.txt" "${arg_NAME}\n")
    endif()
    if(arg_SECOND_DIRECT3D11)
        list(APPEND options --second-direct3d11)
    endif()
    if(arg_WITHOUT)
        list(APPEND options --without ${arg_WITHOUT})
    endif()
    add_test(NAME ${arg_NAME}
        COMMAND "${PROJECT_SOURCE_DIR}/scripts/run-test" ${options} --
                "$<TARGET_FILE:${arg_PROGRAM}>" ${arg_ARGUMENTS})
    norvex_set_test_properties()
    if(arg_MICROSOFT_COMPILER)
        set_tests_properties(${arg_NAME} PROPERTIES LABELS microsoft-compiler)
    endif()
endfunction()

# On Windows a test is the program itself; what needs another system or another layer is left out by
# name.
macro(norvex_add_windows_run)
    if(arg_WINDOWS_VERSION OR arg_VALIDATION_REPORTS OR arg_MICROSOFT_COMPILER OR arg_SECOND_DIRECT3D11 OR arg_WITHOUT)
        norvex_leave_out_test(${arg_NAME} "it needs a simulated system")
    else()
        add_test(NAME ${arg_NAME} COMMAND ${arg_PROGRAM} "--gtest_output=xml:${result}" ${arg_ARGUMENTS})
        norvex_set_test_properties()
    endif()
endmacro()

macro(norvex_set_test_properties)
    # The runner itself stops a program that takes too long; this only catches a runner that hangs.
    math(EXPR outerTimeout "${arg_TIMEOUT} + 30")
    if(arg_LONG)
        set_tests_properties(${arg_NAME} PROPERTIES COST 60)
    endif()
    set_tests_properties(${arg_NAME} PROPERTIES
        TIMEOUT ${outerTimeout}
        ENVIRONMENT "${arg_ENVIRONMENT}"
        WORKING_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
endmacro()

set(kNativeCompiler g++)

function(norvex_add_native_test)
    norvex_parse_test_arguments(${ARGN})
    if(CMAKE_HOST_WIN32)
        norvex_leave_out_test(${arg_NAME} "it needs GCC's sanitizers")
        return()
    endif()
    # As one source: headers are what takes the compiler's time.
    set(program "${PROJECT_BINARY_DIR}/native/${arg_NAME}")
    set(includes "")
    foreach(source IN LISTS arg_SOURCES)
        get_filename_component(source "${source}" ABSOLUTE)
        string(APPEND includes "#include \"${source}\"\n")
    endforeach()
    file(CONFIGURE OUTPUT "${program}.cpp" CONTENT "${includes}" @ONLY)
    list(TRANSFORM arg_DEFINITIONS PREPEND -D)
    add_custom_command(OUTPUT "${program}"
        COMMAND ${kNativeCompiler} -std=c++20 -g1 -fno-omit-frame-pointer -fsanitize=${arg_SANITIZER}
                -Wall -Wextra -Wpedantic -Werror -DNORVEX_STATIC "-I${PROJECT_SOURCE_DIR}" ${arg_DEFINITIONS}
                -MMD -MF "${program}.d" -MT "${program}" "${program}.cpp" -o "${program}"
                -lgtest_main -lgtest -lfmt -pthread
        DEPENDS "${program}.cpp"
        DEPFILE "${program}.d"
        COMMENT "Building native test ${arg_NAME}"
        VERBATIM)
    add_custom_target(${arg_NAME} ALL DEPENDS "${program}")
    add_test(NAME ${arg_NAME}
        COMMAND "${PROJECT_SOURCE_DIR}/scripts/run-test" --native
                --result "${NORVEX_RESULTS}/${arg_NAME}.xml" --timeout ${arg_TIMEOUT} -- "${program}" ${arg_ARGUMENTS})
    norvex_set_test_properties()
endfunction()
