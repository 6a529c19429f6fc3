# What the two MinGW-w64 toolchain files share: the posix-thread compilers of
# the architecture in TAVRIX_MINGW_ARCH, and Wine (one of TAVRIX_WINE_NAMES)
# to run the tests on the build machine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${TAVRIX_MINGW_ARCH})
set(CMAKE_C_COMPILER ${TAVRIX_MINGW_ARCH}-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER ${TAVRIX_MINGW_ARCH}-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER ${TAVRIX_MINGW_ARCH}-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/${TAVRIX_MINGW_ARCH}-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Debian keeps the Wine loaders in /usr/lib/wine.
find_program(TAVRIX_WINE NAMES ${TAVRIX_WINE_NAMES} PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(TAVRIX_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TAVRIX_WINE})
endif()
