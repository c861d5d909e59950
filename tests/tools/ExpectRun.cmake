# Runs one command and checks its exit status and what it printed.
#   cmake "-DCOMMAND=prog|arg|..." -DEXIT=n [-DMATCH=regex] [-DNOMATCH=regex]
#         [-DINPUT=file] [-DEMPTY_ARG=1] [-DJSON_GET=path -DJSON_EQUALS=value]
#         -P ExpectRun.cmake
# EMPTY_ARG adds an empty argument at the end, which a list cannot carry.
# MATCH and NOMATCH are tried on standard output and standard error together;
# <NL> in them stands for a newline, which a test's command line cannot carry
# (nor can it end in a blank: -D values lose their trailing spaces).
string(REPLACE "|" ";" command "${COMMAND}")
set(input)
if(DEFINED INPUT)
  set(input INPUT_FILE ${INPUT})
endif()
if(EMPTY_ARG)
  execute_process(COMMAND ${command} "" ${input} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
else()
  execute_process(COMMAND ${command} ${input} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
endif()
set(all "${out}${err}")
foreach(var MATCH NOMATCH)
  if(DEFINED ${var})
    string(REPLACE "<NL>" "\n" ${var} "${${var}}")
  endif()
endforeach()
if(NOT rc STREQUAL "${EXIT}")
  message(FATAL_ERROR "exit status ${rc}, expected ${EXIT}:\n${all}")
endif()
if(DEFINED MATCH AND NOT all MATCHES "${MATCH}")
  message(FATAL_ERROR "output does not match '${MATCH}':\n${all}")
endif()
if(DEFINED NOMATCH AND all MATCHES "${NOMATCH}")
  message(FATAL_ERROR "output matches '${NOMATCH}', which it must not:\n${all}")
endif()
# JSON_GET: standard output must parse as JSON, and the member at the path
# (members separated by '/') must equal JSON_EQUALS.
if(DEFINED JSON_GET)
  string(REPLACE "/" ";" path "${JSON_GET}")
  string(JSON got ERROR_VARIABLE json_error GET "${out}" ${path})
  if(json_error)
    message(FATAL_ERROR "'${JSON_GET}' not read from the output: ${json_error}\n${out}")
  endif()
  if(NOT got STREQUAL "${JSON_EQUALS}")
    message(FATAL_ERROR "'${JSON_GET}' is '${got}', expected '${JSON_EQUALS}'")
  endif()
endif()
message(STATUS "exit ${rc} as expected")
