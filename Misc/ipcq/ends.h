// SPDX-License-Identifier: BSD-2-Clause
// What this process has on its queues. A forked child begins with nothing: what it has copies of is its parent's.
#ifndef MISC_IPCQ_ENDS_H
#define MISC_IPCQ_ENDS_H

namespace zeloo {

/// The number of server objects with a queue. To be counted by the process that made them; safe in signal handlers.
int LiveServers();
void CountServer(int change);

/// Notes that the process has a client on a queue. True when it is the first one. Without memory for the note nobody is
/// the first.
bool IsFirstClientOn(int msqid);

} // namespace zeloo

#endif
