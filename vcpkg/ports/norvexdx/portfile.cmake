# Builds the tree that this port lies in.
get_filename_component(source "${CMAKE_CURRENT_LIST_DIR}/../../.." ABSOLUTE)

vcpkg_check_linkage(ONLY_DYNAMIC_LIBRARY ONLY_DYNAMIC_CRT)
vcpkg_check_features(OUT_FEATURE_OPTIONS features FEATURES program NORVEX_PROGRAM)
vcpkg_cmake_configure(SOURCE_PATH "${source}"
    OPTIONS ${features} -DNORVEX_TESTS=OFF -DNORVEX_EXAMPLES=OFF)
vcpkg_cmake_install()
vcpkg_copy_pdbs()
vcpkg_cmake_config_fixup(PACKAGE_NAME NorvexDX CONFIG_PATH lib/cmake/NorvexDX)
vcpkg_fixup_pkgconfig()
if("program" IN_LIST FEATURES)
    vcpkg_copy_tools(TOOL_NAMES norvexdx AUTO_CLEAN)
endif()
file(REMOVE_RECURSE "${CURRENT_PACKAGES_DIR}/debug/include" "${CURRENT_PACKAGES_DIR}/debug/share")
vcpkg_install_copyright(FILE_LIST "${source}/LICENSE")
