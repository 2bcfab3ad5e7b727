// SPDX-License-Identifier: BSD-2-Clause
// Removes from the engine what is not needed any more.
#ifndef FLEET_CLEANER_H
#define FLEET_CLEANER_H

#include <cstdint>
#include <deque>
#include <map>
#include <set>
#include <string>

#include "faultstate.h"
#include "reader.h"

namespace fleet {

/// Removes changes that have been applied, but for the last message of each host, which tells its gate how far it came;
/// and the values of faults that were cleared a while ago. Whatever is removed here twice, or late, or never, does no
/// harm.
class Cleaner {
public:
    Cleaner(Engine& engine, long keepSeconds);

    /// The changes of `node` up to the message `sequence` have been applied, which the bucket tells.
    void Done(const std::string& node, uint64_t sequence);
    /// Removes the messages of these subjects, which may have wildcards, before the number `before`; 0: all.
    bool Purge(const std::string& subject, uint64_t before = 0);
    /// Does a part of what there is to do, `applied` telling how far the changes are in the bucket. Whether there may be
    /// more to do at once.
    bool Run(const Place& applied);

private:
    struct Cleared { // a value in the bucket
        uint64_t revision;
        int64_t time; // when it was stored, in nanoseconds since the epoch
        Place place;
    };

    bool Trim();
    bool FindCleared();
    bool RemoveCleared(const Place& applied);

    Engine& engine;
    const int64_t keep; // nanoseconds
    Reader values;
    std::deque<Cleared> cleared; // oldest first
    std::map<std::string, uint64_t> done;
    int64_t trimmed = 0; // when, in nanoseconds
};

} // namespace fleet

#endif
