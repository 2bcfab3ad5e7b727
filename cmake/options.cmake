# SPDX-License-Identifier: BSD-2-Clause
# Compiler options of everything that is built here; a project that includes this one keeps its own.
add_compile_options(-Wall -Wextra -Wpedantic -fno-omit-frame-pointer) # frame pointers: the call trace of a crash file
if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  add_compile_options(-mno-omit-leaf-frame-pointer) # there a function that calls none would do without a frame
endif()
# Sizes of files and times have 64 bits on every host. No public header has such a type: programs choose for themselves.
add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(ZELOO_WERROR)
  add_compile_options(-Werror)
endif()
if(ZELOO_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
if(ZELOO_COVERAGE)
  add_compile_options(--coverage)
  add_link_options(--coverage)
endif()
if(ZELOO_FUZZ) # clang only
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
endif()
