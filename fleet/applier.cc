// SPDX-License-Identifier: BSD-2-Clause
#include "applier.h"

#include <algorithm>
#include <climits>
#include <iostream>
#include <sstream>

#include "message.h"

namespace fleet {

static const char PlaceKey[] = "applied";
static const int MostMessages = 500; // at once
static const int MostTries = 20;

Applier::Applier(Engine& engine, const std::string& name, long keepSeconds, long changeSeconds)
    : engine(engine), lease(engine, "applier", name), cleaner(engine, changeSeconds), table(engine, keepSeconds)
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
    return table.IsWhole() ? FollowChanges(milliseconds) : ReadBucket();
}

// What was known when the lease was lost, or something failed, may not be so any more: another centre may have gone further,
// and an engine that loses a server may lose what it has taken last. The place is read before the bucket, which has all up
// to it.
bool Applier::Begin()
{
    if (reader != nullptr && taken == lease.Taken())
        return true;
    reader.reset();
    if (!FindPlace())
        return false;
    table.Forget();
    taken = lease.Taken();
    cleaner.Begin(applied);
    reader = std::make_unique<Reader>(engine, StreamName, "fault.change.*", applied.sequence + 1, applied.stream);
    return true;
}

Applier::Step Applier::ReadBucket()
{
    const Outcome outcome = table.Read();
    return outcome == Outcome::Done || outcome == Outcome::Nothing ? Looked : Fail(table.Problem());
}

Applier::Step Applier::FollowChanges(long milliseconds)
{
    std::vector<StreamMessage> messages;
    Outcome outcome = reader->Read(MostMessages, 0, &messages);
    if (outcome == Outcome::Nothing) {
        const bool isBusy = cleaner.Run();
        if (!table.RemoveCleared(applied) && !isBusy)
            outcome = reader->Read(MostMessages, std::min(milliseconds, lease.Rest() + 1), &messages);
    }
    if (outcome == Outcome::Nothing)
        return Idle;
    if (outcome != Outcome::Done)
        return Fail(engine.Problem());
    if (Apply(messages))
        return Applied;
    reader.reset(); // from the place that the bucket tells
    return Stuck;
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
        for (const Changes& part : host.second)
            cleaner.Done(host.first, {reached.stream, part.sequence, 0});
    return true;
}

bool Applier::ApplyTo(const std::string& node, const std::vector<Changes>& changes)
{
    HostFaults& host = table.Of(node);
    for (const Changes& part : changes)
        for (const FaultChange& change : part.list)
            if (!host.Apply(change, part.journal, {reader->Created(), part.sequence, change.number}))
                std::clog << node << ": change " << change.number << " moves " << change.fault.summary.hdr.myId
                          << ", which is not there\n";
    // Before what tells of them is gone.
    for (const std::string& subject : host.Obsolete())
        if (!cleaner.Remove(subject)) {
            problem = engine.Problem();
            return false;
        }
    host.Obsolete().clear();
    return true;
}

// Those remain in the list whose changes are to be applied again.
bool Applier::StoreFaults(std::vector<std::string>* nodes)
{
    if (table.Store(nodes, [this] { lease.Hold(); }) == Outcome::Done)
        return true;
    problem = table.Problem();
    return false;
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
