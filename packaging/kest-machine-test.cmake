# kest_add_machine_test(NAME name COMMAND program argument...
#                       [MACHINE file.toml [IMAGES file...] | TEMPLATE name] [SETTINGS file.toml]
#                       [SEED number] [SCENARIO file.toml] [EXPECT exit-code] [REPEAT times])
#
# Adds a test that runs a program on a simulated machine of its own: a new folder, with the configuration that KEST_CONFIG names and all
# state in it, made anew for each run. docs/ci.md describes the arguments. Needs kestctl, the program of the package kest-tools.
set(kest_machine_test_script "${CMAKE_CURRENT_LIST_DIR}/kest-run-machine-test.cmake")

function(kest_add_machine_test)
  cmake_parse_arguments(PARSE_ARGV 0 test "" "NAME;MACHINE;TEMPLATE;SETTINGS;SEED;SCENARIO;EXPECT;REPEAT" "COMMAND;IMAGES")
  if(test_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "kest_add_machine_test: what is '${test_UNPARSED_ARGUMENTS}'?")
  endif()
  if(NOT test_NAME OR NOT test_COMMAND)
    message(FATAL_ERROR "kest_add_machine_test: NAME and COMMAND are required")
  endif()
  if(test_MACHINE AND test_TEMPLATE)
    message(FATAL_ERROR "kest_add_machine_test(${test_NAME}): MACHINE and TEMPLATE exclude each other")
  endif()
  if(NOT KEST_KESTCTL)
    message(FATAL_ERROR "kest_add_machine_test: kestctl was not found; install kest-tools, or set KEST_KESTCTL to the program's path")
  endif()
  # the program may be a target of the project; a semicolon in an argument must not make two of it
  list(GET test_COMMAND 0 program)
  if(TARGET ${program})
    set(program $<TARGET_FILE:${program}>)
  endif()
  set(command "${program}")
  set(is_program TRUE)
  foreach(word IN LISTS test_COMMAND)
    if(NOT is_program)
      string(REPLACE ";" "\\;" word "${word}")
      list(APPEND command "${word}")
    endif()
    set(is_program FALSE)
  endforeach()
  foreach(name MACHINE SETTINGS SCENARIO)
    if(test_${name})
      cmake_path(ABSOLUTE_PATH test_${name} BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
      set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${test_${name}}")
    endif()
  endforeach()
  set(images "")
  foreach(image IN LISTS test_IMAGES)
    cmake_path(ABSOLUTE_PATH image BASE_DIRECTORY "${CMAKE_CURRENT_SOURCE_DIR}")
    list(APPEND images "${image}")
  endforeach()
  # a list is one argument on the test's command line
  list(JOIN images "|" images)
  add_test(NAME ${test_NAME} COMMAND ${CMAKE_COMMAND} -D "kestctl=${KEST_KESTCTL}"
    -D "folder=${CMAKE_CURRENT_BINARY_DIR}/kest-machines/${test_NAME}" -D "machine=${test_MACHINE}" -D "images=${images}"
    -D "template=${test_TEMPLATE}" -D "settings=${test_SETTINGS}" -D "seed=${test_SEED}" -D "scenario=${test_SCENARIO}"
    -D "expect=${test_EXPECT}" -D "repeat=${test_REPEAT}" -P "${kest_machine_test_script}" -- ${command})
endfunction()
