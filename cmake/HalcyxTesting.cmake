# SPDX-License-Identifier: MIT
# halcyx_add_test(NAME SOURCES src... [LIBS lib...] [LABELS label]
#                  [DEFINITIONS def...] [DEPENDS target...] [TIMEOUT seconds])
#
# One GoogleTest executable, each of its tests registered with CTest under
# one label: "unit" (the default), "concurrency" (also built and run under
# ThreadSanitizer; in that build every other test is skipped) or
# "integration" (runs the installed program). One label only, because test
# discovery cannot carry list-valued properties; for the same reason the
# sanitizer options come from the test presets' environment.
include(GoogleTest)
find_package(GTest REQUIRED)

# For tests registered directly with add_test.
set(HALCYX_TEST_ENV
    "ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:strict_string_checks=1"
    "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")

function(halcyx_add_test name)
  cmake_parse_arguments(T "" "LABELS;TIMEOUT" "SOURCES;LIBS;DEFINITIONS;DEPENDS" ${ARGN})
  # A test with a long time-out is a long test: a high cost makes CTest
  # start it first, so it runs beside the short ones instead of after them.
  set(T_COST 0)
  if(T_TIMEOUT)
    set(T_COST ${T_TIMEOUT})
  else()
    set(T_TIMEOUT 300)
  endif()
  set(T_LABEL ${T_LABELS})
  if(NOT T_LABEL)
    set(T_LABEL unit)
  endif()
  if(HALCYX_CONCURRENCY_TESTS_ONLY AND NOT T_LABEL STREQUAL "concurrency")
    return()
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE halcyx_test_support halcyx GTest::gtest_main ${T_LIBS})
  target_compile_definitions(${name} PRIVATE ${T_DEFINITIONS})
  if(T_DEPENDS)
    add_dependencies(${name} ${T_DEPENDS})
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 120
    PROPERTIES LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT} COST ${T_COST})
endfunction()
