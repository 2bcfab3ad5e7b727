// SPDX-License-Identifier: BSD-2-Clause
// The stack dump and the hex dump of a crash file.
#ifndef MISC_CRASH_STACKDUMP_H
#define MISC_CRASH_STACKDUMP_H

#include <cstdint>
#include <ostream>

namespace zeloo {

/// Writes the registers of what the signal interrupted, its chain of frames, and the hex dump of its stack from the
/// stack pointer to some way above the frame pointer, as far as they lie in one readable stack. Of more than `mostFrames`
/// frames the innermost and the outermost are written, with a line between them that counts the others. For a handler
/// of svr4::capture_signal.
void dumpstack(std::ostream& file, unsigned long mostFrames);

/// Writes the memory from `address` on, a header line under `label` first and then a line for every row. Rows equal to
/// the row before them (to zero bytes for the first) are only counted; their number stands on a line of its own before
/// the next row that differs. When the region ends among such rows, that line is followed by the row just past the
/// region, shown as zero bytes where there is no memory to read. REQUIRES: the region is mapped readable, and `length`
/// is a multiple of 16.
void dumpmem(uintptr_t address, unsigned long length, const char* label, std::ostream& file);

} // namespace zeloo

#endif
