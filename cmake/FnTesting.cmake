include(GoogleTest)

# fn_add_test(NAME LABEL unit|kernel|e2e SOURCES ... [LIBS ...] [TIMEOUT s])
# One GoogleTest executable; each of its tests becomes a ctest entry with the
# label and time-out given.
function(fn_add_test name)
  cmake_parse_arguments(T "" "LABEL;TIMEOUT" "SOURCES;LIBS" ${ARGN})
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 60)
  endif()
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gmock GTest::gtest_main Threads::Threads)
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/common)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${T_LABEL} TIMEOUT ${T_TIMEOUT})
endfunction()
