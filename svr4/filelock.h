// SPDX-License-Identifier: BSD-2-Clause
// A lock on a file that a process holds for a moment.
#ifndef SVR4_FILELOCK_H
#define SVR4_FILELOCK_H

#include "svr4/signal.h"

namespace svr4 {

/// An advisory lock on an existing file, which keeps out the others that lock it in this way and ends with its process
/// at the latest. It guards a few calls, not a life: signals are held back while it lives, so that no handler waits for
/// what its own process holds, or ends the process half way. Faults are not: their handlers run at once.
///
/// May be used in a signal handler. `errno` is kept.
class FileLock {
public:
    /// Locks the file `path`, which need not be writable, and waits for that at most so many milliseconds. A file that
    /// cannot be opened, or null, is not locked and not waited for.
    FileLock(const char* path, int milliseconds);
    ~FileLock();
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;

    bool Locked() const { return isLocked; }

private:
    SignalsHeld held;
    int fd;
    bool isLocked;
};

} // namespace svr4

#endif
