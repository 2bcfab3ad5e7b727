// SPDX-License-Identifier: BSD-2-Clause
// Removes from the engine what is not needed any more.
#ifndef FLEET_CLEANER_H
#define FLEET_CLEANER_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>

#include "engine.h"
#include "faultstate.h"
#include "reader.h"

namespace fleet {

/// Removes changes that have been applied from the stream, but for the last message of each host, which tells its gate how
/// far it came; and pieces of attachments. Whatever is removed here twice, or late, or never, does no harm.
///
/// Where several servers have copies, messages are removed one by one, by their numbers: such a server (nats-server 2.9)
/// that is started again takes each purge of a subject that it finds in its log for one of the whole stream, and has lost
/// all that was stored before it. One that is alone knows after a crash of purges only, so pieces go by these there.
class Cleaner {
public:
    /// Changes stay for `keepSeconds` after they have been applied: the engine's servers may forget what they have stored
    /// last when one of them fails, and all is made anew then from how far the bucket tells.
    Cleaner(Engine& engine, long keepSeconds);

    /// All up to `applied` has been applied, by whomever: what is left of it is looked for.
    void Begin(const Place& applied);
    /// The message of `node` at that place has been applied, which the bucket tells.
    void Done(const std::string& node, const Place& place);
    /// Removes the messages of these subjects, which may have wildcards, before the number `before`.
    bool Remove(const std::string& subjects, uint64_t before);
    /// Does a part of what there is to do. Whether there may be more to do at once.
    bool Run();

private:
    struct Obsolete {
        uint64_t sequence;
        std::chrono::steady_clock::time_point since;
    };

    bool Look();
    bool IsDue() const;
    bool RemoveSettled();
    bool Delete(uint64_t sequence);
    bool Purge(const std::string& subjects, uint64_t before);
    bool CountCopies(int64_t* copies);

    Engine& engine;
    const std::chrono::seconds keep;
    int64_t stream = 0;                   // whose messages they are: when it was made
    std::map<std::string, uint64_t> last; // applied, by node: what stays
    std::deque<Obsolete> obsolete;        // the first to be so first
    std::unique_ptr<Reader> left;         // of what has been applied before; null: that has been looked through
    uint64_t leftUntil = 0;
    int64_t settled = 0; // when what gates store to settle others was removed, in nanoseconds since the epoch
};

} // namespace fleet

#endif
