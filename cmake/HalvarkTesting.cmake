# halvark_add_test(NAME <target> SOURCES <files...> LIBS <libs...> [LABELS <labels...>]
#                  [ENVIRONMENT <VAR=value...>])
# One GoogleTest executable per module; each test case is registered with CTest
# separately so that `ctest -j` spreads them over the cores.
include(CTest)
include(GoogleTest)

function(halvark_add_test)
  cmake_parse_arguments(T "" "NAME;TIMEOUT" "SOURCES;LIBS;LABELS;ENVIRONMENT" ${ARGN})
  if(NOT HALVARK_BUILD_TESTS)
    return()
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  add_executable(${T_NAME} ${T_SOURCES})
  target_link_libraries(${T_NAME} PRIVATE ${T_LIBS} GTest::gtest GTest::gmock GTest::gtest_main)
  # An empty property value would be dropped and shift the ones after it.
  set(properties TIMEOUT ${T_TIMEOUT})
  if(T_LABELS)
    list(APPEND properties LABELS "${T_LABELS}")
  endif()
  if(T_ENVIRONMENT)
    list(APPEND properties ENVIRONMENT "${T_ENVIRONMENT}")
  endif()
  gtest_discover_tests(${T_NAME}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES ${properties})
endfunction()
