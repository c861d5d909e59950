# ulonat-sim's command line and its refusals of bad scenario files: each case
# runs the tool once and checks the exit status and the message.
if(TARGET ulonat-sim)
  set(sim_bad ${CMAKE_CURRENT_SOURCE_DIR}/tools/bad)
  function(ulonat_sim_case name exit match)
    string(REPLACE ";" "|" args "${ARGN}")
    add_test(NAME ulonat-sim.${name}
             COMMAND ${CMAKE_COMMAND} "-DCOMMAND=$<TARGET_FILE:ulonat-sim>|${args}" -DEXIT=${exit}
                     "-DMATCH=${match}" ${ULONAT_SIM_CASE_EXTRA}
                     -P ${CMAKE_CURRENT_SOURCE_DIR}/tools/ExpectRun.cmake)
  endfunction()

  ulonat_sim_case(directory 2 "tools/bad: is a directory" ${sim_bad})
  ulonat_sim_case(missing_file 2 "no-such.json: cannot be read: No such file or directory"
                  ${sim_bad}/no-such.json)
  set(ULONAT_SIM_CASE_EXTRA -DEMPTY_ARG=1)
  ulonat_sim_case(empty_name 2 "the scenario file name is empty")
  unset(ULONAT_SIM_CASE_EXTRA)
  ulonat_sim_case(huge_number 2 "number too large at line 2, column 10 \\('1e400'\\)"
                  ${sim_bad}/huge_number.json)
  ulonat_sim_case(huge_negative_number 2 "number too large at line 3, column 10 \\('-1e400'\\)"
                  ${sim_bad}/huge_negative_number.json)
  ulonat_sim_case(huge_integer 2 "field 'capacity': out of range \\(0 to 100000000\\)"
                  ${sim_bad}/huge_integer.json)
  ulonat_sim_case(duplicate_at 2 "event #1: field 'at' written twice" ${sim_bad}/duplicate_at.json)
  ulonat_sim_case(duplicate_events 2 "scenario: field 'events' written twice"
                  ${sim_bad}/duplicate_events.json)
  ulonat_sim_case(duplicate_in_chip 2 "scenario, in 'chip': field 'capacity' written twice"
                  ${sim_bad}/duplicate_in_chip.json)
  # References between events are checked before anything runs.
  ulonat_sim_case(rule_on_removed_interface 2 "event #3 \\(staticAdd\\), field 'intf': interface 'Ethernet1' is not configured here"
                  ${sim_bad}/rule_on_removed_interface.json)
  ulonat_sim_case(rule_on_unknown_interface 2 "event #1 \\(twiceAdd\\), field 'intf': interface 'Ethernet2' is not configured here"
                  ${sim_bad}/rule_on_unknown_interface.json)
  # The JSON library's own tag ("[json.exception...]") is not for the user.
  ulonat_sim_case(invalid_literal 2 "invalid_literal.json: invalid JSON: parse error at line 1, column [0-9]+: syntax error"
                  ${sim_bad}/invalid_literal.json)
  set_tests_properties(ulonat-sim.invalid_literal PROPERTIES FAIL_REGULAR_EXPRESSION "json\\.exception")
  # The asynchronous pipeline's events and expectations need its mode, and an
  # agent that is up; a shadow root that holds what ulonat-sim did not put
  # there is refused, and left as it was.
  ulonat_sim_case(restart_in_direct_mode 2 "event #2 \\(restart\\), field 'event': 'restart' needs \"helper\""
                  ${sim_bad}/restart_in_direct_mode.json)
  ulonat_sim_case(expect_while_agent_down 2 "event #3 \\(expect\\), field 'event': 'expect' cannot run while the agent is down"
                  ${sim_bad}/expect_while_agent_down.json)
  ulonat_sim_case(agent_left_down 2 "the agent is still down at the end" ${sim_bad}/agent_left_down.json)
  ulonat_sim_case(direct_expectation_in_async_mode 2 "field 'chipTwiceEntries': only the direct helper's chip"
                  --helper async ${PROJECT_SOURCE_DIR}/tests/scenarios/twice_next_hop.json)
  ulonat_sim_case(shadow_root_not_ours 2 "shadow root '.*tools/bad': not empty, and not made by ulonat-sim"
                  --shadow-root ${sim_bad} ${PROJECT_SOURCE_DIR}/tests/scenarios/async_restart.json)
  ulonat_sim_case(async_expectation_fails 1 "chip removals since the mark expected 1, got 0"
                  ${sim_bad}/async_wrong_removals.json)
  ulonat_sim_case(version 0 "^ulonat-sim \\(libUloNat\\) [0-9]+\\.[0-9]+\\.[0-9]+" --version)
  ulonat_sim_case(help_lists_exit_codes 0 "Exit status: 0 .*1 .*2 " --help)

  # The README's example scenario read from standard input, and the summary
  # that leaves the chip's entry lines out of the built-in scenario's report.
  set(ULONAT_SIM_CASE_EXTRA -DINPUT=${PROJECT_SOURCE_DIR}/tests/scenarios/late_vrf_and_refusals.json)
  ulonat_sim_case(standard_input 0 "Expectations: [1-9][0-9]* held, 0 failed" -)
  set(ULONAT_SIM_CASE_EXTRA "-DNOMATCH=Chip: [0-9]+ of [0-9]+ entries<NL>  [^ ]")
  ulonat_sim_case(summary 0 "Chip: [1-9][0-9]* of [0-9]+ entries" --summary)
  unset(ULONAT_SIM_CASE_EXTRA)
  ulonat_sim_case(full_report_lists_chip_entries 0 "Chip: [1-9][0-9]* of [0-9]+ entries<NL>  [^ ]")
  # The JSON report parses and says which layout it has.
  set(ULONAT_SIM_CASE_EXTRA -DJSON_GET=format -DJSON_EQUALS=1)
  ulonat_sim_case(json_report_has_format 0 "" --json)
  unset(ULONAT_SIM_CASE_EXTRA)
endif()

if(TARGET zaffa-tool)
  foreach(case "version|0|^zaffa-tool \\(libUloNat\\) [0-9]+\\.[0-9]+\\.[0-9]+|--version"
                "help_says_what_dir_is|0|DIR is the directory of one table, <root>/<name>/entry.*Exit status: 0 .*1 .*2 .*3 |--help")
    string(REPLACE "|" ";" parts "${case}")
    list(GET parts 0 name)
    list(GET parts 1 exit)
    list(GET parts 2 match)
    list(GET parts 3 arg)
    add_test(NAME zaffa-tool.${name}
             COMMAND ${CMAKE_COMMAND} "-DCOMMAND=$<TARGET_FILE:zaffa-tool>|${arg}" -DEXIT=${exit}
                     "-DMATCH=${match}" -P ${CMAKE_CURRENT_SOURCE_DIR}/tools/ExpectRun.cmake)
  endforeach()
endif()
