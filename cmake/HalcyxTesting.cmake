# halcyx_add_test(NAME SOURCES src... [LIBS lib...] [LABELS label...])
#
# One GoogleTest executable, each of its tests registered with CTest and
# labelled "unit" unless it is labelled "integration".
# Tests labelled "concurrency" are also built and run under ThreadSanitizer;
# in that build every other test is skipped.
include(GoogleTest)
find_package(GTest REQUIRED)

set(HALCYX_TEST_ENV
    "ASAN_OPTIONS=halt_on_error=1:abort_on_error=0:detect_leaks=1:strict_string_checks=1"
    "UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1"
    "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1")

function(halcyx_add_test name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  if(HALCYX_CONCURRENCY_TESTS_ONLY AND NOT "concurrency" IN_LIST T_LABELS)
    return()
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE halcyx_test_support halcyx GTest::gtest_main ${T_LIBS})
  if(NOT "integration" IN_LIST T_LABELS)
    list(APPEND T_LABELS unit)
  endif()
  gtest_discover_tests(${name}
    DISCOVERY_TIMEOUT 120
    PROPERTIES LABELS "${T_LABELS}" ENVIRONMENT "${HALCYX_TEST_ENV}" TIMEOUT 300)
endfunction()
