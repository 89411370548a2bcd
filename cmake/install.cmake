# Installation: the shared library (with its SONAME links), the public
# headers, a pkg-config file and a CMake package exporting quelora::quelora.
#
#   cmake --install build [--prefix DIR]
#   find_package(quelora REQUIRED) ... target_link_libraries(app quelora::quelora)
#   pkg-config --cflags --libs quelora
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(QUELORA_INSTALL_CMAKEDIR "${CMAKE_INSTALL_LIBDIR}/cmake/quelora"
  CACHE STRING "Install directory of the CMake package files, relative to the prefix")
mark_as_advanced(QUELORA_INSTALL_CMAKEDIR)

install(TARGETS quelora
  EXPORT quelora-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/quelora"
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING PATTERN "*.h")

install(EXPORT quelora-targets
  NAMESPACE quelora::
  FILE quelora-targets.cmake
  DESTINATION "${QUELORA_INSTALL_CMAKEDIR}")

configure_package_config_file(
  "${CMAKE_CURRENT_LIST_DIR}/quelora-config.cmake.in"
  "${PROJECT_BINARY_DIR}/quelora-config.cmake"
  INSTALL_DESTINATION "${QUELORA_INSTALL_CMAKEDIR}")
write_basic_package_version_file(
  "${PROJECT_BINARY_DIR}/quelora-config-version.cmake"
  VERSION "${PROJECT_VERSION}"
  COMPATIBILITY SameMajorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/quelora-config.cmake"
  "${PROJECT_BINARY_DIR}/quelora-config-version.cmake"
  DESTINATION "${QUELORA_INSTALL_CMAKEDIR}")

# quelora.pc is written at install time so that it names the prefix actually
# installed to (cmake --install --prefix overrides CMAKE_INSTALL_PREFIX).
install(CODE "
  set(QUELORA_PC_LIBDIR \"${CMAKE_INSTALL_LIBDIR}\")
  set(QUELORA_PC_INCLUDEDIR \"${CMAKE_INSTALL_INCLUDEDIR}\")
  if(NOT IS_ABSOLUTE \"\${QUELORA_PC_LIBDIR}\")
    set(QUELORA_PC_LIBDIR \"\\\${exec_prefix}/\${QUELORA_PC_LIBDIR}\")
  endif()
  if(NOT IS_ABSOLUTE \"\${QUELORA_PC_INCLUDEDIR}\")
    set(QUELORA_PC_INCLUDEDIR \"\\\${prefix}/\${QUELORA_PC_INCLUDEDIR}\")
  endif()
  set(QUELORA_PC_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  set(PROJECT_VERSION \"${PROJECT_VERSION}\")
  configure_file(\"${CMAKE_CURRENT_LIST_DIR}/quelora.pc.in\"
                 \"${PROJECT_BINARY_DIR}/pkgconfig-install/quelora.pc\" @ONLY)
")
install(FILES "${PROJECT_BINARY_DIR}/pkgconfig-install/quelora.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
