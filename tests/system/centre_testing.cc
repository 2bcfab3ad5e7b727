// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/centre_testing.h"

#include <set>
#include <sstream>

#include <unistd.h>

#include <gtest/gtest.h>

#include "fleet/message.h"
#include "fleet/reader.h"

using namespace fleet;

namespace centre_testing {

EngineAddress Address(const char* name)
{
    EngineAddress address;
    address.servers = Urls;
    address.name = name;
    return address;
}

void Connect(Engine& engine)
{
    CHILD_CHECK(WaitUntil([&] { return engine.Connect(); }));
}

std::string LineOf(const std::string& node, const FaultSummary& fault)
{
    std::ostringstream line;
    line << node << "\t" << fault.hdr.myId << "\t" << fault.state << "\t" << fault.attached << "\t" << fault.text
         << "\n";
    return line.str();
}

void MadeUpHost::StorePieces(Engine& engine, const FaultChange& change)
{
    const std::string subject = PieceSubject(name, position.journal, change.number, 0);
    for (;;) {
        const Outcome outcome = engine.PublishPiece(subject, static_cast<const void*>(change.fault.attachment),
                                                    change.fault.attachment.Size());
        if (outcome == Outcome::Done)
            return;
        usleep(50000);
    }
}

void MadeUpHost::Add(Engine& engine, FaultChange::Kind kind, const FaultId& id, Buffer& message)
{
    const std::string text = static_cast<const char*>(id);
    FaultChange change;
    change.number = ++number;
    change.time = 1000000 + number;
    change.kind = kind;
    change.fault.summary.hdr.myId = id;
    if (kind == FaultChange::Raised) {
        change.fault.summary.text = ("text " + position.journal + " " + std::to_string(number)).c_str();
        change.fault.summary.state = FirstFaultState;
        if (random() % 5 == 0)
            change.fault.attachment.Append("bytes", 5);
        change.fault.summary.attached = static_cast<int>(change.fault.attachment.Size());
        faults.erase(text);
        faults.emplace(text, change.fault);
        if (change.fault.summary.attached > 0)
            StorePieces(engine, change);
    } else if (kind == FaultChange::Moved) {
        const char* states[] = {"working", "waiting_escalation", "escalated", "solved"};
        change.fault.summary.state = states[random() % 4];
        faults.at(text).summary.state = change.fault.summary.state;
    } else {
        faults.erase(text);
    }
    PackChange(change, message);
}

// Another journal, or the same one again, of which some faults are gone.
void MadeUpHost::Begin(Buffer& message)
{
    if (position.journal.empty() || random() % 2 == 0) {
        position.journal = name + "-" + std::to_string(seed) + "-" + std::to_string(++journals);
        number = 0;
    }
    for (auto at = faults.begin(); at != faults.end();)
        at = random() % 2 == 0 ? faults.erase(at) : std::next(at);
    FaultChange began;
    began.number = ++number;
    began.kind = FaultChange::Began;
    PackChange(began, message);
    for (auto& fault : faults) {
        fault.second.attachment.PurgeContents();
        fault.second.summary.attached = 0;
        FaultChange change;
        change.number = ++number;
        change.kind = FaultChange::Raised;
        change.fault.summary.hdr.myId = fault.second.summary.hdr.myId;
        change.fault.summary.text = fault.second.summary.text;
        change.fault.summary.state = fault.second.summary.state;
        PackChange(change, message);
    }
}

void MadeUpHost::Go(Engine& engine)
{
    Buffer message, stored;
    if (position.journal.empty()) {
        while (engine.Last(name, &position, &stored) == Outcome::Away)
            usleep(50000);
        position.journal.clear(); // of a daemon of that name before
    }
    if (position.journal.empty() || random() % 40 == 0)
        Begin(message);
    for (unsigned i = random() % 5 + 1; i > 0; i--) {
        const FaultId id(static_cast<long>(random() % 12), random() % 2 == 0 ? "alpha" : "beta.gamma");
        const bool isThere = faults.count(static_cast<const char*>(id)) != 0;
        const unsigned what = random() % 4;
        const FaultChange::Kind kind = what == 3   ? FaultChange::Cleared
                                       : what == 2 ? FaultChange::Moved
                                                   : FaultChange::Raised;
        Add(engine, isThere ? kind : FaultChange::Raised, id, message);
    }
    for (;;) {
        Position next = position;
        next.number = number;
        if (engine.Publish(name, message, &next) == Outcome::Done) {
            position = next;
            return;
        }
        Position last;
        for (Outcome outcome = Outcome::Away; outcome != Outcome::Done && outcome != Outcome::Nothing;) {
            usleep(50000);
            outcome = engine.Last(name, &last, &stored);
        }
        if (last.journal == position.journal && last.number == number) {
            position = last; // it was stored
            return;
        }
        CHILD_CHECK(last.sequence <= position.sequence); // less: a server that lags behind
    }
}

std::string MadeUpHost::Faults() const
{
    std::string lines;
    for (const auto& fault : faults)
        lines += LineOf(name, fault.second.summary);
    return lines;
}

std::string AskEngine(const std::function<std::string(Engine& engine)>& body)
{
    const TemporaryDirectory directory;
    const pid_t child = StartChild([&] {
        Engine engine(Address());
        Connect(engine);
        WriteFile(directory.File("answer"), body(engine));
    });
    EXPECT_EQ(WaitForExit(child), 0);
    return ReadFile(directory.File("answer"));
}

std::string FaultsInBucket()
{
    return AskEngine([](Engine& engine) {
        std::map<std::string, std::string> faults; // by subject
        Reader reader(engine, BucketStream(FaultBucket), KeySubject(FaultBucket, "fault.>"));
        std::vector<StreamMessage> messages;
        Outcome outcome = Outcome::Done;
        while ((outcome = reader.Read(1000, 0, &messages)) == Outcome::Done)
            for (const StreamMessage& message : messages) {
                FleetFault fault;
                const natsMsg* value = message.message.get();
                CHILD_CHECK(
                    ReadFleetFault(natsMsg_GetData(value), static_cast<size_t>(natsMsg_GetDataLength(value)), &fault));
                const std::string node(fault.last.node);
                CHILD_CHECK(
                    message.Subject() ==
                    KeySubject(FaultBucket, FaultKey(node, static_cast<const char*>(fault.last.fault.hdr.myId))));
                faults[message.Subject()] =
                    fault.last.kind == FaultChange::Cleared ? "" : LineOf(node, fault.last.fault);
            }
        CHILD_CHECK(outcome == Outcome::Nothing);
        std::string lines;
        for (const auto& fault : faults)
            lines += fault.second;
        return lines;
    });
}

std::string Subjects(Engine& engine)
{
    std::map<std::string, int> counts;
    Reader reader(engine, StreamName, ">");
    std::vector<StreamMessage> messages;
    Outcome outcome = Outcome::Done;
    while ((outcome = reader.Read(1000, 0, &messages)) == Outcome::Done)
        for (const StreamMessage& message : messages)
            counts[message.Subject()]++;
    CHILD_CHECK(outcome == Outcome::Nothing);
    std::string lines;
    for (const auto& count : counts)
        lines += count.first + " " + std::to_string(count.second) + "\n";
    return lines;
}

std::string SubjectsInStream() { return AskEngine(Subjects); }

} // namespace centre_testing
