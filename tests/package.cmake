# The installed package, consumed the two ways the README gives: an outside
# CMake project (find_package + the exported target) and a pkg-config
# one-liner; then the example agent (examples/agent), built and run against
# the same install, with its own chip and with the installed simulated one. Skipped under the sanitizers: their library needs the sanitizer
# runtime in every consumer, and the plain build checks the same files.
if(NOT ULONAT_SANITIZE)
  add_test(NAME package.consume
           COMMAND ${CMAKE_COMMAND} -DBUILD=${PROJECT_BINARY_DIR}
                   -DWORK=${CMAKE_CURRENT_BINARY_DIR}/package
                   -DSOURCE=${CMAKE_CURRENT_SOURCE_DIR}/package/consumer
                   -DCXX=${CMAKE_CXX_COMPILER}
                   -DEXAMPLE=${PROJECT_SOURCE_DIR}/examples/agent
                   -P ${CMAKE_CURRENT_SOURCE_DIR}/package/Consume.cmake)
  set_tests_properties(package.consume PROPERTIES TIMEOUT 600)
endif()

# What the shared library exports (cmake/UloNatExports.map).
add_test(NAME package.exports
         COMMAND ${CMAKE_COMMAND} -DLIBRARY=$<TARGET_FILE:UloNat>
                 -P ${CMAKE_CURRENT_SOURCE_DIR}/package/Exports.cmake)
