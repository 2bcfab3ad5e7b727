// SPDX-License-Identifier: BSD-2-Clause
// Makes the current faults of the fleet of the changes of its hosts.
#ifndef FLEET_APPLIER_H
#define FLEET_APPLIER_H

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cleaner.h"
#include "faulttable.h"
#include "lease.h"
#include "reader.h"

namespace fleet {

/// Reads the changes of all hosts from the stream, applies them to the faults in the bucket, and then removes from the
/// stream what is not needed any more. The key "applied" of the bucket tells how far it came; the next one goes on
/// there, and applies some changes again, which changes nothing.
///
/// One applier of all centres works at a time, the one that holds the lease. What is stored does not rely on that:
/// each value takes the place of the one that was known, or is refused and made anew, and no change takes the place of a
/// newer one. Several at once cost time only.
class Applier {
public:
    enum Step {
        Looked,  // at a part of the faults in the bucket, all of which it knows before it applies the first change
        Applied, // changes; there may be more
        Idle,    // there are none, or another centre has the lease
        Stuck    // Problem() tells why; a later step may succeed
    };

    /// `name` tells the centre's operator who has the lease. Faults that were cleared stay for `keepSeconds`, and changes
    /// that have been applied for `changeSeconds`.
    Applier(Engine& engine, const std::string& name, long keepSeconds, long changeSeconds = 60);

    /// Does a part of the work. When there is nothing to apply, waits for up to `milliseconds`.
    Step Run(long milliseconds);
    bool IsActive() const { return isActive; }
    const std::string& Problem() const { return problem; }
    /// Lets another centre go on at once.
    void Release() { lease.Release(); }

private:
    struct Changes { // those of a message
        std::string node;
        std::string journal;
        uint64_t sequence;
        std::vector<FaultChange> list;
    };
    typedef std::map<std::string, std::vector<Changes>> ChangesOfHosts; // by node, in their order

    Step Fail(const std::string& what);
    void Begin();
    Step ReadBucket();
    Step FollowChanges(long milliseconds);
    bool Apply(const std::vector<StreamMessage>& messages);
    bool ApplyTo(const std::string& node, const std::vector<Changes>& changes);
    bool StoreFaults(const std::vector<std::string>& nodes);
    bool StorePlace(const Place& next);

    Engine& engine;
    Lease lease;
    Cleaner cleaner;
    FaultTable table;
    std::string problem;
    bool isActive = false;
    bool isSure = false;            // that nothing of what is known has been replaced, as far as can be known
    long taken = 0;                 // the lease, when it became sure
    std::unique_ptr<Reader> reader; // of the changes; null: it has not begun
    Place applied;                  // how far all is in the bucket
    uint64_t appliedRevision = 0;   // of the key that tells it
};

} // namespace fleet

#endif
