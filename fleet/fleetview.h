// SPDX-License-Identifier: BSD-2-Clause
// The faults of the fleet in memory, as the bucket has them.
#ifndef FLEET_FLEETVIEW_H
#define FLEET_FLEETVIEW_H

#include <cstdint>
#include <map>
#include <ostream>
#include <string>

#include "examples/faultcentre.h"
#include "reader.h"

namespace fleet {

/// A copy of the faults in the bucket, which follows it. Faults that were cleared stay in it for a while, for those who
/// follow the changes.
class FleetView {
public:
    explicit FleetView(Engine& engine);

    /// Takes what the bucket has got meanwhile, for a short while unless it has never been whole. False when the engine
    /// could not be asked; what is known stays then.
    bool Refresh();
    /// Whether it has ever been whole.
    bool IsKnown() const { return isKnown; }

    /// Appends a CentreList to `answer`, of as many faults as fit into `most` bytes, but one at least.
    void List(const CentreListRequest& request, std::size_t most, Buffer& answer) const;
    /// Appends CentreChanges in the same way.
    void Changes(const CentreWatchRequest& request, std::size_t most, Buffer& answer) const;
    std::size_t Faults() const { return there; }
    void dumpOn(std::ostream& out) const;

private:
    struct Entry {
        uint64_t revision = 0;
        bool isThere = false;
        std::string packed; // a CentreFault
    };
    typedef std::map<std::string, Entry> Entries;

    Outcome ReadPart();
    void Take(const StreamMessage& message);
    void Forget();

    Engine& engine;
    Reader reader;
    long begun = 0; // the reading
    bool isKnown = false;
    Entries entries;                                   // by what a key has behind "fault."
    std::map<uint64_t, Entries::const_iterator> order; // by revision
    std::map<uint64_t, long> cleared;                  // of these: since when, in seconds since the epoch
    uint64_t newest = 0;
    std::size_t there = 0;
};

} // namespace fleet

#endif
