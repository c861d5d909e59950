# The README's two commands, in order, in a fresh clone of this checkout's
# HEAD (tests/readme/two-commands.sh). It builds everything from scratch, so
# it runs only in long mode (ULONAT_LONG=1 when ctest runs) and is reported
# as skipped otherwise, CI's default run included. The sanitizer half of
# `./run.sh test` is left out (ULONAT_SKIP_SANITIZERS=1): what this checks is
# that the plain run finds its tests.
find_program(ULONAT_GIT git)
find_program(ULONAT_BASH bash)
if(ULONAT_GIT AND ULONAT_BASH)
  add_test(NAME readme.two_commands
           COMMAND ${ULONAT_BASH} ${CMAKE_CURRENT_SOURCE_DIR}/readme/two-commands.sh ${PROJECT_SOURCE_DIR}
                   ${CMAKE_CURRENT_BINARY_DIR}/fresh-clone)
  set_tests_properties(readme.two_commands PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 7200 LABELS fresh-clone)
endif()
