# SPDX-License-Identifier: BSD-2-Clause
# What `cmake --install` puts in place: both libraries, the public headers, System V's headers for programs that
# move, the CMake package, the pkg-config files, and what the programs need of a host. The programs of tools/ install
# themselves. Each Debian package is a component: runtime, development, common, tools, examples and fleet (packages.cmake); what
# names none here is for development.
include(CMakePackageConfigHelpers)

set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME development)
set(ZELOO_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/zeloo)

set(ZELOO_LIBRARIES zeloo zeloo_static zeloo_moved zeloo_moved_static)
install(TARGETS ${ZELOO_LIBRARIES} EXPORT zelooTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
file(GLOB ZELOO_PUBLIC_HEADERS CONFIGURE_DEPENDS Misc/*.h) # what is private lies in folders
install(FILES ${ZELOO_PUBLIC_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zeloo/Misc)
install(DIRECTORY compat/include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zeloo-svr4)

install(EXPORT zelooTargets NAMESPACE zeloo:: DESTINATION ${ZELOO_PACKAGE_DIR})
configure_package_config_file(cmake/zelooConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/zelooConfig.cmake
  INSTALL_DESTINATION ${ZELOO_PACKAGE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zelooConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zelooConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zelooConfigVersion.cmake
  DESTINATION ${ZELOO_PACKAGE_DIR})

# The pkg-config files find their prefix from their own place, so that the installation can be moved.
file(RELATIVE_PATH ZELOO_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
foreach(name zeloo zeloo-svr4)
  configure_file(cmake/${name}.pc.in ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${name}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endforeach()

# For the host: the user and the group, the directories, the size of the queues, the services. systemd looks for these in
# lib/ of /usr and of /usr/local alike, whatever the directory of the libraries is called.
function(zeloo_install_unit name)
  configure_file(packaging/${name}.service.in ${CMAKE_CURRENT_BINARY_DIR}/packaging/${name}.service @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/packaging/${name}.service DESTINATION lib/systemd/system ${ARGN})
endfunction()
install(FILES packaging/zeloo.sysusers DESTINATION lib/sysusers.d RENAME zeloo.conf COMPONENT common)
install(FILES packaging/zeloo.tmpfiles DESTINATION lib/tmpfiles.d RENAME zeloo.conf COMPONENT common)
install(FILES packaging/zeloo.sysctl DESTINATION lib/sysctl.d RENAME 30-zeloo.conf COMPONENT common)
zeloo_install_unit(relayd COMPONENT tools)

# The examples are built by who reads them; only a package has them ready to run.
if(ZELOO_EXAMPLES)
  install(TARGETS faultd faultctl hello_server hello_client RUNTIME COMPONENT examples EXCLUDE_FROM_ALL)
  install(FILES docs/man/faultctl.1 docs/man/hello_client.1 docs/man/hello_server.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT examples EXCLUDE_FROM_ALL)
  install(FILES docs/man/faultd.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT examples EXCLUDE_FROM_ALL)
  install(FILES packaging/zeloo-examples.tmpfiles DESTINATION lib/tmpfiles.d RENAME zeloo-examples.conf
    COMPONENT examples EXCLUDE_FROM_ALL)
  zeloo_install_unit(faultd COMPONENT examples EXCLUDE_FROM_ALL)
endif()

# The programs of many hosts are a package's, too. The name credentials is too common for a directory of all programs.
if(TARGET zeloo_fleet)
  install(TARGETS faultgate faultcentre faultfleet RUNTIME COMPONENT fleet EXCLUDE_FROM_ALL)
  install(PROGRAMS fleet/credentials DESTINATION ${CMAKE_INSTALL_BINDIR} RENAME faultcredentials
    COMPONENT fleet EXCLUDE_FROM_ALL)
  install(FILES docs/man/faultgate.8 docs/man/faultcentre.8 docs/man/faultfleet.8 docs/man/faultcredentials.8
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT fleet EXCLUDE_FROM_ALL)
  install(FILES packaging/zeloo-fleet.sysusers DESTINATION lib/sysusers.d RENAME zeloo-fleet.conf
    COMPONENT fleet EXCLUDE_FROM_ALL)
  install(FILES packaging/zeloo-fleet.tmpfiles DESTINATION lib/tmpfiles.d RENAME zeloo-fleet.conf
    COMPONENT fleet EXCLUDE_FROM_ALL)
  foreach(service faultgate faultcentre faultengine)
    zeloo_install_unit(${service} COMPONENT fleet EXCLUDE_FROM_ALL)
  endforeach()
endif()
