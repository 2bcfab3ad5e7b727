// SPDX-License-Identifier: BSD-2-Clause
#include "faulttable.h"

#include <algorithm>
#include <climits>
#include <iostream>
#include <sstream>

#include "clock.h"

namespace fleet {

static const std::size_t MostWrites = 4000; // in a part
static const int MostValues = 1000;
static const int64_t Patience = 200; // milliseconds with a server that lags
static const char FenceKey[] = "fence";

FaultTable::FaultTable(Engine& engine, long keepSeconds) : engine(engine), writer(engine), keep(keepSeconds * Second)
{
    Forget();
}

void FaultTable::Forget()
{
    reader.reset();
    seen = 0;
    isWhole = false;
    applied = {0, 0, LONG_MAX};
    appliedRevision = 0;
    hosts.clear();
    cleared.clear();
}

// Reads a value of the bucket. False when it is none that a centre has stored.
static bool ReadValue(const StreamMessage& message, FleetFault* fault, std::string* value)
{
    const natsMsg* found = message.message.get();
    value->assign(natsMsg_GetData(found), static_cast<std::size_t>(natsMsg_GetDataLength(found)));
    if (ReadFleetFault(value->data(), value->size(), fault))
        return true;
    std::clog << message.Subject() << " has no fault\n";
    return false;
}

Outcome FaultTable::Begin()
{
    Forget();
    const Outcome outcome = StoreLast(engine, KeySubject(FaultBucket, FenceKey), &fence);
    if (outcome != Outcome::Done)
        problem = engine.Problem();
    return outcome;
}

// Takes a value of the bucket. False when it is not what it should be.
bool FaultTable::Take(const StreamMessage& message)
{
    seen = message.sequence;
    FleetFault fault;
    std::string value;
    if (message.Subject() == KeySubject(FaultBucket, FenceKey))
        return true;
    if (message.Subject() != KeySubject(FaultBucket, PlaceKey)) {
        if (ReadValue(message, &fault, &value))
            Know(Of(std::string(fault.last.node)), fault, value, message);
        return true;
    }
    const natsMsg* found = message.message.get();
    std::istringstream text(
        std::string(natsMsg_GetData(found), static_cast<std::size_t>(natsMsg_GetDataLength(found))));
    appliedRevision = message.sequence;
    applied = {0, 0, LONG_MAX};
    return static_cast<bool>(text >> applied.stream >> applied.sequence);
}

Outcome FaultTable::Read()
{
    if (isWhole)
        return Outcome::Nothing;
    const std::string stream = BucketStream(FaultBucket), all = KeySubject(FaultBucket, ">");
    if (reader == nullptr)
        reader = std::make_unique<Reader>(engine, stream, all);
    const long begun = reader->Begun();
    std::vector<StreamMessage> messages;
    const Outcome outcome = reader->Read(MostValues, Patience, &messages);
    if (begun != reader->Begun()) {
        problem = "the bucket is another one, or has lost its last values";
        return Outcome::Refused;
    }
    if (outcome != Outcome::Done && outcome != Outcome::Nothing) {
        problem = engine.Problem();
        return outcome;
    }
    for (const StreamMessage& message : messages)
        if (!Take(message)) {
            problem = "the bucket does not tell how far the changes are applied";
            return Outcome::Refused;
        }
    isWhole = seen >= fence;
    if (isWhole)
        reader.reset();
    else if (outcome == Outcome::Nothing) // the server lags; another may not
        reader = std::make_unique<Reader>(engine, stream, all, seen + 1, reader->Created());
    return isWhole ? Outcome::Nothing : Outcome::Done;
}

void FaultTable::Know(HostFaults& host, const FleetFault& fault, const std::string& value, const StreamMessage& message)
{
    host.Know(fault, value, message.sequence);
    if (fault.last.kind == FaultChange::Cleared)
        cleared.push_back({message.sequence, message.time, std::string(fault.last.node),
                           static_cast<const char*>(fault.last.fault.hdr.myId)});
}

HostFaults& FaultTable::Of(const std::string& node) { return hosts.try_emplace(node, node).first->second; }

Outcome FaultTable::Store(const std::vector<std::string>& nodes, const std::function<void()>& between)
{
    std::vector<New> all;
    for (const std::string& node : nodes)
        for (HostFaults::Fault* fault : Of(node).New())
            all.push_back({&node, fault});
    const Outcome outcome = StoreParts(all, between);
    for (const std::string& node : nodes)
        Of(node).DropStored();
    return outcome;
}

Outcome FaultTable::StoreParts(const std::vector<New>& all, const std::function<void()>& between)
{
    Outcome outcome = Outcome::Done;
    for (std::size_t done = 0; done < all.size() && outcome == Outcome::Done; done += MostWrites) {
        between();
        outcome = StorePart(all.data() + done, std::min(MostWrites, all.size() - done));
    }
    return outcome;
}

Outcome FaultTable::StorePart(const New* part, std::size_t count)
{
    std::vector<Write> writes(count);
    for (std::size_t i = 0; i < count; i++) {
        const HostFaults::Entry& entry = part[i].fault->second;
        writes[i].subject = KeySubject(FaultBucket, FaultKey(*part[i].node, part[i].fault->first));
        writes[i].bytes = entry.value.data();
        writes[i].size = entry.value.size();
        writes[i].expected = entry.revision;
    }
    Outcome outcome = writer.Store(writes);
    if (outcome != Outcome::Done)
        problem = writer.Problem().empty() ? engine.Problem() : writer.Problem();
    for (std::size_t i = 0; i < count; i++) {
        HostFaults::Entry& entry = part[i].fault->second;
        if (writes[i].outcome == Outcome::Passed && outcome == Outcome::Done)
            outcome = Outcome::Passed;
        if (writes[i].outcome != Outcome::Done)
            continue;
        entry.revision = writes[i].revision;
        entry.isNew = false;
        if (!entry.isThere)
            cleared.push_back({entry.revision, Now(), *part[i].node, part[i].fault->first});
    }
    return outcome;
}

// The entry of a value, if the bucket still has that as far as is known.
HostFaults::Entry* FaultTable::Find(const Cleared& value)
{
    const auto host = hosts.find(value.node);
    if (host == hosts.end())
        return nullptr;
    const auto at = host->second.All().find(value.id);
    return at != host->second.All().end() && at->second.revision == value.revision ? &at->second : nullptr;
}

bool FaultTable::RemoveCleared(const Place& applied)
{
    const std::string stream = BucketStream(FaultBucket);
    const Turn turn;
    for (; !cleared.empty() && cleared.front().time <= Now() - keep; cleared.pop_front()) {
        const HostFaults::Entry* entry = Find(cleared.front());
        if (entry == nullptr)
            continue;
        if (turn.IsOver() || applied < entry->place)
            return turn.IsOver();
        jsErrCode code = static_cast<jsErrCode>(0);
        // That value: one that has taken its place is another.
        const natsStatus status =
            js_DeleteMsg(engine.Streams(), stream.c_str(), cleared.front().revision, nullptr, &code);
        if (status != NATS_OK && code == 0)
            return false;
        hosts.at(cleared.front().node).All().erase(cleared.front().id);
    }
    return false;
}

} // namespace fleet
