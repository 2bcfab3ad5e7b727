// SPDX-License-Identifier: BSD-2-Clause
// The faults that the changes of a journal make.
#ifndef TESTS_SYSTEM_FAULTJOURNAL_REPLAY_H
#define TESTS_SYSTEM_FAULTJOURNAL_REPLAY_H

#include <map>
#include <string>

#include "examples/fault.h"

namespace faultjournal_testing {

/// The faults by their ids, each packed.
typedef std::map<std::string, std::string> Faults;

inline std::string Packed(const FaultRecord& fault)
{
    Buffer data;
    Pack(fault, data);
    return std::string(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
}

/// The faults that changes make, one behind the other.
class Replay {
public:
    /// The next change. False when it is not the one behind the last, or cannot come behind it.
    bool Add(const FaultChange& change)
    {
        const std::string id = static_cast<const char*>(change.fault.summary.hdr.myId);
        const bool isNext = last == 0 || change.number == last + 1;
        last = change.number;
        if (change.kind == FaultChange::Began) {
            hasBegun = true;
            faults.clear();
            return isNext;
        }
        if (change.kind == FaultChange::Raised) {
            faults[id] = Packed(change.fault);
            return isNext;
        }
        if (change.kind == FaultChange::Cleared)
            return isNext && (faults.erase(id) == 1 || !hasBegun);
        if (faults.count(id) == 0)
            return isNext && !hasBegun;
        FaultRecord fault;
        Buffer data;
        data.Append(faults[id].data(), static_cast<unsigned>(faults[id].size()));
        const bool isWhole = Unpack(data, fault);
        fault.summary.state = change.fault.summary.state;
        faults[id] = Packed(fault);
        return isNext && isWhole;
    }
    bool Add(const FaultChangeList& list)
    {
        bool isNext = true;
        for (const FaultChange& change : list.changes)
            isNext = Add(change) && isNext;
        return isNext;
    }

    Faults faults;
    long last = 0;
    bool hasBegun = false; // a Began has been seen
};

} // namespace faultjournal_testing

#endif
