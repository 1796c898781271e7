# Installs the library, its headers and a CMake package, so that an installed prefix works
# with find_package(DorvikCore).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS DorvikCore EXPORT DorvikCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# dkhost, the generic plug-in host, so that a plug-in author runs a module from the installed
# prefix: <prefix>/bin/dkhost /osxpath:<folder of the module>.
# It finds the library relative to itself.
if(TARGET dkhost)
  file(RELATIVE_PATH dk_bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(dkhost PROPERTIES INSTALL_RPATH "$ORIGIN/${dk_bin_to_lib}")
  install(TARGETS dkhost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/DorvikCore DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT DorvikCoreTargets
  NAMESPACE DorvikCore::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DorvikCore)

configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/DorvikCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/DorvikCoreConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DorvikCore)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/DorvikCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_SOURCE_DIR}/cmake/DorvikCorePlugIn.cmake
  ${PROJECT_BINARY_DIR}/DorvikCoreConfig.cmake
  ${PROJECT_BINARY_DIR}/DorvikCoreConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DorvikCore)
