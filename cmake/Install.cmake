# Installation: the library, its headers, a CMake package and a pkg-config
# file.
include(CMakePackageConfigHelpers)

install(TARGETS tesselzostream EXPORT tesselzostreamTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/tesselzostream DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT tesselzostreamTargets
  NAMESPACE tesselzostream::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tesselzostream)

configure_package_config_file(cmake/tesselzostreamConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/tesselzostreamConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tesselzostream)
write_basic_package_version_file(
  ${CMAKE_CURRENT_BINARY_DIR}/tesselzostreamConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/tesselzostreamConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/tesselzostreamConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tesselzostream)

# The pkg-config file finds its prefix from its own place, so an install
# with `cmake --install --prefix` elsewhere stays correct.
file(RELATIVE_PATH TZ_PC_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(cmake/tesselzostream.pc.in ${CMAKE_CURRENT_BINARY_DIR}/tesselzostream.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/tesselzostream.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The command-line tool and its manual page.
if(TARGET tzcf)
  install(TARGETS tzcf RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES tools/tzcf/tzcf.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endif()
