# Cross toolchain: 64-bit Windows from Debian's mingw-w64 with POSIX threads.
#
# NORVEX_SDK (cache variable or environment) is the folder with what was cross-built for this
# project: glog, fmt and libpng. ./dev makes it and sets the variable.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(NORVEX_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${NORVEX_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${NORVEX_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${NORVEX_TRIPLE}-windres)
set(CMAKE_AR ${NORVEX_TRIPLE}-gcc-ar-posix CACHE FILEPATH "archiver")
set(CMAKE_RANLIB ${NORVEX_TRIPLE}-gcc-ranlib-posix CACHE FILEPATH "archive indexer")

if(NOT NORVEX_SDK AND DEFINED ENV{NORVEX_SDK})
    set(NORVEX_SDK "$ENV{NORVEX_SDK}")
endif()
set(NORVEX_SDK "${NORVEX_SDK}" CACHE PATH "folder of the cross-built dependencies")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES NORVEX_SDK)

set(CMAKE_FIND_ROOT_PATH /usr/${NORVEX_TRIPLE})
if(NORVEX_SDK)
    list(PREPEND CMAKE_FIND_ROOT_PATH "${NORVEX_SDK}")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
