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
/// What others store there meanwhile is found when a value of it is to be replaced; then that host's faults are read again.
class FaultTable {
public:
    /// Faults that were cleared stay for `keepSeconds`.
    FaultTable(Engine& engine, long keepSeconds);

    /// Forgets all, whose reading begins anew then.
    void Forget();
    /// Reads a part of what the bucket has, some 1000 faults. Outcome::Nothing: all is known.
    Outcome Read();
    bool IsWhole() const { return isWhole; }

    HostFaults& Of(const std::string& node);
    /// Stores what is new of the faults of these nodes, a part at a time, with `between` called before each. Those
    /// remain in the list of which another centre has stored something meanwhile: their faults have been read again, and
    /// what is not in the bucket of their changes is to be applied again. When something failed, Problem() tells what, and
    /// what is known may not be so any more.
    Outcome Store(std::vector<std::string>* nodes, const std::function<void()>& between);
    /// Removes some faults that were cleared long ago and of which no change can come any more, the changes up to
    /// `applied` having been applied. Whether there may be more to do at once.
    bool RemoveCleared(const Place& applied);
    const std::string& Problem() const { return problem; }

private:
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

    Outcome Reload(const std::string& node);
    Outcome StoreParts(const std::vector<New>& all, const std::function<void()>& between,
                       std::vector<std::string>* passed);
    Outcome StorePart(const New* part, std::size_t count, std::vector<std::string>* passed);
    void Know(HostFaults& host, const FleetFault& fault, const std::string& value, const StreamMessage& message);
    HostFaults::Entry* Find(const Cleared& value);

    Engine& engine;
    BulkWriter writer;
    const int64_t keep; // nanoseconds
    std::string problem;
    std::unique_ptr<Reader> reader; // of all faults; null: it has not begun, or is done
    bool isWhole = false;
    std::map<std::string, HostFaults> hosts; // by node
    std::deque<Cleared> cleared;             // oldest first, more or less
};

} // namespace fleet

#endif
