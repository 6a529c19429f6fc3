# Writes the source file that tells the programs their version and the
# commit they were built from. Run at every build (cmake -P) with SOURCE_DIR,
# OUTPUT and VERSION set; the file is rewritten only when its text changes,
# so an unchanged commit rebuilds nothing.
set(commit "unknown")
find_package(Git QUIET)
if(GIT_FOUND AND EXISTS "${SOURCE_DIR}/.git")
  execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${SOURCE_DIR}" rev-parse --short=12 HEAD
                  OUTPUT_VARIABLE head RESULT_VARIABLE failed OUTPUT_STRIP_TRAILING_WHITESPACE
                  ERROR_QUIET)
  if(NOT failed AND head)
    set(commit "${head}")
    execute_process(COMMAND "${GIT_EXECUTABLE}" -C "${SOURCE_DIR}" status --porcelain
                            --untracked-files=no
                    OUTPUT_VARIABLE changes ERROR_QUIET OUTPUT_STRIP_TRAILING_WHITESPACE)
    if(changes)
      string(APPEND commit "+changes")
    endif()
  endif()
endif()
set(text "// Made by cmake/build_version.cmake at build time.
#include \"build_version.h\"

namespace tavrix {
const char* BuildVersion() { return \"${VERSION}\"; }
const char* BuildCommit() { return \"${commit}\"; }
}  // namespace tavrix
")
set(old "")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" old)
endif()
if(NOT old STREQUAL text)
  file(WRITE "${OUTPUT}" "${text}")
endif()
