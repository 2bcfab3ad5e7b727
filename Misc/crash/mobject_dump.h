// The hex dump of a crash file. Internal to the library.
#ifndef MISC_MOBJECT_DUMP_H
#define MISC_MOBJECT_DUMP_H

#include <cstdint>
#include <ostream>

/// Writes the memory from `address` on, a header line under `label` first and then a line for every 16 bytes.
/// Rows equal to the row before them (to 16 zero bytes for the first) are only counted; their number stands on a
/// line of its own before the next row that differs. When the region ends among such rows, that line is followed by
/// the row just past the region, shown as zero bytes where there is no memory to read. `length` is a multiple of 16.
/// REQUIRES: the region is mapped readable.
void dumpmem(uintptr_t address, unsigned long length, const char* label, std::ostream& file);

#endif
