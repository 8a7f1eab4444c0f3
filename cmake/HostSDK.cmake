# norvex_host_sdk: the name of the target with the host SDK that the library is built on: NorvexHost,
# or the host's own that NORVEX_HOST_SDK names.
#
# A target has been made by the project around this one. A folder's CMakeLists.txt makes the target
# NorvexHost. Either has a folder `Host` with the headers that docs/host-sdk.md lists on its public
# include path.

if(NOT NORVEX_HOST_SDK)
    set(norvex_host_sdk NorvexHost)
    add_subdirectory("${PROJECT_SOURCE_DIR}/Host")
elseif(TARGET "${NORVEX_HOST_SDK}")
    get_target_property(norvex_host_sdk "${NORVEX_HOST_SDK}" ALIASED_TARGET)
    if(NOT norvex_host_sdk)
        set(norvex_host_sdk "${NORVEX_HOST_SDK}")
    endif()
elseif(EXISTS "${NORVEX_HOST_SDK}/CMakeLists.txt")
    set(norvex_host_sdk NorvexHost)
    add_subdirectory("${NORVEX_HOST_SDK}" NorvexHostSDK)
else()
    message(FATAL_ERROR "NORVEX_HOST_SDK: \"${NORVEX_HOST_SDK}\" is neither a target nor a folder with a CMakeLists.txt")
endif()
if(NOT TARGET Norvex::Host)
    add_library(Norvex::Host ALIAS "${norvex_host_sdk}")
endif()

# norvex_use_host_sdk(<target>): its headers before those of Host/, which lie beside the library's
function(norvex_use_host_sdk target)
    if(NORVEX_HOST_SDK)
        target_include_directories(${target} BEFORE PUBLIC
            "$<BUILD_INTERFACE:$<TARGET_PROPERTY:${norvex_host_sdk},INTERFACE_INCLUDE_DIRECTORIES>>")
        # What it is linked from, an installed library cannot know.
        target_link_libraries(${target} PUBLIC "$<BUILD_INTERFACE:${norvex_host_sdk}>")
    else()
        target_link_libraries(${target} PUBLIC NorvexHost)
    endif()
endfunction()
