include(CMakePackageConfigHelpers)

foreach(library kespal kesos pcaplib)
  install(DIRECTORY ${library}/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
endforeach()
install(TARGETS kespal kesos pcaplib EXPORT kes)
install(TARGETS kestrace)
install(FILES docs/man/kestrace.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

set(packageDir ${CMAKE_INSTALL_LIBDIR}/cmake/kes)
install(EXPORT kes NAMESPACE kes:: DESTINATION ${packageDir})
configure_package_config_file(cmake/kes-config.cmake.in ${CMAKE_BINARY_DIR}/kes-config.cmake
  INSTALL_DESTINATION ${packageDir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/kes-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/kes-config.cmake ${CMAKE_BINARY_DIR}/kes-config-version.cmake
  DESTINATION ${packageDir})
