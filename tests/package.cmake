# The installed package, consumed the two ways the README gives: an outside
# CMake project (find_package + the exported target) and a pkg-config
# one-liner. Skipped under the sanitizers: their library needs the sanitizer
# runtime in every consumer, and the plain build checks the same files.
if(NOT ULONAT_SANITIZE)
  add_test(NAME package.consume
           COMMAND ${CMAKE_COMMAND} -DBUILD=${PROJECT_BINARY_DIR}
                   -DWORK=${CMAKE_CURRENT_BINARY_DIR}/package
                   -DSOURCE=${CMAKE_CURRENT_SOURCE_DIR}/package/consumer
                   -DCXX=${CMAKE_CXX_COMPILER}
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/package/Consume.cmake)
  set_tests_properties(package.consume PROPERTIES TIMEOUT 600)
endif()
