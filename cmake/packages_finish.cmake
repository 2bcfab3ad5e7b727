# SPDX-License-Identifier: BSD-2-Clause
# Run by CPack on what is about to become a package: the debugging symbols of programs and shared libraries become packages
# of their own, those of static libraries go. Manual pages are compressed.
file(GLOB_RECURSE archives ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.a)
foreach(archive IN LISTS archives)
  execute_process(COMMAND ${CPACK_ZELOO_STRIP} --strip-debug --enable-deterministic-archives ${archive}
    COMMAND_ERROR_IS_FATAL ANY)
endforeach()
file(GLOB_RECURSE pages ${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*.[1-9])
list(FILTER pages INCLUDE REGEX "/share/man/")
foreach(page IN LISTS pages)
  if(CPACK_ZELOO_GZIP)
    execute_process(COMMAND ${CPACK_ZELOO_GZIP} -9n ${page} COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
