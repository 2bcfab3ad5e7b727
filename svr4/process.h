// SPDX-License-Identifier: BSD-2-Clause
// Processes as System V has them.
#ifndef SVR4_PROCESS_H
#define SVR4_PROCESS_H

namespace svr4 {

/// setpgrp(2) of System V: the caller becomes the leader of a new session and of a new process group, without a
/// controlling terminal. Returns the new group id, or -1 with `errno` when the caller leads a group already.
int setpgrp();

/// fork(2) without a moment in which the child can run a handler of its parent, which would clean up what belongs to
/// the parent: all signals are held back until `inChild`, which the child calls first, has returned. Returns what fork
/// returns: 0 in the child, in the parent the child's id, or -1 with `errno`.
int fork_held(void (*inChild)());

/// execvp(3), for a program text written for a host with /sbin/sh: where the host has no such file, "/sbin/sh" runs
/// /bin/sh. The arguments are passed on as they are. Returns only on failure: -1 with `errno` (EFAULT when `file` is
/// null).
int execvp(const char* file, char* const argv[]);

/// Whether there is no such process, or it has ended and only waits for its parent to take note of that: it does nothing
/// more, though it exists for kill(2). `errno` is kept.
bool has_ended(long pid);

/// The heap in use, in bytes: the current program break less the place where the break began. Never negative, and at
/// most INT_MAX, since callers keep it in an int. Memory that the allocator maps outside the break does not count.
long heap_size();

} // namespace svr4

#endif
