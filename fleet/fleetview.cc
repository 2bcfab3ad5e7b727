// SPDX-License-Identifier: BSD-2-Clause
#include "fleetview.h"

#include "Misc/Dates.h"

#include "bucket.h"
#include "clock.h"
#include "faultstate.h"

namespace fleet {

static const int MostMessages = 2000;    // at once
static const long ClearedSeconds = 3600; // for which a cleared fault stays

static std::string Prefix() { return KeySubject(FaultBucket, "fault."); }

FleetView::FleetView(Engine& engine) : engine(engine), reader(engine, BucketStream(FaultBucket), Prefix() + ">") {}

bool FleetView::Refresh()
{
    if (!engine.Connect())
        return false;
    const Turn turn;
    Outcome outcome = Outcome::Done;
    bool isAtEnd = false;
    while (outcome == Outcome::Done && !isAtEnd && !(isKnown && turn.IsOver())) {
        outcome = ReadPart();
        isAtEnd = reader.IsAtEnd();
    }
    Forget();
    isKnown = isKnown || (isAtEnd && outcome == Outcome::Done) || outcome == Outcome::Nothing;
    return outcome == Outcome::Done || outcome == Outcome::Nothing;
}

Outcome FleetView::ReadPart()
{
    std::vector<StreamMessage> messages;
    const Outcome outcome = reader.Read(MostMessages, 0, &messages);
    if (begun != reader.Begun()) {
        entries.clear();
        order.clear();
        cleared.clear();
        there = 0;
        newest = 0;
        begun = reader.Begun();
    }
    for (const StreamMessage& message : messages)
        Take(message);
    return outcome;
}

void FleetView::Take(const StreamMessage& message)
{
    static const std::size_t prefix = Prefix().size();
    const char* bytes = natsMsg_GetData(message.message.get());
    const std::size_t size = static_cast<std::size_t>(natsMsg_GetDataLength(message.message.get()));
    FleetFault fault;
    unsigned last = 0;
    if (!ReadFleetFault(bytes, size, &fault, &last))
        return; // what no centre has stored
    const auto at = entries.emplace(natsMsg_GetSubject(message.message.get()) + prefix, Entry()).first;
    Entry& entry = at->second;
    order.erase(entry.revision);
    cleared.erase(entry.revision);
    there -= entry.isThere;
    entry.revision = message.sequence;
    entry.isThere = fault.last.kind != FaultChange::Cleared;
    entry.packed.assign(bytes + last, size - last);
    there += entry.isThere;
    order.emplace_hint(order.end(), entry.revision, at);
    if (!entry.isThere)
        cleared.emplace_hint(cleared.end(), entry.revision, Dates::CurrentTime());
    newest = message.sequence;
}

void FleetView::Forget()
{
    const long now = Dates::CurrentTime();
    while (!cleared.empty() && now - cleared.begin()->second > ClearedSeconds) {
        const auto at = order.find(cleared.begin()->first);
        entries.erase(at->second);
        order.erase(at);
        cleared.erase(cleared.begin());
    }
}

// Appends as a vector of faults is packed.
static void Append(int count, const std::string& faults, Buffer& answer)
{
    {
        ZELostream out(answer);
        out << count;
    }
    answer.Append(faults.data(), static_cast<unsigned>(faults.size()));
}

void FleetView::List(const CentreListRequest& request, std::size_t most, Buffer& answer) const
{
    const std::string host = request.node.strlen() > 0 ? Token(std::string(request.node)) + "." : "";
    const std::string after(request.after);
    std::string faults;
    const std::string* last = nullptr;
    bool isAll = true;
    int count = 0;
    for (auto at = after.empty() ? entries.lower_bound(host) : entries.upper_bound(after);
         at != entries.end() && at->first.compare(0, host.size(), host) == 0; ++at) {
        if (!at->second.isThere)
            continue;
        isAll = count == 0 || faults.size() + at->second.packed.size() <= most;
        if (!isAll)
            break;
        faults += at->second.packed;
        last = &at->first;
        count++;
    }
    {
        ZELostream out(answer);
        out << CString(isAll ? "" : last->c_str());
    }
    Append(count, faults, answer);
}

void FleetView::Changes(const CentreWatchRequest& request, std::size_t most, Buffer& answer) const
{
    const uint64_t since = request.since < 0 || static_cast<uint64_t>(request.since) > newest
                               ? newest
                               : static_cast<uint64_t>(request.since);
    std::string faults;
    uint64_t last = newest;
    bool isAll = true;
    int count = 0;
    for (auto at = order.upper_bound(since); at != order.end(); ++at) {
        const std::string& packed = at->second->second.packed;
        isAll = count == 0 || faults.size() + packed.size() <= most;
        if (!isAll)
            break;
        faults += packed;
        last = at->first;
        count++;
    }
    {
        ZELostream out(answer);
        out << static_cast<long>(isAll ? newest : last) << static_cast<int>(isAll);
    }
    Append(count, faults, answer);
}

void FleetView::dumpOn(std::ostream& out) const
{
    out << "Fleet: " << there << " faults, revision " << newest << (isKnown ? "" : ", not known yet") << std::endl;
}

} // namespace fleet
