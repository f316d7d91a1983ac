# Start-up of the tool: most of a short run is the dynamic loader, which walks the libraries from the first to the last
# for every symbol. HACKING.md, "Where the time goes", has the figures. What an agent links is left as it is.

option(FERRO_FAST_START "Link the tool so that it starts fast; compiling takes some seconds more" OFF)

function(ferro_fast_start program)
  if(NOT FERRO_FAST_START)
    return()
  endif()
  # First who is asked most. Nearly everybody asks the C library. libcrypto asks over 3,000 times for what is its own;
  # it is libcurl that needs it, and what libraries need in turn would stand behind all that are named here.
  set(first -lc)
  pkg_check_modules(CRYPTO QUIET libcrypto)
  if(CRYPTO_FOUND AND "crypto" IN_LIST CURL_STATIC_LIBRARIES)
    list(APPEND first ${CRYPTO_LINK_LIBRARIES})
  endif()
  list(JOIN first "," first)
  target_link_options(${program} PRIVATE
    "-Wl,--push-state,--no-as-needed,${first},--pop-state"
    -static-libstdc++ -static-libgcc -Wl,--gc-sections -Wl,--as-needed)
  # Its own copy of the units that know spdlog, with spdlog and fmt compiled in: nothing else needs the two libraries.
  # Linked in front of basalt, so that the archive's copy stays there.
  target_sources(${program} PRIVATE
    ${PROJECT_SOURCE_DIR}/basalt/logging.cpp ${PROJECT_SOURCE_DIR}/basalt/logging_sinks.cpp)
  target_compile_definitions(${program} PRIVATE SPDLOG_FMT_EXTERNAL FMT_HEADER_ONLY)
endfunction()
