# What `cmake --install` puts where, the man pages, and the packages CPack
# makes: a Debian package (`cpack -G DEB`: tavrix_<version>_amd64.deb, its
# dependencies found by dpkg-shlibdeps from the libraries the programs link)
# and, in a Windows cross-build, a zip (`cpack -G ZIP`:
# tavrix-<version>-win64.zip).
include(GNUInstallDirs)

if(WIN32)
  # A zip unpacked anywhere: the programs at its top, the rest beside them.
  set(bin_dir .)
  set(doc_dir docs)
  set(example_dir examples)
else()
  set(bin_dir ${CMAKE_INSTALL_BINDIR})
  set(doc_dir ${CMAKE_INSTALL_DOCDIR})
  set(example_dir ${CMAKE_INSTALL_DOCDIR}/examples)
endif()

foreach(program tavrix-cli tavrix)
  if(TARGET ${program})
    install(TARGETS ${program} RUNTIME DESTINATION ${bin_dir})
  endif()
endforeach()
install(FILES README.md DESTINATION ${doc_dir})
install(DIRECTORY docs/ DESTINATION ${doc_dir} FILES_MATCHING PATTERN "*.md" PATTERN "*.txt"
        PATTERN "*.png")
install(DIRECTORY examples/ DESTINATION ${example_dir})

# The stand-in link libraries of the Windows build answer as the simulated
# rig does. They carry the names a rig PC's own libraries have, so they go
# into a folder of their own that says what they are, never beside the
# program where the link would load them instead of the real ones.
if(WIN32 AND TARGET commslib)
  set(stand_in_dir "stand-in-link-libraries-simulated-rig")
  install(TARGETS tavrixrig commslib imslib RUNTIME DESTINATION ${stand_in_dir}
          LIBRARY DESTINATION ${stand_in_dir})
  install(FILES cmake/stand-in-libraries.txt DESTINATION ${stand_in_dir} RENAME README.txt)
endif()

# Man pages of tavrix-cli and of each subcommand, made by help2man from the
# program's own --help text, so there is no second copy to drift. Built with
# the program where help2man is installed (not in a cross-build, whose
# program cannot run here).
find_program(TAVRIX_HELP2MAN help2man)
if(TAVRIX_HELP2MAN AND TARGET tavrix-cli AND NOT CMAKE_CROSSCOMPILING)
  set(man_dir ${CMAKE_CURRENT_BINARY_DIR}/man)
  set(pages)
  foreach(entry
      "tavrix-cli|run test sequences headless against a rig or its simulation|"
      "tavrix-cli-run|run a sequence file to its end|run"
      "tavrix-cli-lint|find what would fail in a sequence without running it|lint"
      "tavrix-cli-rig|serve the simulated rig or a rig's link libraries over TCP|rig"
      "tavrix-cli-decrypt|turn enciphered files back into plain files|decrypt"
      "tavrix-cli-encrypt|encipher plain files|encrypt"
      "tavrix-cli-results|query, export and import the results database|results"
      "tavrix-cli-serve|serve live runs, results and analytics to a web browser|serve")
    string(REPLACE "|" ";" parts "${entry}")
    list(GET parts 0 page)
    list(GET parts 1 summary)
    list(GET parts 2 subcommand)
    add_custom_command(
      OUTPUT ${man_dir}/${page}.1
      COMMAND ${CMAKE_COMMAND} -E make_directory ${man_dir}
      COMMAND ${CMAKE_COMMAND} -DHELP2MAN=${TAVRIX_HELP2MAN} -DPROGRAM=$<TARGET_FILE:tavrix-cli>
              -DSUBCOMMAND=${subcommand} -DNAME=${page} -DSUMMARY=${summary}
              -DVERSION=${PROJECT_VERSION} -DOUTPUT=${man_dir}/${page}.1
              -P ${PROJECT_SOURCE_DIR}/cmake/man_page.cmake
      DEPENDS tavrix-cli ${PROJECT_SOURCE_DIR}/cmake/man_page.cmake
      VERBATIM)
    list(APPEND pages ${man_dir}/${page}.1)
  endforeach()
  add_custom_target(tavrix_man_pages ALL DEPENDS ${pages})
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()

set(CPACK_PACKAGE_NAME tavrix)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Test sequencer for rigs driven through data-acquisition hardware")
set(CPACK_PACKAGE_DESCRIPTION
    "Runs test sequence files (.wts) on test rigs or on the built-in simulated rig, in real or virtual time, and records the results of each unit under test.")
set(CPACK_PACKAGE_CONTACT "Tavrix developers <tavrix-developers@localhost>")
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_INSTALL_DIRECTORY tavrix)
if(WIN32)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_PACKAGE_FILE_NAME "tavrix-${PROJECT_VERSION}-win64")
  if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(CPACK_PACKAGE_FILE_NAME "tavrix-${PROJECT_VERSION}-win32")
  endif()
else()
  set(CPACK_GENERATOR DEB)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  # The window needs a platform plugin to draw on the screen; Qt's libraries
  # only recommend them.
  if(TARGET tavrix)
    set(CPACK_DEBIAN_PACKAGE_DEPENDS "qt6-qpa-plugins")
  endif()
  set(CPACK_DEBIAN_PACKAGE_SECTION electronics)
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
endif()
include(CPack)
