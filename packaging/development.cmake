# What the programmer of an agent gets: headers, static libraries, a CMake package and a pkg-config file. ARCHITECTURE.md
# says what an agent uses. Component "dev".

include(CMakePackageConfigHelpers)

set(FERRO_INCLUDE_FOLDER "${CMAKE_INSTALL_INCLUDEDIR}/ferrogate")
set(FERRO_PACKAGE_FOLDER "${CMAKE_INSTALL_LIBDIR}/cmake/ferrogate")

set_target_properties(ferro_cloud PROPERTIES EXPORT_NAME cloud)
set_target_properties(ferro_base PROPERTIES EXPORT_NAME base)
foreach(library ferro_cloud basalt ferro_base)
  target_compile_features(${library} INTERFACE $<INSTALL_INTERFACE:cxx_std_17>)
endforeach()
install(TARGETS ferro_cloud basalt ferro_base EXPORT ferrogate
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT dev
        INCLUDES DESTINATION "${FERRO_INCLUDE_FOLDER}")
install(EXPORT ferrogate NAMESPACE ferrogate:: FILE ferrogateTargets.cmake DESTINATION "${FERRO_PACKAGE_FOLDER}"
        COMPONENT dev)

# The headers are those that an agent includes, and what these include of ours.
install(CODE "set(FERRO_SOURCES \"${PROJECT_SOURCE_DIR}\")
set(FERRO_INCLUDE_FOLDER \"${FERRO_INCLUDE_FOLDER}\")" COMPONENT dev)
install(SCRIPT install_headers.cmake COMPONENT dev)

list(TRANSFORM FERRO_MODULES REPLACE "(.+)" "\"\\1\"" OUTPUT_VARIABLE FERRO_MODULES_QUOTED)
list(JOIN FERRO_MODULES_QUOTED " " FERRO_MODULES_QUOTED)
configure_package_config_file(ferrogateConfig.cmake.in "${CMAKE_CURRENT_BINARY_DIR}/ferrogateConfig.cmake"
                              INSTALL_DESTINATION "${FERRO_PACKAGE_FOLDER}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/ferrogateConfigVersion.cmake"
                                 COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/ferrogateConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/ferrogateConfigVersion.cmake"
        DESTINATION "${FERRO_PACKAGE_FOLDER}" COMPONENT dev)

# The prefix is found from where the file lies, so that --prefix and a moved tree work.
file(RELATIVE_PATH FERRO_PREFIX_FROM_PC "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" FERRO_PREFIX_FROM_PC "${FERRO_PREFIX_FROM_PC}")
list(TRANSFORM FERRO_MODULES REPLACE "^[A-Z0-9]+ " "" OUTPUT_VARIABLE FERRO_REQUIRES)
list(JOIN FERRO_REQUIRES " " FERRO_REQUIRES)
configure_file(ferrogate-cloud.pc.in "${CMAKE_CURRENT_BINARY_DIR}/ferrogate-cloud.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/ferrogate-cloud.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig"
        COMPONENT dev)
