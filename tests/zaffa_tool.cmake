# The table's tests run zaffa-tool on live and broken tables.
if(TARGET Zaffa_tests AND TARGET zaffa-tool)
  add_dependencies(Zaffa_tests zaffa-tool)
  target_compile_definitions(Zaffa_tests PRIVATE ZAFFA_TOOL_PATH="$<TARGET_FILE:zaffa-tool>")
endif()
# The hardware shadow's table test reads a shadow table back through
# zaffa-tool's JSON; only that file needs the tool's path.
if(TARGET UloNat_tests AND TARGET zaffa-tool)
  add_dependencies(UloNat_tests zaffa-tool)
  set_source_files_properties(${CMAKE_CURRENT_SOURCE_DIR}/UloNat/UloNatHwShadowTable_test.cpp PROPERTIES
                              COMPILE_DEFINITIONS ZAFFA_TOOL_PATH="$<TARGET_FILE:zaffa-tool>")
endif()
