// SPDX-License-Identifier: BSD-2-Clause
#include "applier.h"

#include <algorithm>
#include <climits>
#include <iostream>
#include <sstream>

#include "message.h"

namespace fleet {

static const char PlaceKey[] = "applied";
static const int MostMessages = 500;          // at once
static const std::size_t MostKnown = 1000000; // faults, of some 400 bytes, before they are forgotten
static const std::size_t MostWrites = 4000;   // between two looks at the lease
static const int MostTries = 20;
static const int MostValues = 1000;

Applier::Applier(Engine& engine, const std::string& name, long keepSeconds)
    : engine(engine), lease(engine, "applier", name), cleaner(engine, keepSeconds), writer(engine)
{
}

Applier::Step Applier::Fail(const std::string& what)
{
    problem = what;
    return Stuck;
}

Applier::Step Applier::Run(long milliseconds)
{
    problem.clear();
    isActive = engine.Connect() && lease.Hold();
    if (!isActive) {
        reader.reset();
        return engine.Connection() == nullptr || lease.Failed() ? Fail(engine.Problem()) : Idle;
    }
    if (!Begin())
        return Stuck;
    std::vector<StreamMessage> messages;
    Outcome outcome = reader->Read(MostMessages, 0, &messages);
    if (outcome == Outcome::Nothing && !cleaner.Run(applied))
        outcome = reader->Read(MostMessages, std::min(milliseconds, lease.Rest() + 1), &messages);
    if (outcome == Outcome::Nothing)
        return Idle;
    if (outcome != Outcome::Done)
        return Fail(engine.Problem());
    if (Apply(messages))
        return Applied;
    reader.reset(); // from the place that the bucket tells
    return Stuck;
}

// What was known when the lease was lost, or when something failed, may not be so any more.
bool Applier::Begin()
{
    if (reader != nullptr && taken == lease.Taken())
        return true;
    reader.reset();
    hosts.clear();
    known = 0;
    if (!FindPlace())
        return false;
    taken = lease.Taken();
    reader = std::make_unique<Reader>(engine, StreamName, "fault.change.*", applied.sequence + 1, applied.stream);
    return true;
}

bool Applier::FindPlace()
{
    std::string value;
    const Outcome outcome = Get(engine, FaultBucket, PlaceKey, &value, &appliedRevision);
    applied = {0, 0, LONG_MAX};
    std::istringstream text(value);
    if (outcome == Outcome::Nothing || (outcome == Outcome::Done && text >> applied.stream >> applied.sequence))
        return true;
    problem = outcome == Outcome::Done ? "the bucket does not tell how far the changes are applied" : engine.Problem();
    return false;
}

// Reads the changes of a message. False when it is not one of a gate.
static bool ReadChanges(const StreamMessage& message, std::string* node, std::string* journal,
                        std::vector<FaultChange>* changes)
{
    static const std::string prefix = ChangeSubject("");
    natsMsg* found = message.message.get();
    const char* name = nullptr;
    *node = NameOf(message.Subject().substr(prefix.size()));
    Buffer data;
    data.Append(natsMsg_GetData(found), static_cast<unsigned>(natsMsg_GetDataLength(found)));
    if (node->empty() || natsMsgHeader_Get(found, JournalHeader, &name) != NATS_OK || !UnpackChanges(data, changes))
        return false;
    *journal = name;
    return true;
}

bool Applier::Apply(const std::vector<StreamMessage>& messages)
{
    ChangesOfHosts all;
    for (const StreamMessage& message : messages) {
        Changes changes;
        changes.sequence = message.sequence;
        if (ReadChanges(message, &changes.node, &changes.journal, &changes.list))
            all[changes.node].push_back(std::move(changes));
        else
            std::clog << "message " << message.sequence << " on " << message.Subject() << " is not one of a gate\n";
    }
    if (known > MostKnown) {
        hosts.clear();
        known = 0;
    }
    std::vector<std::string> nodes;
    for (const auto& host : all)
        nodes.push_back(host.first);
    for (int tries = 0; !nodes.empty(); tries++) {
        if (tries == MostTries) {
            problem = "another centre stores the same faults";
            return false;
        }
        for (const std::string& node : nodes)
            if (!ApplyTo(node, all[node]))
                return false;
        if (!StoreFaults(&nodes))
            return false;
    }
    if (!StorePlace(messages.back().sequence))
        return false;
    for (const auto& host : all)
        cleaner.Done(host.first, host.second.back().sequence);
    return true;
}

bool Applier::ApplyTo(const std::string& node, const std::vector<Changes>& changes)
{
    if (hosts.count(node) == 0 && !Load(node))
        return false;
    HostFaults& host = hosts.at(node);
    const std::size_t before = host.All().size();
    for (const Changes& part : changes)
        for (const FaultChange& change : part.list)
            if (!host.Apply(change, part.journal, {reader->Created(), part.sequence, change.number}))
                std::clog << node << ": change " << change.number << " moves " << change.fault.summary.hdr.myId
                          << ", which is not there\n";
    known += host.All().size() - before;
    // Before what tells of them is gone.
    for (const std::string& subject : host.Obsolete())
        if (!cleaner.Purge(subject)) {
            problem = engine.Problem();
            return false;
        }
    host.Obsolete().clear();
    return true;
}

// Reads what the bucket has of a host.
bool Applier::Load(const std::string& node)
{
    HostFaults host(node);
    Reader values(engine, BucketStream(FaultBucket), KeySubject(FaultBucket, FaultKeys(node)));
    std::vector<StreamMessage> messages;
    Outcome outcome = Outcome::Done;
    while ((outcome = values.Read(MostValues, 0, &messages)) == Outcome::Done)
        for (const StreamMessage& message : messages) {
            FleetFault fault;
            const natsMsg* value = message.message.get();
            if (ReadFleetFault(natsMsg_GetData(value), static_cast<size_t>(natsMsg_GetDataLength(value)), &fault))
                host.Know(fault, message.sequence);
            else
                std::clog << message.Subject() << " has no fault\n";
        }
    if (outcome != Outcome::Nothing) {
        problem = engine.Problem();
        return false;
    }
    known += host.All().size();
    hosts.emplace(node, std::move(host));
    return true;
}

// Stores what is new of the faults of these nodes. Those remain in the list of which another centre has stored something
// meanwhile: they are to be read again.
bool Applier::StoreFaults(std::vector<std::string>* nodes)
{
    std::vector<std::string> again;
    std::vector<Write> writes;
    std::vector<HostFaults::Entry*> entries;
    for (const std::string& node : *nodes)
        for (auto& each : hosts.at(node).All()) {
            if (!each.second.isNew)
                continue;
            const HostFaults::Entry& entry = each.second;
            writes.emplace_back();
            writes.back().subject = KeySubject(FaultBucket, FaultKey(node, each.first));
            writes.back().bytes = entry.value.data();
            writes.back().size = entry.value.size();
            writes.back().expected = entry.revision;
            entries.push_back(&each.second);
            if (writes.size() == MostWrites && !StorePart(writes, entries))
                return false;
        }
    if (!StorePart(writes, entries))
        return false;
    for (const std::string& node : *nodes) {
        const HostFaults::Entries& all = hosts.at(node).All();
        if (std::none_of(all.begin(), all.end(), [](const auto& each) { return each.second.isNew; }))
            continue;
        known -= all.size();
        hosts.erase(node);
        again.push_back(node);
    }
    *nodes = again;
    return true;
}

bool Applier::StorePart(std::vector<Write>& writes, std::vector<HostFaults::Entry*>& entries)
{
    lease.Hold();
    if (!writes.empty() && writer.Store(writes) != Outcome::Done) {
        problem = writer.Problem().empty() ? engine.Problem() : writer.Problem();
        return false;
    }
    for (std::size_t i = 0; i < writes.size(); i++)
        if (writes[i].outcome == Outcome::Done) {
            entries[i]->revision = writes[i].revision;
            entries[i]->isNew = false;
        }
    writes.clear();
    entries.clear();
    return true;
}

bool Applier::StorePlace(uint64_t sequence)
{
    const Place next = {reader->Created(), sequence, LONG_MAX}; // all of that message
    const std::string value = std::to_string(next.stream) + " " + std::to_string(next.sequence);
    Write write;
    write.subject = KeySubject(FaultBucket, PlaceKey);
    write.bytes = value.data();
    write.size = value.size();
    write.expected = appliedRevision;
    const Outcome outcome = Store(engine, write);
    if (outcome != Outcome::Done) {
        problem = outcome == Outcome::Passed ? "another centre applies the changes, too" : engine.Problem();
        return false;
    }
    applied = next;
    appliedRevision = write.revision;
    return true;
}

} // namespace fleet
