# The project's version, which project() alone says, where else it is needed:
#   <build>/include/Proc/DirectX/Manager/VersionNumber.h   macros, for Version.h
#   norvex_add_version_resource(<target> <file> <description>)  what Windows shows of a DLL or program
# The port for vcpkg says it too, as vcpkg wants it in each file; a difference is an error.

configure_file("${PROJECT_SOURCE_DIR}/cmake/VersionNumber.h.in"
    "${PROJECT_BINARY_DIR}/include/Proc/DirectX/Manager/VersionNumber.h" @ONLY)

# In a target of its own: the resource compiler takes none of the C++ compiler's options.
function(norvex_add_version_resource target file description)
    set(resource "${CMAKE_CURRENT_BINARY_DIR}/${target}.rc")
    configure_file("${PROJECT_SOURCE_DIR}/cmake/Version.rc.in" "${resource}" @ONLY)
    add_library(${target}_resource OBJECT "${resource}")
    target_sources(${target} PRIVATE "$<TARGET_OBJECTS:${target}_resource>")
endfunction()

foreach(field IN ITEMS "ports/norvexdx/vcpkg.json|version" "versions/baseline.json|default;norvexdx;baseline"
                       "versions/n-/norvexdx.json|versions;0;version")
    string(REPLACE "|" ";" field "${field}")
    list(POP_FRONT field file)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/vcpkg/${file}")
    file(READ "${PROJECT_SOURCE_DIR}/vcpkg/${file}" content)
    string(JSON version GET "${content}" ${field})
    if(NOT version STREQUAL PROJECT_VERSION)
        message(FATAL_ERROR "vcpkg/${file} says version ${version}, the project is ${PROJECT_VERSION}")
    endif()
endforeach()
