// SPDX-License-Identifier: BSD-2-Clause
// What /proc tells of the processes of this host. This host's own interface.
#ifndef TOOLS_ORVSTAT_PROCESSES_H
#define TOOLS_ORVSTAT_PROCESSES_H

#include <optional>
#include <string>
#include <vector>

namespace orvstat {

enum class Life {
    Runs,
    Stopped, // by a signal or a debugger
    Gone     // there is none, or it has ended and only waits for its parent to take note
};

/// A process whose state cannot be read, though it exists, runs. REQUIRES: the process id is positive.
Life LifeOf(long pid);

/// The name of its program, of which the host keeps 15 characters; empty when it cannot be told.
std::string ProgramOf(long pid);

/// In a child: it gets SIGTERM when `parent`, which has made it, ends in whatever way; at once if that has happened.
void EndWith(long parent);

/// A thread that waits in a queue's system call.
struct BlockedCall {
    long pid;
    int queue;
    bool sends; // waits for room; otherwise for a message
};

/// Who is blocked on a queue, as far as this process may know.
struct Blocked {
    std::vector<BlockedCall> calls; // a process and a queue once for each way, in the order of the process ids
    int unseen = 0;                 // processes at which this one must not look
};

Blocked AllBlocked();

/// The call in a line of /proc/PID/syscall, if it is one on a queue: "70 0x3 0x7ffd... ", the number of the call and its
/// arguments.
std::optional<BlockedCall> ReadCall(long pid, const std::string& line);

} // namespace orvstat

#endif
