# The table's tests run zaffa-tool on live and broken tables.
if(TARGET Zaffa_tests AND TARGET zaffa-tool)
  add_dependencies(Zaffa_tests zaffa-tool)
  target_compile_definitions(Zaffa_tests PRIVATE ZAFFA_TOOL_PATH="$<TARGET_FILE:zaffa-tool>")
endif()
