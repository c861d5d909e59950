# The two-process tests of the asynchronous pipeline run the agent
# (ulonat-sim --agent) and the programmer (ulonat-programmer) as programs.
if(TARGET UloNat_tests AND TARGET ulonat-programmer AND TARGET ulonat-sim)
  add_dependencies(UloNat_tests ulonat-programmer ulonat-sim)
  target_compile_definitions(UloNat_tests PRIVATE ULONAT_PROGRAMMER_PATH="$<TARGET_FILE:ulonat-programmer>"
                                                  ULONAT_SIM_PATH="$<TARGET_FILE:ulonat-sim>")
endif()
