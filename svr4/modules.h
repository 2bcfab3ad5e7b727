// SPDX-License-Identifier: BSD-2-Clause
// The program and the shared objects of this process: where each was loaded, and how its file is known again.
#ifndef SVR4_MODULES_H
#define SVR4_MODULES_H

#include <cstddef>
#include <cstdint>

namespace svr4 {

/// One of them. An address of it, less `bias`, is the address that its file gives to the same place.
struct Module {
    const Module* next;  // null behind the last
    uintptr_t low, high; // the memory that it takes: from `low` on, below `high`
    uintptr_t bias;      // 0 for a program that is not position-independent
    const unsigned char* buildId;
    size_t buildIdLength; // bytes; 0 when the file has none
    const char* path;     // as far as it is known absolute and without links
};

/// What keep_modules has found: `count` modules, the program first.
struct ModuleList {
    const Module* first;
    unsigned long count;
};

/// Notes the modules of the process for kept_modules. While none has come or gone since the last call it makes no system
/// call. Of what does not fit into a megabyte only the number is kept; without memory, what was noted before stays. Not for
/// handlers: it takes a lock of the loader.
void keep_modules();

/// The modules as last noted; none before. Usable in a handler. The list is read-only memory, valid until keep_modules has
/// noted another one twice.
ModuleList kept_modules();

} // namespace svr4

#endif
