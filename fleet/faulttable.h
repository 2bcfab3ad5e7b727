// SPDX-License-Identifier: BSD-2-Clause
// The faults of all hosts, as the bucket has them and as new changes make them.
#ifndef FLEET_FAULTTABLE_H
#define FLEET_FAULTTABLE_H

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bucket.h"
#include "faultstate.h"
#include "reader.h"

namespace fleet {

/// A copy of the faults in the bucket, which is read whole before it is used, and the way of what is new into the bucket.
/// What others store there meanwhile is found when a value of it is to be replaced; then all is to be read again.
///
/// A server of a cluster that lags behind the others may be asked, and even lead them for a moment: what it has is old,
/// and it finds that values are the last ones that are not. So something is stored before anything is read: once the
/// server has that, it has all that was stored before.
class FaultTable {
public:
    /// Faults that were cleared stay for `keepSeconds`.
    FaultTable(Engine& engine, long keepSeconds);

    /// Forgets all, and stores what is to be read before the copy is whole again.
    Outcome Begin();
    /// Reads a part of what the bucket has, some 1000 faults. Outcome::Nothing: all is known. Refused: it cannot be
    /// relied on, and is to be begun again; after another failure the reading goes on.
    Outcome Read();
    bool IsWhole() const { return isWhole; }
    /// How far the changes have been applied, as the bucket tells; and the revision of that, 0: it does not.
    const Place& Applied() const { return applied; }
    uint64_t AppliedRevision() const { return appliedRevision; }

    /// What is known of a node, which may be nothing. It stays the table's, until that is begun again.
    HostFaults& Of(const std::string& node);
    /// Stores what is new of the faults of these nodes, a part at a time, with `between` called before each. Passed: another
    /// centre has stored something meanwhile. When something failed, Problem() tells what. Then, too, it is to be begun
    /// again.
    Outcome Store(const std::vector<std::string>& nodes, const std::function<void()>& between);
    /// Removes some faults that were cleared long ago and of which no change can come any more, the changes up to
    /// `applied` having been applied. Whether there may be more to do at once.
    bool RemoveCleared(const Place& applied);
    const std::string& Problem() const { return problem; }

private:
    void Forget();

    struct Cleared { // a value in the bucket
        uint64_t revision;
        int64_t time; // when it was stored, in nanoseconds since the epoch
        std::string node;
        std::string id;
    };
    struct New { // what is to be stored
        const std::string* node;
        HostFaults::Fault* fault;
    };

    Outcome StoreParts(const std::vector<New>& all, const std::function<void()>& between);
    Outcome StorePart(const New* part, std::size_t count);
    bool Take(const StreamMessage& message);
    void Know(HostFaults& host, const FleetFault& fault, const std::string& value, const StreamMessage& message);
    HostFaults::Entry* Find(const Cleared& value);

    Engine& engine;
    BulkWriter writer;
    const int64_t keep; // nanoseconds
    std::string problem;
    std::unique_ptr<Reader> reader; // of the bucket; null: it has not begun, or is done
    uint64_t fence = 0;             // the revision behind which all that was stored before has been read
    uint64_t seen = 0;              // the last revision that was read
    bool isWhole = false;
    Place applied = {0, 0, 0};
    uint64_t appliedRevision = 0;
    std::map<std::string, HostFaults> hosts; // by node
    std::deque<Cleared> cleared;             // oldest first, more or less
};

} // namespace fleet

#endif
