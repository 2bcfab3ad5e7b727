// SPDX-License-Identifier: BSD-2-Clause
#include "message.h"

namespace fleet {

void PackChange(FaultChange& change, Buffer& data)
{
    const int attached = change.fault.summary.attached;
    change.fault.attachment.PurgeContents();
    change.fault.summary.attached = 0;
    ZELostream out(data);
    out << attached;
    change.printOn(out);
}

bool UnpackChanges(Buffer& data, std::vector<FaultChange>* changes)
{
    changes->clear();
    ZEListream in(data);
    long earlier = 0;
    while (in.good() && in.tellg() < data.Size()) {
        int attached = -1;
        FaultChange change;
        in >> attached;
        change.scanFrom(in);
        if (!in.good() || attached < 0 || change.fault.summary.attached != 0 || change.number <= earlier)
            return false;
        earlier = change.number;
        change.fault.summary.attached = attached;
        changes->push_back(change);
    }
    return in.good() && in.tellg() == data.Size();
}

} // namespace fleet
