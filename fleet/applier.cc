// SPDX-License-Identifier: BSD-2-Clause
#include "applier.h"

#include <algorithm>
#include <climits>
#include <iostream>

#include "message.h"

namespace fleet {

static const int MostMessages = 500; // at once

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
    isSure = isSure && isActive && taken == lease.Taken();
    if (!isSure)
        reader.reset();
    if (!isActive)
        return engine.Connection() == nullptr || lease.Failed() ? Fail(engine.Problem()) : Idle;
    if (!isSure && table.Begin() != Outcome::Done)
        return Fail(table.Problem());
    isSure = true;
    taken = lease.Taken();
    if (!table.IsWhole())
        return ReadBucket();
    if (reader == nullptr)
        Begin();
    return FollowChanges(milliseconds);
}

// What was known when the lease was lost, or something failed, may not be so any more: another centre may have gone further,
// and an engine that loses a server may lose what it has taken last. So all is read anew, and goes on from where that is.
void Applier::Begin()
{
    applied = table.Applied();
    appliedRevision = table.AppliedRevision();
    cleaner.Begin(applied);
    reader = std::make_unique<Reader>(engine, StreamName, "fault.change.*", applied.sequence + 1, applied.stream);
}

Applier::Step Applier::ReadBucket()
{
    const Outcome outcome = table.Read();
    isSure = outcome != Outcome::Refused;
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
    isSure = Apply(messages); // else from the place that the bucket tells
    return isSure ? Applied : Stuck;
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
    for (const auto& host : all) {
        if (!ApplyTo(host.first, host.second))
            return false;
        nodes.push_back(host.first);
    }
    const Place next = {reader->Created(), messages.back().sequence, LONG_MAX}; // all of that message
    if (!StoreFaults(nodes) || !StorePlace(next))
        return false;
    for (const auto& host : all)
        for (const Changes& part : host.second)
            cleaner.Done(host.first, {applied.stream, part.sequence, 0});
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
    // Before what tells of them is gone. They are in the stream before the changes that they belong to.
    for (const std::string& subject : host.Obsolete())
        if (!cleaner.Remove(subject, changes.back().sequence)) {
            problem = engine.Problem();
            return false;
        }
    host.Obsolete().clear();
    return true;
}

bool Applier::StoreFaults(const std::vector<std::string>& nodes)
{
    const Outcome outcome = table.Store(nodes, [this] { lease.Hold(); });
    if (outcome == Outcome::Done)
        return true;
    problem = outcome == Outcome::Passed ? "another centre stores the same faults" : table.Problem();
    return false;
}

bool Applier::StorePlace(const Place& next)
{
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
