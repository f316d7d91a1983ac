# Installs the public headers below the include folder, by their paths in the tree. Which these are is found when they
# are installed: so no list lags behind an #include.
cmake_policy(VERSION 3.25)

file(GLOB open RELATIVE "${FERRO_SOURCES}" "${FERRO_SOURCES}/cloud/include/*.h")
list(APPEND open basalt/ad_agent.h basalt/kerberos_abandoned.h basalt/run_queue.h base/include/logger.h
     base/include/printable.h)
set(headers)
while(open)
  list(POP_FRONT open header)
  if(header IN_LIST headers)
    continue()
  endif()
  list(APPEND headers "${header}")
  file(STRINGS "${FERRO_SOURCES}/${header}" lines REGEX "^#include \"")
  list(TRANSFORM lines REPLACE "^#include \"([^\"]+)\".*" "\\1")
  list(APPEND open ${lines})
endwhile()

set(root "${FERRO_INCLUDE_FOLDER}")
if(NOT IS_ABSOLUTE "${root}")
  set(root "${CMAKE_INSTALL_PREFIX}/${root}")
endif()
foreach(header ${headers})
  get_filename_component(folder "${header}" DIRECTORY)
  file(INSTALL DESTINATION "${root}/${folder}" TYPE FILE FILES "${FERRO_SOURCES}/${header}")
endforeach()
