// SPDX-License-Identifier: BSD-2-Clause
#include "faulttable.h"

#include <algorithm>
#include <iostream>

#include "clock.h"

namespace fleet {

static const std::size_t MostWrites = 4000; // in a part
static const int MostValues = 1000;

FaultTable::FaultTable(Engine& engine, long keepSeconds) : engine(engine), writer(engine), keep(keepSeconds * Second) {}

void FaultTable::Forget()
{
    reader.reset();
    isWhole = false;
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

Outcome FaultTable::Read()
{
    if (isWhole)
        return Outcome::Nothing;
    if (reader == nullptr)
        reader = std::make_unique<Reader>(engine, BucketStream(FaultBucket), KeySubject(FaultBucket, "fault.>"));
    const long begun = reader->Begun();
    std::vector<StreamMessage> messages;
    const Outcome outcome = reader->Read(MostValues, 0, &messages);
    if (begun != reader->Begun()) { // what was read was of another bucket
        Forget();
        return Outcome::Done;
    }
    FleetFault fault;
    std::string value;
    for (const StreamMessage& message : messages)
        if (ReadValue(message, &fault, &value))
            Know(Of(std::string(fault.last.node)), fault, value, message);
    isWhole = outcome == Outcome::Nothing || (outcome == Outcome::Done && reader->IsAtEnd());
    if (isWhole)
        reader.reset();
    if (outcome != Outcome::Done && outcome != Outcome::Nothing)
        problem = engine.Problem();
    return outcome;
}

Outcome FaultTable::Reload(const std::string& node)
{
    HostFaults host(node);
    Reader values(engine, BucketStream(FaultBucket), KeySubject(FaultBucket, FaultKeys(node)));
    std::vector<StreamMessage> messages;
    FleetFault fault;
    std::string value;
    Outcome outcome = Outcome::Done;
    while ((outcome = values.Read(MostValues, 0, &messages)) == Outcome::Done)
        for (const StreamMessage& message : messages)
            if (ReadValue(message, &fault, &value))
                Know(host, fault, value, message);
    if (outcome != Outcome::Nothing) {
        problem = engine.Problem();
        return outcome;
    }
    hosts.erase(node);
    hosts.emplace(node, std::move(host));
    return Outcome::Done;
}

void FaultTable::Know(HostFaults& host, const FleetFault& fault, const std::string& value, const StreamMessage& message)
{
    host.Know(fault, value, message.sequence);
    if (fault.last.kind == FaultChange::Cleared)
        cleared.push_back({message.sequence, message.time, std::string(fault.last.node),
                           static_cast<const char*>(fault.last.fault.hdr.myId)});
}

HostFaults& FaultTable::Of(const std::string& node) { return hosts.try_emplace(node, node).first->second; }

Outcome FaultTable::Store(std::vector<std::string>* nodes, const std::function<void()>& between)
{
    std::vector<New> all;
    for (const std::string& node : *nodes)
        for (HostFaults::Fault* fault : Of(node).New())
            all.push_back({&node, fault});
    std::vector<std::string> passed;
    Outcome outcome = StoreParts(all, between, &passed);
    for (const std::string& node : *nodes)
        Of(node).DropStored();
    for (std::size_t i = 0; i < passed.size() && outcome == Outcome::Done; i++) {
        between();
        outcome = Reload(passed[i]);
    }
    *nodes = passed;
    return outcome;
}

Outcome FaultTable::StoreParts(const std::vector<New>& all, const std::function<void()>& between,
                               std::vector<std::string>* passed)
{
    Outcome outcome = Outcome::Done;
    for (std::size_t done = 0; done < all.size() && outcome == Outcome::Done; done += MostWrites) {
        between();
        outcome = StorePart(all.data() + done, std::min(MostWrites, all.size() - done), passed);
    }
    return outcome;
}

Outcome FaultTable::StorePart(const New* part, std::size_t count, std::vector<std::string>* passed)
{
    std::vector<Write> writes(count);
    for (std::size_t i = 0; i < count; i++) {
        const HostFaults::Entry& entry = part[i].fault->second;
        writes[i].subject = KeySubject(FaultBucket, FaultKey(*part[i].node, part[i].fault->first));
        writes[i].bytes = entry.value.data();
        writes[i].size = entry.value.size();
        writes[i].expected = entry.revision;
    }
    const Outcome outcome = writer.Store(writes);
    if (outcome != Outcome::Done)
        problem = writer.Problem().empty() ? engine.Problem() : writer.Problem();
    for (std::size_t i = 0; i < count; i++) {
        HostFaults::Entry& entry = part[i].fault->second;
        const std::string& node = *part[i].node;
        if (writes[i].outcome == Outcome::Passed && (passed->empty() || passed->back() != node))
            passed->push_back(node);
        if (writes[i].outcome != Outcome::Done)
            continue;
        entry.revision = writes[i].revision;
        entry.isNew = false;
        if (!entry.isThere)
            cleared.push_back({entry.revision, Now(), node, part[i].fault->first});
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
