# SPDX-License-Identifier: BSD-2-Clause
# Run by CPack on what is about to become a package: the debugging symbols of programs and shared libraries become packages
# of their own, those of static libraries go.
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
  execute_process(COMMAND ${CPACK_ZELOO_STRIP} --strip-debug --enable-deterministic-archives ${archive}
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
