# Cross-build for Windows (i686: the build that loads the rig's 32-bit
# libraries) with the MinGW-w64 posix-thread compilers.
set(TAVRIX_MINGW_ARCH i686)
set(TAVRIX_WINE_NAMES wine)
include(${CMAKE_CURRENT_LIST_DIR}/mingw-common.cmake)
