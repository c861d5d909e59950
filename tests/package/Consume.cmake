# Installs the build into a fresh prefix, then builds and runs the consumer
# against that prefix twice: with CMake's find_package and with pkg-config;
# then the example agent's two programs, when EXAMPLE names its folder. The
# library is installed, never rebuilt.
#   cmake -DBUILD=dir -DWORK=dir -DSOURCE=consumer -DCXX=c++ [-DEXAMPLE=dir] -P Consume.cmake
function(run what)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${what} failed (${rc}):\n${out}")
  endif()
  set(run_out "${out}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
set(prefix ${WORK}/prefix)
run("install" ${CMAKE_COMMAND} --install ${BUILD} --prefix ${prefix})

# The package must not remember where it was configured: nothing installed
# may name the build tree or the configure-time prefix.
file(GLOB_RECURSE installed_meta ${prefix}/*.pc ${prefix}/*.cmake)
foreach(f ${installed_meta})
  file(READ ${f} text)
  if(text MATCHES "${BUILD}")
    message(FATAL_ERROR "${f} names the build tree ${BUILD}")
  endif()
endforeach()

# CMake: the README's two lines, nothing else (no CMAKE_CXX_STANDARD).
run("configure the CMake consumer" ${CMAKE_COMMAND} -S ${SOURCE} -B ${WORK}/cmake
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release)
run("build the CMake consumer" ${CMAKE_COMMAND} --build ${WORK}/cmake)
run("run the CMake consumer" ${WORK}/cmake/consumer)
message(STATUS "cmake consumer: ${run_out}")

# pkg-config: one compile line.
file(GLOB_RECURSE pc_files ${prefix}/UloNat.pc)
list(LENGTH pc_files n)
if(NOT n EQUAL 1)
  message(FATAL_ERROR "expected one installed UloNat.pc, found: ${pc_files}")
endif()
get_filename_component(pc_dir ${pc_files} DIRECTORY)
get_filename_component(lib_dir ${pc_dir} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run("pkg-config" pkg-config --cflags --libs UloNat)
string(STRIP "${run_out}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
run("compile with pkg-config's flags" ${CXX} -std=c++20 ${SOURCE}/consumer.cpp ${pc_flags}
    -Wl,-rpath,${lib_dir} -o ${WORK}/consumer-pc)
run("run the pkg-config consumer" ${WORK}/consumer-pc)
message(STATUS "pkg-config consumer: ${run_out}")

if(DEFINED EXAMPLE)
  run("configure the example agent" ${CMAKE_COMMAND} -S ${EXAMPLE} -B ${WORK}/example
      -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Release)
  run("build the example agent" ${CMAKE_COMMAND} --build ${WORK}/example)
  run("run the example agent" ${WORK}/example/example-agent)
  message(STATUS "example agent:\n${run_out}")
  run("run the example on the simulated chip" ${WORK}/example/example-sim-chip)
  message(STATUS "example on the simulated chip: ${run_out}")
endif()
