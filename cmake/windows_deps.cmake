# Dependencies of a Windows cross-build. The header-only libraries come from
# the build machine's /usr/include through a folder of their own (adding
# /usr/include itself would let the host's C headers shadow MinGW's);
# GoogleTest is built for the target from the packaged sources.
set(TAVRIX_GTEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest sources built for the target")
set(TAVRIX_HOST_INCLUDE /usr/include CACHE PATH "Where the header-only libraries are installed")

set(_shim ${CMAKE_BINARY_DIR}/host-headers)
file(MAKE_DIRECTORY ${_shim})
foreach(dir CLI nlohmann toml++)
  if(EXISTS ${TAVRIX_HOST_INCLUDE}/${dir} AND NOT EXISTS ${_shim}/${dir})
    file(CREATE_LINK ${TAVRIX_HOST_INCLUDE}/${dir} ${_shim}/${dir} SYMBOLIC)
  endif()
endforeach()
add_library(tavrix_host_headers INTERFACE)
target_include_directories(tavrix_host_headers SYSTEM INTERFACE ${_shim})
add_library(CLI11::CLI11 ALIAS tavrix_host_headers)
add_library(nlohmann_json::nlohmann_json ALIAS tavrix_host_headers)
include_directories(SYSTEM ${_shim})
set(CLI11_FOUND TRUE)

set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
set(gtest_disable_pthreads OFF CACHE BOOL "" FORCE)
add_subdirectory(${TAVRIX_GTEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)

# Static runtime: the programs and test binaries run from any folder (and
# under Wine) without the MinGW runtime DLLs beside them.
add_link_options(-static -static-libgcc -static-libstdc++)

# Windows headers: Unicode entry points, no min/max macros, Windows 7 API.
add_compile_definitions(UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN _WIN32_WINNT=0x0601)

# Test files that need POSIX process control and are not built for Windows:
#   common/text_file_test.cc            kills a writer with fork() and SIGKILL
#                                       in the middle of an append; POSIX
#                                       permission bits and root's view of them
#   common/file_system_test.cc          fork(), SIGKILL, permission bits,
#                                       /dev/zero
#   testdb/results_files_process_test.cc  many writers started with fork(),
#                                       some killed with SIGKILL mid-write
#   instrument/tcp/rig_server_test.cc   runs out of descriptors (setrlimit) in
#                                       a forked child
#   resultsdb/results_queue_test.cc     shares the store tests' POSIX helpers
#   engine/engine_commands_test.cc,     lay out their in-memory data roots with
#   engine/calc_day_test.cc,            Linux paths (/data/c/corvane), where a
#   engine/breakpoints_test.cc          Windows build maps the drive to the
#                                       drive itself
set(TAVRIX_POSIX_ONLY_TESTS common/text_file_test.cc common/file_system_test.cc
    testdb/results_files_process_test.cc instrument/tcp/rig_server_test.cc resultsdb/results_queue_test.cc
    engine/engine_commands_test.cc engine/calc_day_test.cc engine/breakpoints_test.cc)
