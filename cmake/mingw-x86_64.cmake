# Cross-build for Windows (x86_64) with the MinGW-w64 posix-thread compilers.
set(TAVRIX_MINGW_ARCH x86_64)
set(TAVRIX_WINE_NAMES wine64 wine)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
