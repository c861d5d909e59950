# The shared library's dynamic symbols: the library's own namespaces are
# exported, its private standard-library and fmt instantiations are not
# (cmake/UloNatExports.map).
#   cmake -DLIBRARY=libUloNat.so -P Exports.cmake
foreach(form mangled demangled)
  set(flags -D --defined-only)
  if(form STREQUAL demangled)
    list(APPEND flags -C)
  endif()
  execute_process(COMMAND nm ${flags} ${LIBRARY} RESULT_VARIABLE rc OUTPUT_VARIABLE ${form} ERROR_VARIABLE err)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "nm failed (${rc}): ${err}")
  endif()
endforeach()
# Mangled: std:: (St and its abbreviations), fmt::, __gnu_cxx::, as the
# first name of a function, a member or a vtable/typeinfo.
string(REGEX MATCHALL "\n[0-9a-f]* [A-Za-z] _Z(NK?|T[VIS]N?)?(S[tabsiod]|3fmt|9__gnu_cxx)[^\n]*" leaked "\n${mangled}")
list(LENGTH leaked n)
if(n GREATER 0)
  message(FATAL_ERROR "${n} private instantiations exported, among them:\n${leaked}")
endif()
foreach(api "Ulo::natSmFactory(" "typeinfo for UloHelper::UloHelperNat" "Ulo::natLibraryVersion(")
  string(FIND "${demangled}" "${api}" at)
  if(at EQUAL -1)
    message(FATAL_ERROR "'${api}' is not exported")
  endif()
endforeach()
string(REGEX MATCHALL "\n" lines "\n${mangled}")
list(LENGTH lines exported)
message(STATUS "about ${exported} symbols exported, no private instantiation among them")
