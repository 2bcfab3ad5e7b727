// SPDX-License-Identifier: BSD-2-Clause
// Which process an object belongs to.
#ifndef MISC_DETAIL_OWNER_H
#define MISC_DETAIL_OWNER_H

#include <unistd.h>

namespace zeloo {

/// Whether this is the process `maker`, which made an object. What the object holds outside of its own memory (a queue,
/// a file, a connection, a child) belongs to that process alone: a forked child has a copy of the object, whose
/// destructor and signal handling leave the parent's things alone.
inline bool IsOwner(long maker) { return getpid() == maker; }

} // namespace zeloo

#endif
