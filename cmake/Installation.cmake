# What `cmake --install` lays out, by component:
#   Runtime       DLLs, licences, and where a MinGW cross build made them, the DLLs that they need
#   Headers       the public headers, under include/NorvexDX, with the #include paths of the tree
#   Development   import libraries, the CMake package, the pkg-config file, the debugger's views, examples
#   Program       norvexdx.exe
#   Debug         debug information

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(libraries NorvexDX norvex_public)
set(binaries NorvexDX)
set(libraryFlags -lNorvexDX)
if(NOT NORVEX_HOST_SDK)
    list(APPEND libraries NorvexHost)
    list(APPEND binaries NorvexHost)
    string(APPEND libraryFlags " -lNorvexHost")
endif()
set(includeFolder "${CMAKE_INSTALL_INCLUDEDIR}/NorvexDX")
set(packageFolder "${CMAKE_INSTALL_LIBDIR}/cmake/NorvexDX")

install(TARGETS ${libraries} EXPORT NorvexDX
    RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Runtime
    ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Development
    FILE_SET HEADERS DESTINATION "${includeFolder}" COMPONENT Headers
    FILE_SET made DESTINATION "${includeFolder}" COMPONENT Headers)
install(EXPORT NorvexDX NAMESPACE Norvex:: FILE NorvexDXTargets.cmake
    DESTINATION "${packageFolder}" COMPONENT Development)

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/NorvexDXConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/NorvexDXConfig.cmake" INSTALL_DESTINATION "${packageFolder}"
    PATH_VARS includeFolder)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/NorvexDXConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/NorvexDXConfig.cmake" "${PROJECT_BINARY_DIR}/NorvexDXConfigVersion.cmake"
    DESTINATION "${packageFolder}" COMPONENT Development)

# Relative, so that the installed folder may move.
file(RELATIVE_PATH pkgconfigToPrefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
string(REGEX REPLACE "/$" "" pkgconfigToPrefix "${pkgconfigToPrefix}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/norvexdx.pc.in" "${PROJECT_BINARY_DIR}/norvexdx.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/norvexdx.pc"
    DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT Development)

install(FILES "${PROJECT_SOURCE_DIR}/Platform/NorvexDX.natvis"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/NorvexDX" COMPONENT Development)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/examples"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/NorvexDX" COMPONENT Development
    FILES_MATCHING PATTERN "*.cpp" PATTERN host_sdk EXCLUDE)
install(FILES "${PROJECT_SOURCE_DIR}/cmake/ExamplesOfArchive.cmake" RENAME CMakeLists.txt
    DESTINATION "${CMAKE_INSTALL_DATADIR}/NorvexDX/examples" COMPONENT Development)
file(RELATIVE_PATH docToExamples "/${CMAKE_INSTALL_DATADIR}/doc/NorvexDX" "/${CMAKE_INSTALL_DATADIR}/NorvexDX/examples")
install(CODE "execute_process(COMMAND \"\${CMAKE_COMMAND}\" \"-DSOURCE=${PROJECT_SOURCE_DIR}\"
    \"-DTARGET=\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_DATADIR}/doc/NorvexDX\" \"-DEXAMPLES=${docToExamples}\"
    -P \"${PROJECT_SOURCE_DIR}/cmake/DocumentationOfArchive.cmake\" COMMAND_ERROR_IS_FATAL ANY)" COMPONENT Development)
install(FILES "${PROJECT_SOURCE_DIR}/LICENSE"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/NorvexDX" COMPONENT Runtime)
install(DIRECTORY "${PROJECT_SOURCE_DIR}/licenses"
    DESTINATION "${CMAKE_INSTALL_DATADIR}/NorvexDX" COMPONENT Runtime)

if(NORVEX_PROGRAM)
    list(APPEND binaries norvexdx_app)
    install(TARGETS norvexdx_app RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Program)
endif()
foreach(binary IN LISTS binaries)
    if(MSVC)
        set(file "$<TARGET_PDB_FILE:${binary}>")
    else()
        set(file "$<TARGET_FILE:${binary}>.debug")
    endif()
    install(FILES "${file}" DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Debug OPTIONAL)
endforeach()

# Elsewhere the package manager has installed them.
if(MINGW AND CMAKE_CROSSCOMPILING AND PROJECT_IS_TOP_LEVEL)
    list(TRANSFORM norvex_compiler_runtime PREPEND "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/")
    install(PROGRAMS ${norvex_compiler_runtime} "${NORVEX_SDK}/bin/libglog.dll"
        DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT Runtime)
    install(DIRECTORY "${NORVEX_SDK}/include/glog"
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT Development)
    install(FILES "${NORVEX_SDK}/lib/libglog.dll.a"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT Development)
    install(DIRECTORY "${NORVEX_SDK}/lib/cmake/glog"
        DESTINATION "${CMAKE_INSTALL_LIBDIR}/cmake" COMPONENT Development)
endif()
