# The examples beside the library that they came with:
#   cmake -S share/NorvexDX/examples -B build -G Ninja -DCMAKE_PREFIX_PATH=<the archive's folder>

cmake_minimum_required(VERSION 3.25)
project(NorvexDXExamples LANGUAGES CXX)
find_package(NorvexDX REQUIRED)
file(GLOB sources CONFIGURE_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/*.cpp")
foreach(source IN LISTS sources)
    get_filename_component(name "${source}" NAME_WE)
    add_executable(${name} "${source}")
    # Hosts link Direct3D 11 for calls of their own: attach and host make a device.
    target_link_libraries(${name} PRIVATE Norvex::DX d3d11)
endforeach()
# The DLLs beside the programs.
add_custom_target(libraries ALL
    COMMAND ${CMAKE_COMMAND} -E copy_directory $<TARGET_FILE_DIR:Norvex::DX> "${CMAKE_CURRENT_BINARY_DIR}")
