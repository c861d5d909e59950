# Each scenario file runs as one CTest test: ulonat-sim exits 0 only when
# every expectation of the file held.
file(GLOB scenario_files CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/scenarios/*.json)
if(TARGET ulonat-sim)
  foreach(f ${scenario_files})
    get_filename_component(name ${f} NAME_WE)
    add_test(NAME scenario.${name} COMMAND ulonat-sim ${f})
  endforeach()
  add_test(NAME scenario.builtin COMMAND ulonat-sim)
endif()
