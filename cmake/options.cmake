# SPDX-License-Identifier: BSD-2-Clause
# Compiler options of everything that is built here; a project that includes this one keeps its own.
add_compile_options(-Wall -Wextra -Wpedantic -fno-omit-frame-pointer) # frame pointers: the call trace of a crash file
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
