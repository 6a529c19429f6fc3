# Writes one man page with help2man from `PROGRAM [SUBCOMMAND] --help`.
# help2man runs what it is given through the shell, so a subcommand is
# handed over as a small script of its own.
get_filename_component(dir "${OUTPUT}" DIRECTORY)
set(command "${PROGRAM}")
if(SUBCOMMAND)
  set(command "${dir}/${NAME}")
  file(WRITE "${command}" "#!/bin/sh\nexec \"${PROGRAM}\" ${SUBCOMMAND} \"$@\"\n")
  file(CHMOD "${command}" PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
       GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
endif()
execute_process(
  COMMAND "${HELP2MAN}" --no-info --no-discard-stderr "--name=${SUMMARY}"
          "--version-string=${VERSION}" "--output=${OUTPUT}" "${command}"
  RESULT_VARIABLE failed)
if(SUBCOMMAND)
  file(REMOVE "${command}")
endif()
if(failed)
  file(REMOVE "${OUTPUT}")
  message(FATAL_ERROR "help2man could not make ${OUTPUT}")
endif()
