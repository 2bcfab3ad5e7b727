// SPDX-License-Identifier: BSD-2-Clause
// A copy of the process that nobody sees, to do what the process itself must not be held up or ended by.
#ifndef SVR4_COPY_H
#define SVR4_COPY_H

#include <cstddef>

#include <sys/types.h>

namespace svr4 {

/// Makes a copy of the process as fork(2) does, but with nothing of what programs tie to a fork: no fork handler runs, no
/// SIGCLD is sent when the copy ends, and wait(2) does not find it. Usable in a handler, whatever the interrupted code
/// is at: no lock is taken. In the copy only the calling thread goes on, with the signals held that are held now; it
/// must leave with _exit. One that was made by the first thread of the process ends with the process; one of another
/// thread, which may end long before that, has to end by itself. Returns 0 in the copy, in the original the copy's id,
/// or -1 with `errno`.
pid_t copy_process();

/// Looks whether the copy `pid` has ended: its wait status, or -1 while it has not. A copy that is not there any more has
/// the status 0. `errno` is kept.
int copy_status(pid_t pid);

/// Memory of `size` bytes, all 0, that the process shares with its copies. It is given back with unshare_memory. Null with
/// `errno` on failure. Usable in a handler, both.
void* share_memory(size_t size);
void unshare_memory(void* memory, size_t size);

/// Whether process `pid` has a handler for `sig`, so that the signal does not end it.
bool handles_signal(pid_t pid, int sig);

} // namespace svr4

#endif
