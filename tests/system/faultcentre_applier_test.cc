// SPDX-License-Identifier: BSD-2-Clause
// The faults that the centres make of the changes of many hosts, and what they remove.
#include <string>
#include <vector>

#include "tests/system/applier_testing.h"

using namespace centre_testing;
using namespace fleet;

namespace {

TEST_F(ApplierTest, MakesTheFaultsOfAllHosts)
{
    StartHosts(100, 0);
    StartApplier(0);
    const std::string expected = Expected();
    EXPECT_GT(CountOf(expected, "\n"), 2 * Hosts);
    ExpectFaults(expected);
    ExpectTrimmed(Attachments(expected));
    EndApplier(0);
    StartApplier(1);
    ASSERT_TRUE(OneIsActive());
    StartHosts(1, 0, 2); // of the same names: what was there before is gone
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, OnlyWhatIsAppliedIsRemovedAndTheLastMessageStays)
{
    AskEngine([](Engine& connection) {
        Cleaner cleaner(connection, 1);
        Position position;
        position.journal = "j";
        Buffer data;
        for (const char* node : {"one", "two", "three"}) {
            position.sequence = 0;
            for (int i = 0; i < 3; i++) {
                position.number = i + 1;
                CHILD_CHECK(connection.Publish(node, data, &position) == Outcome::Done);
            }
        }
        cleaner.Done("one", {1, 1, 0}); // the first of the stream, behind which two have not been applied
        for (const uint64_t sequence : {4, 5})
            cleaner.Done("two", {1, sequence, 0});
        for (const uint64_t sequence : {7, 8, 9})
            cleaner.Done("three", {1, sequence, 0});
        const std::string before = Subjects(connection);
        cleaner.Run();
        CHILD_CHECK(Subjects(connection) == before); // not at once
        CHILD_CHECK(WaitUntil([&] { return cleaner.Run(), Subjects(connection) != before; }));
        while (cleaner.Run()) {
        }
        return std::string();
    });
    EXPECT_EQ(SubjectsInStream(), "fault.change.one 3\nfault.change.three 1\nfault.change.two 2\n");
}

// The subjects of the messages that a connection has sent, each with the number that is expected there.
static std::string Sent(natsSubscription* subscription)
{
    std::string lines;
    natsMsg* message = nullptr;
    while (natsSubscription_NextMsg(&message, subscription, 200) == NATS_OK) {
        const char* expected = nullptr;
        natsMsgHeader_Get(message, "Nats-Expected-Last-Subject-Sequence", &expected);
        lines += natsMsg_GetSubject(message) + std::string(" ") + (expected == nullptr ? "-" : expected) + "\n";
        natsMsg_Destroy(message);
    }
    return lines;
}

// Servers of a cluster that refuse such a message may become different.
TEST_F(ApplierTest, NobodyExpectsNothingWithoutALook)
{
    EXPECT_EQ(AskEngine([](Engine& connection) {
                  natsSubscription *values = nullptr, *pieces = nullptr;
                  CHILD_CHECK(natsConnection_SubscribeSync(&values, connection.Connection(), "$KV.>") == NATS_OK);
                  CHILD_CHECK(natsConnection_SubscribeSync(&pieces, connection.Connection(), "fault.piece.>") ==
                              NATS_OK);
                  Lease first(connection, "applier", "one"), second(connection, "applier", "two");
                  CHILD_CHECK(first.Hold() && !second.Hold() && !second.Failed());
                  for (int i = 0; i < 2; i++)
                      CHILD_CHECK(connection.PublishPiece("fault.piece.one.j.1.0", "piece", 5) == Outcome::Done);
                  std::string sent = Sent(values) + Sent(pieces);
                  natsSubscription_Destroy(values);
                  natsSubscription_Destroy(pieces);
                  return sent;
              }),
              "$KV.centre.applier 0\nfault.piece.one.j.1.0 -\nfault.piece.one.j.1.0 -\n");
}

TEST_F(ApplierTest, WhatOthersHaveAppliedAndLeftIsRemoved)
{
    AskEngine([](Engine& connection) {
        Buffer data;
        for (const char* node : {"one", "two"}) {
            Position position;
            position.journal = "j";
            for (position.number = 1; position.number <= 3; position.number++)
                CHILD_CHECK(connection.Publish(node, data, &position) == Outcome::Done);
        }
        CHILD_CHECK(connection.Settle("one") == Outcome::Done);
        Reader reader(connection, StreamName, "fault.change.*");
        std::vector<StreamMessage> messages;
        CHILD_CHECK(reader.Read(1, 0, &messages) == Outcome::Done);
        Cleaner cleaner(connection, 0);
        cleaner.Begin({reader.Created(), 5, 0}); // the sixth has not been applied
        for (int i = 0; i < 3; i++)
            cleaner.Run();
        return std::string();
    });
    EXPECT_EQ(SubjectsInStream(), "fault.change.one 1\nfault.change.two 2\n");
}

TEST_F(ApplierTest, AppliedAgainTheyAreTheSame)
{
    StartHosts(60, 0);
    const std::string expected = Expected();
    for (int i = 0; i < 3; i++) {
        StartApplier(i);
        ExpectFaults(expected);
        EndApplier(i);
        const std::string place = AskEngine([](Engine& connection) { // as if the crash had come before it was stored
            Write write;
            std::string value;
            CHILD_CHECK(Get(connection, FaultBucket, "applied", &value, &write.expected) == Outcome::Done);
            write.subject = KeySubject(FaultBucket, "applied");
            const std::string before = value.substr(0, value.find(' ')) + " 0";
            write.bytes = before.data();
            write.size = before.size();
            CHILD_CHECK(Store(connection, write) == Outcome::Done);
            return value;
        });
        EXPECT_FALSE(place.empty());
    }
}

TEST_F(ApplierTest, OneIsActiveAndAnotherGoesOn)
{
    StartHosts(60, 5000);
    for (int i = 0; i < Most; i++)
        StartApplier(i);
    ASSERT_TRUE(OneIsActive());
    for (int i = 0; i < 2; i++) {
        const int first = Active();
        ASSERT_GE(first, 0);
        EndApplier(first);
        EXPECT_TRUE(OneIsActive()) << "another one";
    }
    EXPECT_EQ(static_cast<int>(shared->active[0]) + shared->active[1] + shared->active[2], 1);
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, OneThatWasStoppedDoesNoHarm)
{
    StartHosts(150, 3000);
    StartApplier(0);
    StartApplier(1);
    for (int i = 0; i < 4; i++) {
        ASSERT_TRUE(OneIsActive());
        const int stopped = Active();
        ASSERT_GE(stopped, 0);
        usleep(static_cast<useconds_t>(i * 7000)); // it is to be stopped at its work
        kill(appliers[stopped], SIGSTOP);
        shared->active[stopped] = false;
        EXPECT_TRUE(OneIsActive()) << "the other one goes on";
        kill(appliers[stopped], SIGCONT);
    }
    ExpectFaults(Expected());
}

TEST_F(ApplierTest, OneThatWasStoppedBringsNothingBack)
{
    StartApplier(0);
    EXPECT_TRUE(OneIsActive());
    StartHosts(40, 1500);
    EXPECT_TRUE(WaitUntil([&] { return shared->stored > 4 * Hosts; }));
    kill(appliers[0], SIGSTOP); // with changes that it has read and not stored, or is about to be given
    const long runs = shared->runs[0];
    StartApplier(1);
    const std::string expected = Expected();
    ExpectFaults(expected);
    kill(appliers[0], SIGCONT);
    EXPECT_TRUE(WaitUntil([&] { return shared->runs[0] > runs + 1; }));
    EXPECT_EQ(FaultsInBucket(), expected);
}

TEST_F(ApplierTest, AValueIsStoredInThePlaceOfTheOneThatIsKnown)
{
    const std::string seen = AskEngine([](Engine& connection) {
        BulkWriter writer(connection);
        std::string outcomes;
        std::vector<uint64_t> revisions = {0};
        const auto store = [&](uint64_t expected) {
            std::vector<Write> writes(1);
            writes[0].subject = KeySubject(FaultBucket, "fault.a.b");
            writes[0].bytes = "value";
            writes[0].size = 5;
            writes[0].expected = expected;
            Write alone = writes[0];
            CHILD_CHECK(writer.Store(writes) == Outcome::Done);
            outcomes += writes[0].outcome == Outcome::Done ? "done " : "passed ";
            if (writes[0].outcome == Outcome::Done)
                revisions.push_back(writes[0].revision);
            else
                CHILD_CHECK(Store(connection, alone) == Outcome::Passed);
        };
        store(0);
        store(0);
        store(revisions[1]);
        store(revisions[1]);
        CHILD_CHECK(js_DeleteMsg(connection.Streams(), BucketStream(FaultBucket).c_str(), revisions[2], nullptr,
                                 nullptr) == NATS_OK);
        store(revisions[2]);
        store(0);
        return outcomes;
    });
    EXPECT_EQ(seen, "done passed done passed passed done ");
}

TEST_F(ApplierTest, AClearedFaultIsForgottenAfterAWhile)
{
    StartHosts(40, 0);
    StartApplier(0, 1);
    const std::string expected = Expected();
    ExpectFaults(expected);
    const auto keys = [] {
        return AskEngine([](Engine& connection) {
            jsStreamInfo* info = nullptr;
            CHILD_CHECK(js_GetStreamInfo(&info, connection.Streams(), BucketStream(FaultBucket).c_str(), nullptr,
                                         nullptr) == NATS_OK);
            std::string count = std::to_string(info->State.Msgs);
            jsStreamInfo_Destroy(info);
            return count;
        });
    };
    const std::string wanted = std::to_string(CountOf(expected, "\n") + 2); // and the place and the fence
    EXPECT_TRUE(WaitUntil([&] { return keys() == wanted; })) << keys() << " of " << wanted;
    StartHosts(40, 0, 3);
    ExpectFaults(Expected());
}

} // namespace
