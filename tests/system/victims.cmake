# SPDX-License-Identifier: BSD-2-Clause
# Programs that are looked at from outside, with a shared library among them, and the tests that do so.
set(ORVCRASH_TESTS orvcrash_test orvcrash_input_test orvcrash_names_test)
foreach(test ${ORVCRASH_TESTS} gdb_printers_test)
  add_executable(${test} ${test}.cc)
  zeloo_link_test(${test} zeloo_static)
endforeach()

# A program that crashes for orvcrash: position-independent, with shared objects that lie beside it, and in one file at a
# fixed place. The paths of its sources are those in the tree, wherever that lies.
set(VICTIM_OPTIONS -O0 -g -fno-omit-frame-pointer -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)
add_library(tariff SHARED victim/tariff.cc)
add_executable(orderd victim/orderd.cc)
target_link_libraries(orderd PRIVATE zeloo tariff)
set_target_properties(orderd PROPERTIES
  POSITION_INDEPENDENT_CODE ON BUILD_WITH_INSTALL_RPATH ON INSTALL_RPATH $ORIGIN)
target_link_options(orderd PRIVATE -pie)
set(VICTIMS orderd tariff)
add_executable(orderd_static victim/orderd.cc victim/tariff.cc)
target_link_libraries(orderd_static PRIVATE zeloo_static)
target_link_options(orderd_static PRIVATE -no-pie)
list(APPEND VICTIMS orderd_static)
foreach(victim ${VICTIMS})
  target_include_directories(${victim} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_options(${victim} PRIVATE ${VICTIM_OPTIONS})
  if(ZELOO_SANITIZE) # which would stop what it commits
    target_compile_options(${victim} PRIVATE -fno-sanitize=all)
  endif()
  target_link_options(${victim} PRIVATE LINKER:--build-id)
endforeach()
foreach(test ${ORVCRASH_TESTS})
  zeloo_test_programs(${test} orvcrash)
  add_dependencies(${test} ${VICTIMS})
  target_compile_definitions(${test} PRIVATE ORDERD="$<TARGET_FILE:orderd>" TARIFF="$<TARGET_FILE:tariff>"
    LIBZELOO="$<TARGET_SONAME_FILE:zeloo>" ORDERD_STATIC="$<TARGET_FILE:orderd_static>"
    OPERATING="${PROJECT_SOURCE_DIR}/docs/operating.md" VICTIM_SOURCES="${PROJECT_SOURCE_DIR}/tests/system/victim/"
    VERSION="${PROJECT_VERSION}")
endforeach()

# A program with values for gdb to show, linked to either library.
foreach(values values values_static)
  add_executable(${values} victim/values.cc)
  target_include_directories(${values} PRIVATE ${PROJECT_SOURCE_DIR})
  target_compile_options(${values} PRIVATE -O0 -g)
endforeach()
target_link_libraries(values PRIVATE zeloo)
target_link_libraries(values_static PRIVATE zeloo_static)
add_dependencies(gdb_printers_test values values_static)
target_compile_definitions(gdb_printers_test PRIVATE VALUES="$<TARGET_FILE:values>"
  VALUES_STATIC="$<TARGET_FILE:values_static>" LIBZELOO="$<TARGET_FILE:zeloo>"
  PRINTERS="${PROJECT_SOURCE_DIR}/tools/gdb/zeloo.py" OPERATING="${PROJECT_SOURCE_DIR}/docs/operating.md")
if(CMAKE_BUILD_TYPE MATCHES "^(Release|MinSizeRel)$") # the library tells gdb nothing
  set_tests_properties(gdb_printers_test PROPERTIES DISABLED ON)
endif()
