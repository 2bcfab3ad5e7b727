// SPDX-License-Identifier: BSD-2-Clause
// Removes from the engine what is not needed any more.
#ifndef FLEET_CLEANER_H
#define FLEET_CLEANER_H

#include <cstdint>
#include <map>
#include <string>

#include "engine.h"

namespace fleet {

/// Removes changes that have been applied from the stream, but for the last message of each host, which tells its gate how
/// far it came; and pieces of attachments. Whatever is removed here twice, or late, or never, does no harm.
class Cleaner {
public:
    /// Changes stay for `keepSeconds` after they have been applied: the engine's servers may forget what they have stored
    /// last when one of them fails, and all is made anew then from how far the bucket tells.
    Cleaner(Engine& engine, long keepSeconds);

    /// The changes of `node` up to the message `sequence` have been applied, which the bucket tells.
    void Done(const std::string& node, uint64_t sequence);
    /// Removes the messages of these subjects, which may have wildcards, before the number `before`; 0: all.
    bool Purge(const std::string& subject, uint64_t before = 0);
    /// Does a part of what there is to do. Whether there may be more to do at once.
    bool Run();

private:
    typedef std::map<std::string, uint64_t> Messages; // by node

    Engine& engine;
    const int64_t keep; // nanoseconds
    Messages done;
    Messages waits;    // what was done before the last round began
    Messages round;    // what is being removed
    int64_t begun = 0; // when that round began, in nanoseconds since the epoch
};

} // namespace fleet

#endif
