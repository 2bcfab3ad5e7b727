// The stack dump of a crash file.
#ifndef MISC_CRASH_STACKDUMP_H
#define MISC_CRASH_STACKDUMP_H

#include <ostream>

namespace zeloo {

/// Writes the registers of what the signal interrupted, its chain of frames, and the hex dump of its stack from the
/// stack pointer to some way above the frame pointer, as far as they lie in one readable stack. For a handler of
/// svr4::capture_signal.
void dumpstack(std::ostream& file);

} // namespace zeloo

#endif
