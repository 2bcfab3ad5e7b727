# SPDX-License-Identifier: BSD-2-Clause
# Read by CPack before it makes packages: the units and the maintainer scripts of a package name paths below /usr.
if(CPACK_GENERATOR STREQUAL "DEB" AND NOT CPACK_ZELOO_PREFIX STREQUAL "/usr")
  message(FATAL_ERROR "A Debian package wants the prefix /usr, and this build has ${CPACK_ZELOO_PREFIX}: "
    "use `cmake --preset packages`, or -DCMAKE_INSTALL_PREFIX=/usr")
endif()
