# Read by ctest, not by cmake: one test for each suite of a GoogleTest executable, ROOM_LABEL_test.SUITE. A process for each
# single test would take more time than the tests.
# In: SUITES_OF (name), SUITES_EXECUTABLE, SUITES_LABEL, SUITES_TIMEOUT (seconds, of one suite).
if(NOT EXISTS "${SUITES_EXECUTABLE}")
  add_test("${SUITES_OF}.NOT_BUILT" "${SUITES_EXECUTABLE}")
  set_tests_properties("${SUITES_OF}.NOT_BUILT" PROPERTIES LABELS "${SUITES_LABEL}")
  return()
endif()
execute_process(COMMAND "${SUITES_EXECUTABLE}" --gtest_list_tests
                OUTPUT_VARIABLE listed RESULT_VARIABLE status TIMEOUT 60)
if(NOT status EQUAL 0)
  message(FATAL_ERROR "${SUITES_EXECUTABLE} --gtest_list_tests: ${status}")
endif()
# A semicolon or bracket in a parameter's text is none of a list's.
string(REGEX REPLACE "#[^\n]*" "" listed "${listed}")
string(REGEX MATCHALL "(^|\n)[A-Za-z0-9_/]+\\." suites "${listed}")
foreach(suite ${suites})
  string(REGEX REPLACE "[\n.]" "" suite "${suite}")
  add_test("${SUITES_OF}.${suite}" "${SUITES_EXECUTABLE}" "--gtest_filter=${suite}.*")
  set_tests_properties("${SUITES_OF}.${suite}" PROPERTIES LABELS "${SUITES_LABEL}" TIMEOUT "${SUITES_TIMEOUT}")
endforeach()
