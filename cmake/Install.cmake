# Install rules: the two shared libraries, their headers under one include
# root (<includedir>/mica-mpls), a CMake package with namespaced targets
# (MicaMpls::SwTable, MicaMpls::Platform) and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS MicaPlatform MicaMplsSwBundleSwTable
  EXPORT MicaMplsTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${MICA_INCLUDE_SUBDIR})

foreach(root platform OrderedTable MicaMpls)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/${root}
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${MICA_INCLUDE_SUBDIR}
    FILES_MATCHING PATTERN "*.h")
endforeach()

set(MICA_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/MicaMpls)
install(EXPORT MicaMplsTargets
  NAMESPACE MicaMpls::
  DESTINATION ${MICA_CMAKE_DIR})
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/MicaMplsConfig.cmake.in
  ${PROJECT_BINARY_DIR}/MicaMplsConfig.cmake
  INSTALL_DESTINATION ${MICA_CMAKE_DIR})
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/MicaMplsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/MicaMplsConfig.cmake
  ${PROJECT_BINARY_DIR}/MicaMplsConfigVersion.cmake
  DESTINATION ${MICA_CMAKE_DIR})

# The pkg-config file finds its prefix relative to itself, so an install
# into another prefix (cmake --install --prefix) still works.
file(RELATIVE_PATH MICA_PC_PREFIX_FROM_PCDIR
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(${PROJECT_SOURCE_DIR}/cmake/mica-mpls.pc.in
  ${PROJECT_BINARY_DIR}/mica-mpls.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/mica-mpls.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
