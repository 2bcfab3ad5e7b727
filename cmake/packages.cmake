# SPDX-License-Identifier: BSD-2-Clause
# The Debian packages: `cpack -G DEB` in a build with the prefix /usr (the preset "packages"). scripts/build-packages makes
# them as a distribution would. docs/packaging.md tells what is in each.
set(ZELOO_PACKAGER "The libzeloo authors <authors@libzeloo.invalid>" CACHE STRING "The maintainer that packages name")
mark_as_advanced(ZELOO_PACKAGER)

set(CPACK_GENERATOR DEB)
set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/packages_check.cmake)
set(CPACK_ZELOO_PREFIX ${CMAKE_INSTALL_PREFIX}) # for that file
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_PACKAGE_NAME zeloo)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(CPACK_PACKAGE_CONTACT ${ZELOO_PACKAGER})
set(CPACK_RESOURCE_FILE_LICENSE ${PROJECT_SOURCE_DIR}/LICENSE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON) # strips, and makes packages of what a core image or a crash file is read with
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/packages_finish.cmake)
set(CPACK_ZELOO_STRIP ${CMAKE_STRIP})
set(CPACK_COMPONENTS_ALL common runtime development tools)
if(ZELOO_EXAMPLES)
  list(APPEND CPACK_COMPONENTS_ALL examples)
endif()
if(TARGET zeloo_fleet)
  list(APPEND CPACK_COMPONENTS_ALL fleet)
endif()
set(CPACK_COMPONENTS_GROUPING IGNORE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(ZELOO_SAME_VERSION "(= ${PROJECT_VERSION})")

find_program(ZELOO_GZIP gzip)
mark_as_advanced(ZELOO_GZIP)
set(CPACK_ZELOO_GZIP ${ZELOO_GZIP})

# zeloo_package(COMPONENT NAME SECTION SYNOPSIS DESCRIPTION): the text's lines end in \n.
function(zeloo_package component name section synopsis description)
  string(TOUPPER ${component} key)
  set(CPACK_DEBIAN_${key}_PACKAGE_NAME ${name} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_DEBIAN_${key}_DESCRIPTION "${synopsis}\n${description}" PARENT_SCOPE)

  set(documents ${CMAKE_INSTALL_DATAROOTDIR}/doc/${name})
  install(FILES LICENSE DESTINATION ${documents} RENAME copyright COMPONENT ${component} EXCLUDE_FROM_ALL)
  set(changelog ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.gz)
  if(ZELOO_GZIP)
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS packaging/changelog)
    execute_process(COMMAND ${ZELOO_GZIP} -9nc ${PROJECT_SOURCE_DIR}/packaging/changelog OUTPUT_FILE ${changelog})
    install(FILES ${changelog} DESTINATION ${documents} COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()

  set(overrides packaging/${name}.lintian-overrides)
  if(EXISTS ${PROJECT_SOURCE_DIR}/${overrides})
    install(FILES ${overrides} DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides RENAME ${name}
      COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()

  set(scripts)
  foreach(script postinst prerm postrm)
    if(EXISTS ${PROJECT_SOURCE_DIR}/packaging/${name}.${script})
      set(file ${CMAKE_CURRENT_BINARY_DIR}/packaging/${name}/${script})
      configure_file(packaging/${name}.${script} ${file} COPYONLY)
      list(APPEND scripts ${file})
    endif()
  endforeach()
  if(component STREQUAL runtime)
    set(directory ${CMAKE_CURRENT_BINARY_DIR}/packaging/${name})
    file(WRITE ${directory}/shlibs "libzeloo ${PROJECT_VERSION_MAJOR} ${name} (>= ${PROJECT_VERSION})\n")
    file(WRITE ${directory}/triggers "activate-noawait ldconfig\n")
    list(APPEND scripts ${directory}/shlibs ${directory}/triggers)
  endif()
  set(CPACK_DEBIAN_${key}_PACKAGE_CONTROL_EXTRA ${scripts} PARENT_SCOPE)
endfunction()

zeloo_package(common zeloo-common libs "fault-management library - user, directories and queue sizes"
"Servers built on libzeloo run as the user orv. This package makes it, the\n\
directories /opt/orv/bin for the key files of servers and /var/orv/data for\n\
faults, logs and crash files, and lets message queues hold what servers want.")
set(CPACK_DEBIAN_COMMON_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_COMMON_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_COMMON_PACKAGE_DEPENDS adduser)

zeloo_package(runtime libzeloo${PROJECT_VERSION_MAJOR} libs "fault-management library - shared library"
"What cooperating daemons and command-line programs share: strings, object\n\
streams, reports, crash files, child processes with time limits, lock files,\n\
and events with answers over System V message queues and TCP. Programs written\n\
for System V Release 4 move to Linux by recompiling against it.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "zeloo-common ${ZELOO_SAME_VERSION}")

zeloo_package(development libzeloo-dev libdevel "fault-management library - development files"
"The headers, the static library, the CMake package and the pkg-config file of\n\
libzeloo, and the sources of its example programs.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libzeloo${PROJECT_VERSION_MAJOR} ${ZELOO_SAME_VERSION}")
install(DIRECTORY examples/ DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/libzeloo-dev/examples
  COMPONENT development EXCLUDE_FROM_ALL)

zeloo_package(tools zeloo-tools net "fault-management library - programs for operators"
"What a running system of servers built on libzeloo needs, such as relayd, which\n\
passes on events from clients on other hosts to the servers of its host.")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "zeloo-common ${ZELOO_SAME_VERSION}")
set(CPACK_DEBIAN_TOOLS_PACKAGE_RECOMMENDS netbase) # /etc/services

zeloo_package(examples zeloo-examples misc "fault-management library - example daemon and client"
"A fault daemon, faultd, which keeps faults with their states and attachments\n\
and runs commands for them, its client faultctl, and the smallest server and\n\
client.")
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_DEPENDS "zeloo-common ${ZELOO_SAME_VERSION}")
set(CPACK_DEBIAN_EXAMPLES_PACKAGE_SUGGESTS libzeloo-dev)

# nats-server is for the few hosts that are servers of the engine; its installation starts a service of its own, which is
# no business of the others. zeloo-examples has faultd, whose changes a gate passes on, and faultctl.
zeloo_package(fleet zeloo-fleet net "fault-management library - faults of many hosts"
"Brings the faults of many hosts together, under NATS JetStream: faultgate passes\n\
on the changes that faultd keeps on its host, faultcentre shows the faults of\n\
all hosts, and faultfleet and faultcredentials set the servers up and say who\n\
gets in. It has services for them and for nats-server.")
set(CPACK_DEBIAN_FLEET_PACKAGE_DEPENDS "adduser, zeloo-common ${ZELOO_SAME_VERSION}")
set(CPACK_DEBIAN_FLEET_PACKAGE_RECOMMENDS "openssl, zeloo-examples ${ZELOO_SAME_VERSION}")
set(CPACK_DEBIAN_FLEET_PACKAGE_SUGGESTS nats-server)

include(CPack)
