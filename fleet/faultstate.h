// SPDX-License-Identifier: BSD-2-Clause
// What the changes of a host make of its faults, and which of two is the newer one.
#ifndef FLEET_FAULTSTATE_H
#define FLEET_FAULTSTATE_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "examples/faultcentre.h"

namespace fleet {

/// Where a change stands among those of its host. The engine takes them in their order, of one journal after the other,
/// so what it stored later is newer, whatever the journals and their numbers are; so is all that a stream has that was
/// made anew.
struct Place {
    int64_t stream = 0;    // when it was made, in nanoseconds since the epoch
    uint64_t sequence = 0; // of the message in the stream
    long number = 0;       // of the change in the message

    void printOn(ZELostream& out) const;
    void scanFrom(ZEListream& in);
};

bool operator<(const Place& a, const Place& b);
inline bool operator==(const Place& a, const Place& b) { return !(a < b) && !(b < a); }

/// A fault as the bucket has it. One that was cleared stays there for a while, so that an earlier change of it that is
/// applied once more does not bring it back.
struct FleetFault {
    Place place;     // of the last change in it
    CString journal; // the change that raised it, which names the pieces of its attachment
    long raised = 0;
    CentreFault last;

    void printOn(ZELostream& out) const;
};

/// Reads a value of the bucket. False when it is none. With `last`, that becomes the byte at which its CentreFault begins.
bool ReadFleetFault(const void* bytes, std::size_t size, FleetFault* fault, unsigned* last = nullptr);

/// The faults of a host: what the bucket has of them, and what is to be stored.
class HostFaults {
public:
    struct Entry {
        uint64_t revision = 0; // of the value in the bucket; 0: there is none
        bool isNew = false;    // differs from the bucket
        bool isThere = false;  // not cleared
        Place place;
        std::string pieces; // the subjects of those of its attachment; empty: it has none
        std::string value;  // packed
    };
    typedef std::map<std::string, Entry> Entries; // by the text of the fault's id
    typedef Entries::value_type Fault;

    explicit HostFaults(const std::string& node) : node(node) {}

    /// Takes what the bucket has: `fault`, which was read from `value`.
    void Know(const FleetFault& fault, const std::string& value, uint64_t revision);
    /// Applies a change of `journal`. An older one than what is known of its fault changes nothing. False when it moves a
    /// fault that is not known.
    bool Apply(const FaultChange& change, const std::string& journal, const Place& place);
    Entries& All() { return entries; }
    /// Those that are to be stored; who has stored one says so in its entry.
    const std::vector<Fault*>& New() const { return fresh; }
    /// Leaves only those in the list that have not been stored.
    void DropStored();
    /// The subjects of pieces that belong to no fault any more.
    std::vector<std::string>& Obsolete() { return obsolete; }

private:
    void Raise(const FaultChange& change, const std::string& journal, const Place& place);
    bool Move(const FaultChange& change, const Place& place);
    void Clear(Fault& known, const FaultId& id, long time, const Place& place);
    void ClearAll(long time, const Place& place);
    Fault& At(const FaultId& id);
    void Set(Fault& known, const FleetFault& fault);

    const std::string node;
    Entries entries;
    std::vector<Fault*> fresh;
    std::vector<std::string> obsolete;
};

} // namespace fleet

#endif
