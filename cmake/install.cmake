# SPDX-License-Identifier: BSD-2-Clause
# What `cmake --install` puts in place: both libraries, the public headers, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)

set(ZELOO_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zeloo)

install(TARGETS zeloo zeloo_static EXPORT zelooTargets)
file(GLOB ZELOO_PUBLIC_HEADERS CONFIGURE_DEPENDS Misc/*.h) # what is private lies in folders
install(FILES ${ZELOO_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zeloo/Misc)

install(EXPORT zelooTargets NAMESPACE zeloo:: DESTINATION ${ZELOO_PACKAGE_DIR})
configure_package_config_file(cmake/zelooConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/zelooConfig.cmake
  INSTALL_DESTINATION ${ZELOO_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelooConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelooConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zelooConfigVersion.cmake
  DESTINATION ${ZELOO_PACKAGE_DIR})

# The pkg-config file finds its prefix from its own place, so that the installation can be moved.
file(RELATIVE_PATH ZELOO_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/zeloo.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zeloo.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zeloo.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
