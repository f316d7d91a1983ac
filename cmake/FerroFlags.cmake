# Compiler and linker flags of every target of the tree, as one interface library.

option(FERRO_TESTS "Build the tests" ON)
option(FERRO_BENCH "Build the benchmarks" OFF)
option(FERRO_FUZZ "Build the fuzz targets (clang only)" OFF)
option(FERRO_COVERAGE "Instrument for line coverage" OFF)
# Of the presets for developers and CI. Whoever builds a release may have a compiler that warns of more.
option(FERRO_WERROR "Treat warnings as errors" OFF)
set(FERRO_TEST_FLAGS "" CACHE STRING "Further compiler flags of the tests' own sources: of targets with the property FERRO_TEST")
set(FERRO_SANITIZE "" CACHE STRING "Sanitizers, comma separated: address,undefined or thread")

# A changed compiler makes CMake forget what the preset said: such a build would have no sanitizers and tell nobody.
if(NOT CMAKE_BUILD_TYPE)
  message(FATAL_ERROR "No build type: configure with a preset, and a build folder of another compiler with --fresh")
endif()

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CCACHE_PROGRAM}")
endif()

# Every library lies where the loader looks by itself. With the path that CMake would write, for Kerberos' folder, a
# program of the build folder begins with over a hundred failed opens, some of them in the folder where it is started.
set(CMAKE_SKIP_RPATH ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

add_library(ferro_flags INTERFACE)
target_include_directories(ferro_flags INTERFACE "${PROJECT_SOURCE_DIR}")
target_compile_options(ferro_flags INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${FERRO_WERROR}>:-Werror> $<$<CXX_COMPILER_ID:Clang>:-Wreserved-identifier>
  -fstack-protector-strong -fstack-clash-protection
  # File names in exceptions and log records are relative to the tree, wherever it was built.
  # ccache may have made them relative to the build folder.
  "-fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=" -fmacro-prefix-map=../../=)
target_link_options(ferro_flags INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

if(FERRO_SANITIZE)
  target_compile_options(ferro_flags INTERFACE "-fsanitize=${FERRO_SANITIZE}" -fno-omit-frame-pointer
                         -fno-sanitize-recover=all
                         # g++ 12 takes its own <regex> for uninitialised once it is instrumented.
                         $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(ferro_flags INTERFACE "-fsanitize=${FERRO_SANITIZE}")
else()
  # _FORTIFY_SOURCE and the sanitizers' interceptors do not go together.
  # Undefined first: some compilers (Ubuntu's) and packagers' flags define it already, with the same or another value.
  target_compile_options(ferro_flags INTERFACE "$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
endif()

if(FERRO_COVERAGE)
  # Nobody reads what would be counted in the system's headers and in the tests themselves.
  target_compile_options(ferro_flags INTERFACE
    "$<$<NOT:$<BOOL:$<TARGET_PROPERTY:FERRO_TEST>>>:--coverage;-fprofile-update=atomic;-fprofile-exclude-files=^/usr/|/tests/|/testsupport/>")
  target_link_options(ferro_flags INTERFACE --coverage)
endif()

set(is_test "$<BOOL:$<TARGET_PROPERTY:FERRO_TEST>>")
if(FERRO_FUZZ)
  target_compile_options(ferro_flags INTERFACE $<$<NOT:${is_test}>:-fsanitize=fuzzer-no-link>
                         "-fsanitize-ignorelist=${PROJECT_SOURCE_DIR}/tools/sanitizer-ignore.txt")
endif()
# Last, so that they win.
target_compile_options(ferro_flags INTERFACE "$<${is_test}:${FERRO_TEST_FLAGS}>")
