// SPDX-License-Identifier: BSD-2-Clause
// The locks that keep servers from starting and ending.
#ifndef TOOLS_ORVSTAT_KEYLOCKS_H
#define TOOLS_ORVSTAT_KEYLOCKS_H

#include <csignal>
#include <string>
#include <vector>

namespace orvstat {

/// Locks the key files of a queue as whoever makes, joins or removes that queue does, with all signals held back. Others
/// wait for it a second and go on then: it is to be held for less.
class KeyLocks {
public:
    /// Waits at most so many milliseconds for all of them.
    KeyLocks(const std::vector<std::string>& files, long milliseconds);
    ~KeyLocks();
    KeyLocks(const KeyLocks&) = delete;
    KeyLocks& operator=(const KeyLocks&) = delete;

    /// 0 when it holds them all; else the host's error number: EWOULDBLOCK when somebody else has one, or why a file could
    /// not be opened.
    int Error() const { return error; }

private:
    std::vector<int> descriptors;
    sigset_t earlier;
    int error;
};

} // namespace orvstat

#endif
