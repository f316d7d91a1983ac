# Tests of a room, told apart by the end of their file name:
#   NAME_test.cpp           label unit      no root, no network
#   NAME_loopback_test.cpp  label loopback  real libcurl, sockets on loopback, port 0
#   NAME_root_test.cpp      label root      uid 0; every test in a private mount and network namespace
#   NAME_lab_test.cpp       label lab       the private domain; one lab for all tests of the room
# One executable per room and label, one test of ctest's per suite of it, in the lab one for the whole. LAB_WITH names the
# extras of the room's lab, "mit" where nothing is said. FOLDERS names the folders whose tests/ belong to the room.

set(FERRO_TEST_LABELS "unit;loopback;root;lab" CACHE STRING "Which tests to build, by label")

option(FERRO_TEST_ONLY_THREADED "Build only the tests that use threads" OFF)
option(FERRO_TEST_ONLY_UNSANITIZED "Of unit and loopback tests, build only those that say less under a sanitizer" OFF)
option(FERRO_TEST_PCH "Parse only once what most tests include" OFF)

if(FERRO_TESTS AND FERRO_TEST_PCH)
  # The owner is an executable, so that its flags are the tests'.
  file(WRITE "${CMAKE_BINARY_DIR}/ferro_test_pch.cpp" "int main() {}\n")
  add_executable(ferro_test_pch "${CMAKE_BINARY_DIR}/ferro_test_pch.cpp")
  target_link_libraries(ferro_test_pch PRIVATE ferro_flags GTest::gmock GTest::gtest)
  set_target_properties(ferro_test_pch PROPERTIES FERRO_TEST ON)
  target_precompile_headers(ferro_test_pch PRIVATE
    <gmock/gmock.h> <gtest/gtest.h> <boost/shared_ptr.hpp> <atomic> <chrono> <condition_variable> <functional> <map>
    <memory> <mutex> <string> <thread> <vector>)
endif()

# Of the list's sources, leaves those in which a line fits the expression.
function(ferro_keep_fitting list expression)
  set(kept)
  foreach(source ${${list}})
    file(STRINGS "${source}" lines LIMIT_COUNT 1 REGEX "${expression}")
    if(lines)
      list(APPEND kept "${source}")
    endif()
  endforeach()
  set(${list} ${kept} PARENT_SCOPE)
endfunction()

function(ferro_room_tests room)
  if(NOT FERRO_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "" "LAB_WITH" "LIBS;FOLDERS" ${ARGN})
  if(NOT ARG_LAB_WITH)
    set(ARG_LAB_WITH mit)
  endif()
  if(NOT ARG_FOLDERS)
    set(ARG_FOLDERS .)
  endif()
  list(TRANSFORM ARG_FOLDERS REPLACE "(.+)" "${CMAKE_CURRENT_SOURCE_DIR}/\\1/tests/*_test.cpp" OUTPUT_VARIABLE patterns)
  file(GLOB all CONFIGURE_DEPENDS ${patterns})
  if(FERRO_TEST_ONLY_THREADED)
    ferro_keep_fitting(all
      "#include <(thread|future)>|#include \".*(run_queue|agent_in_force|local_rpc_server|kerberos_request).*\"")
  endif()
  foreach(label ${FERRO_TEST_LABELS})
    set(sources ${all})
    if(label STREQUAL "unit")
      list(FILTER sources EXCLUDE REGEX "_(loopback|root|lab)_test\\.cpp$")
    else()
      list(FILTER sources INCLUDE REGEX "_${label}_test\\.cpp$")
    endif()
    if(FERRO_TEST_ONLY_UNSANITIZED AND label MATCHES "^(unit|loopback)$")
      ferro_keep_fitting(sources "#include \"testsupport/sanitizers.h\"")
    endif()
    if(sources)
      ferro_test_executable(${room}_${label}_test ${label} "${sources}" "${ARG_LIBS}" "${ARG_LAB_WITH}")
    endif()
  endforeach()
endfunction()

# The lab of this test finds the platform simulator of this build.
function(ferro_lab_platform test)
  set_property(TEST ${test} APPEND PROPERTY
    ENVIRONMENT "FERRO_PLATFORM_SIMULATOR=$<TARGET_FILE:platform_simulator>")
endfunction()

function(ferro_test_executable name label sources libs lab_with)
  add_executable(${name} ${sources})
  target_link_libraries(${name} PRIVATE ${libs} ferro_testsupport_${label} GTest::gmock GTest::gtest)
  set_target_properties(${name} PROPERTIES FERRO_TEST ON)
  if(FERRO_TEST_PCH)
    target_precompile_headers(${name} REUSE_FROM ferro_test_pch)
  endif()
  if(label STREQUAL "lab")
    add_test(NAME ${name} COMMAND "${PROJECT_SOURCE_DIR}/lab/lab" run --with=${lab_with} -- $<TARGET_FILE:${name}>)
    # The limits in time only end what hangs: on a busy machine a test may take ten times as long as on an idle one.
    # They mostly wait: begun first, they do so beside the others.
    set_tests_properties(${name} PROPERTIES LABELS lab TIMEOUT 1200 COST 100)
    if(lab_with MATCHES "(^|,)platform(,|$)")
      ferro_lab_platform(${name})
      add_dependencies(${name} platform_simulator)
    endif()
  else()
    set(suites "${CMAKE_CURRENT_BINARY_DIR}/${name}.suites.cmake")
    file(GENERATE OUTPUT "${suites}" CONTENT "set(SUITES_OF ${name})
set(SUITES_EXECUTABLE \"$<TARGET_FILE:${name}>\")
set(SUITES_LABEL ${label})
set(SUITES_TIMEOUT 600)
include(\"${PROJECT_SOURCE_DIR}/cmake/FerroSuites.cmake\")
")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${suites}")
  endif()
endfunction()

# A test in Python: unit, no root, no network. The script gets the root of the tree and the further arguments. Such tests
# judge texts and the installation, to which sanitizers add nothing.
function(ferro_python_test name script)
  if(FERRO_SANITIZE)
    return()
  endif()
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  add_test(NAME ${name}
           COMMAND ${Python3_EXECUTABLE} -B "${CMAKE_CURRENT_SOURCE_DIR}/${script}" "${PROJECT_SOURCE_DIR}" ${ARGN})
  # Some compile or start hundreds of processes: begun first, they are not what one waits for at the end.
  set_tests_properties(${name} PROPERTIES LABELS unit TIMEOUT 600 COST 50)
endfunction()
