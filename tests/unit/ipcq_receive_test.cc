// SPDX-License-Identifier: BSD-2-Clause
// Receiving events over a queue: one block, many, in segments, malformed, and from senders that go.
#include "tests/unit/ipcq_transfer_testing.h"

#include <functional>
#include <string>
#include <vector>

namespace {

using namespace ipcq_testing;

class IpcqReceive : public IpcqOneServer {
protected:
    pid_t peer = -1;

    void SetUp() override
    {
        IpcqOneServer::SetUp();
        peer = IdleProcess();
    }
    void TearDown() override
    {
        EndChild(peer);
        delete InternalQMsgsPtr;
        InternalQMsgsPtr = nullptr;
    }
};

TEST_F(IpcqReceive, DeliversWhatTheSenderGave)
{
    IPCQMessage msg = Event(12, peer, "data");
    msg.response_rqd = 1;
    msg.ack_rqd = 2;
    msg.result_code = 45;
    SendRecord(queue.id, me, msg);
    data.Append("earlier", 7);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 12);
    EXPECT_EQ(response, 1);
    EXPECT_EQ(ack, 2);
    EXPECT_EQ(status, 45);
    EXPECT_EQ(Bytes(data), "data");
    EXPECT_STREQ(server.LastSendersProgramName(), "program");
    EXPECT_STREQ(server.LastSendersNodeName(), "node");
    EXPECT_EQ(server.Sender(), peer);
}

TEST_F(IpcqReceive, ATimeOutBecomesAnEvent)
{
    SendRecord(queue.id, me, Event(12, peer, "data"));
    EXPECT_EQ(Receive(), 0);
    server.SetReceiveTimeOut(1);
    status = response = ack = 9;
    EXPECT_EQ(Receive(0, 77), 0);
    EXPECT_EQ(event, 77);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(response, 0);
    EXPECT_EQ(ack, 0);
    EXPECT_EQ(data.Size(), 0u);
    EXPECT_STREQ(server.LastSendersProgramName(), "Internal");
    EXPECT_STREQ(server.LastSendersNodeName(), ProgInfo::GetNodeName());
    EXPECT_EQ(server.Sender(), peer) << "as it was";
}

TEST_F(IpcqReceive, WithoutAQueueTheConnectionIsLost)
{
    server.Adopt(-1);
    data.Append("earlier", 7);
    EXPECT_EQ(Receive(), ErrorReporter::IPC_CONNECTION_LOST);
    EXPECT_EQ(data.Size(), 0u);
    EXPECT_STREQ(server.LastSendersProgramName(), "");
}

TEST_F(IpcqReceive, SavedMessagesComeFirstOldestFirst)
{
    for (short i = 1; i <= 3; i++)
        SendRecord(queue.id, me, Event(i, peer, std::to_string(i)));
    server.IPCDrain();
    EXPECT_EQ(server.Saved().Quantity(), 3u);
    EXPECT_EQ(Waiting(queue.id), 0u);
    SendRecord(queue.id, me, Event(4, peer, "4"));
    for (short i = 1; i <= 4; i++) {
        EXPECT_EQ(Receive(), 0);
        EXPECT_EQ(event, i);
        EXPECT_EQ(Bytes(data), std::to_string(i));
    }
    EXPECT_EQ(server.Saved().Quantity(), 0u);
}

TEST_F(IpcqReceive, ATransferSavesOtherMail)
{
    SendRecord(queue.id, me, Event(1, peer, "one"));
    SendRecord(queue.id, me, Event(2, peer, "two"));
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 1);
    EXPECT_EQ(Waiting(queue.id), 0u) << "drained after the first block";
    EXPECT_EQ(server.Saved().Quantity(), 1u);
}

TEST_F(IpcqReceive, InternalEventsComeFirst)
{
    SendRecord(queue.id, me, Event(1, peer, "queue"));
    EXPECT_EQ(server.IPCSend("me", "here", "v", me, "x", 3, 20, "in", 2, 0, 0, 33), 0);
    EXPECT_EQ(server.IPCSend("me", "here", "v", me, "x", 3, 21, nullptr, 0, 0, 0, 34), 0);
    ASSERT_NE(InternalQMsgsPtr, nullptr);
    EXPECT_EQ(InternalQMsgsPtr->Quantity(), 2u);
    EXPECT_EQ((*InternalQMsgsPtr)[0]->object, 3);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 20);
    EXPECT_EQ(status, 33);
    EXPECT_EQ(Bytes(data), "in");
    EXPECT_STREQ(server.LastSendersProgramName(), "me");
    EXPECT_STREQ(server.LastSendersNodeName(), "here");
    EXPECT_EQ(server.Sender(), me);
    EXPECT_EQ(Receive(peer), 0) << "a receive from a process passes internal events by";
    EXPECT_EQ(event, 1);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 21);
    EXPECT_EQ(data.Size(), 0u);
    server.Adopt(-1);
    EXPECT_EQ(server.IPCSend("me", "here", "v", me, "x", 3, 22, nullptr, 0, 0, 0, 0), 0);
    EXPECT_EQ(Receive(), 0) << "needs no queue";
    EXPECT_EQ(event, 22);
}

TEST_F(IpcqReceive, AnInternalEventCannotBeWaitedFor)
{
    const std::string warning = IpcWarning("IPCSend deadlock condition.");
    EXPECT_EQ(Reports([&] {
                  EXPECT_EQ(server.IPCSend("p", "n", "v", me, "x", 0, 20, "in", 2, 0, 1, 0), IpcError);
                  EXPECT_EQ(server.IPCSend("p", "n", "v", me, "x", 0, 20, "in", 2, 1, 0, 0), IpcError);
              }),
              warning + warning);
    server.SetReceiveTimeOut(1);
    EXPECT_EQ(Receive(0, 5), 0);
    EXPECT_EQ(event, 5) << "nothing is delivered";
}

TEST_F(IpcqReceive, MalformedFirstBlocksAreDropped)
{
    const int segment = copy_to_shmem("0123456789", 10);
    ASSERT_GE(segment, 0);
    typedef std::function<void(IPCQMessage&)> Change;
    const std::vector<std::pair<const char*, Change>> changes = {
        {"version", [](IPCQMessage& m) { std::memset(m.senders_version, 'x', 20); }},
        {"destination", [](IPCQMessage& m) { std::memset(m.destprog, 'x', 80); }},
        {"program", [](IPCQMessage& m) { std::memset(m.origprog, 'x', 80); }},
        {"node", [](IPCQMessage& m) { std::memset(m.orignode, 'x', 80); }},
        {"negative total", [](IPCQMessage& m) { m.alloc_data_length = -1; }},
        {"total below the block", [](IPCQMessage& m) { m.alloc_data_length = 3; }},
        {"total of nothing", [](IPCQMessage& m) { m.alloc_data_length = 0; }},
        {"total beyond its only block", [](IPCQMessage& m) { m.alloc_data_length = 5; }},
        {"offset", [](IPCQMessage& m) { m.curr_data_offset = 1; }},
        {"negative offset", [](IPCQMessage& m) { m.curr_data_offset = -4; }},
        {"negative parts", [](IPCQMessage& m) { m.parts_left = -1; }},
        {"too many parts", [](IPCQMessage& m) { m.parts_left = 2; }},
        {"more parts of nothing", [](IPCQMessage& m) { m.parts_left = 1, m.alloc_data_length = m.msg_data_len = 0; }},
        {"more than the parts can carry",
         [](IPCQMessage& m) { m.parts_left = 2, m.alloc_data_length = 4 + 2 * 1700 + 1; }},
        {"2 GB", [](IPCQMessage& m) { m.parts_left = 32767, m.alloc_data_length = 0x7FFFFFFF; }},
        {"the receiver as its sender", [&](IPCQMessage& m) { m.senders_pid = me; }},
        {"several blocks from nobody",
         [](IPCQMessage& m) { m.parts_left = 1, m.alloc_data_length = 5, m.senders_pid = 0; }},
        {"segment of nobody", [](IPCQMessage& m) { m.shmem_id = 0x7FFFFFFF, m.shmem_size = 4; }},
        {"beyond the segment", [&](IPCQMessage& m) { m.shmem_id = segment, m.shmem_size = m.alloc_data_length = 11; }},
        {"segment beyond the total", [&](IPCQMessage& m) { m.shmem_id = segment, m.shmem_size = 5; }},
        {"negative segment size", [&](IPCQMessage& m) { m.shmem_id = segment, m.shmem_size = -1; }},
    };
    long sent = 0;
    std::string reports;
    for (const bool saved : {false, true}) {
        for (const auto& change : changes) {
            IPCQMessage bad = Event(1, peer, "data");
            change.second(bad);
            SendRecord(queue.id, me, bad);
            SendRecord(queue.id, me, Event(2, peer, "good"));
            if (saved)
                server.IPCDrain();
            reports += Reports([&] { EXPECT_EQ(Receive(), 0); });
            sent++;
            EXPECT_EQ(event, 2) << change.first;
            EXPECT_EQ(Bytes(data), "good");
        }
    }
    for (const long length : {0L, 299L, 303L}) {
        SendRecord(queue.id, me, Event(1, peer, "data"), length);
        SendRecord(queue.id, me, Event(2, peer, "good"));
        reports += Reports([&] { EXPECT_EQ(Receive(peer), 0) << "a client's receive as well"; });
        sent++;
        EXPECT_EQ(event, 2);
    }
    LetReportsRest();
    SendRecord(queue.id, me, Event(1, peer, "data"), 1);
    SendRecord(queue.id, me, Event(2, peer, "good"));
    reports += Reports([&] { EXPECT_EQ(Receive(), 0); });
    EXPECT_EQ(MalformedIn(reports, queue.id), sent + 1);
    struct shmid_ds status;
    EXPECT_EQ(shmctl(segment, IPC_STAT, &status), 0) << "a malformed message's segment is left alone";
    delete_shmem_id(segment);
}

TEST_F(IpcqReceive, TakesDataFromASegment)
{
    IPCQMessage msg = Event(1, peer);
    msg.shmem_id = copy_to_shmem(Pattern(100000).data(), 100000);
    msg.shmem_size = msg.alloc_data_length = 90000;
    SendRecord(queue.id, me, msg);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), Pattern(90000));
    EXPECT_EQ(ObjectsOf("shm"), 0) << "the segment goes after the copy";
}

TEST_F(IpcqReceive, PutsBlocksTogetherInlineAndFromSegments)
{
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(3), [&](long channel) {
        SendRecord(queue.id, channel, LaterBlock(2, "234", 2));
        IPCQMessage segment = LaterBlock(5, "", 1);
        segment.shmem_id = copy_to_shmem("56", 2);
        segment.shmem_size = 2;
        SendRecord(queue.id, channel, segment);
        SendRecord(queue.id, channel, LaterBlock(7, "7", 0));
    });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 30);
    EXPECT_EQ(status, 6);
    EXPECT_EQ(server.Sender(), sender);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(ObjectsOf("shm"), 0);
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(sender);
}

TEST_F(IpcqReceive, BlocksOfAnEarlierTransferAreForgotten)
{
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(1),
                                    [&](long channel) { SendRecord(queue.id, channel, LaterBlock(2, "234567", 0)); });
    ASSERT_TRUE(WaitUntil([&] { return Waiting(queue.id) == 1; }));
    IPCQMessage stale = LaterBlock(2, "stale!", 0);
    stale.senders_pid = sender;
    SendRecord(queue.id, DataChannel(sender, me), stale);
    SendRecord(queue.id, DataChannel(sender, me), stale);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(sender);
}

TEST_F(IpcqReceive, TakesBlocksInWhateverOrderTheyCome)
{
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(3), [&](long channel) {
        SendRecord(queue.id, channel, LaterBlock(7, "7", 0));
        SendRecord(queue.id, channel, LaterBlock(4, "456", 1));
        SendRecord(queue.id, channel, LaterBlock(2, "23", 2));
    });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 30);
    EXPECT_EQ(Bytes(data), "01234567");
    EndChild(sender);
}

TEST_F(IpcqReceive, TakesAFirstBlockAtItsOwnOffset)
{
    IPCQMessage first = FirstBlock(1);
    first.curr_data_offset = 6;
    const pid_t sender = SendByHand(queue.id, me, first,
                                    [&](long channel) { SendRecord(queue.id, channel, LaterBlock(0, "234567", 0)); });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "23456701");
    EndChild(sender);
}

TEST_F(IpcqReceive, GivesTheCodeForALaterBlockThatDoesNotFit)
{
    const std::vector<std::pair<const char*, std::function<void(IPCQMessage&)>>> changes = {
        {"event", [](IPCQMessage& m) { m.event = 30; }},
        {"acknowledgement", [](IPCQMessage& m) { m.event = Ack; }},
        {"gap", [](IPCQMessage& m) { m.curr_data_offset = 3; }},
        {"overlap", [](IPCQMessage& m) { m.curr_data_offset = 1; }},
        {"negative offset", [](IPCQMessage& m) { m.curr_data_offset = -2; }},
        {"beyond the total", [](IPCQMessage& m) { m.msg_data_len = 7; }},
        {"another total", [](IPCQMessage& m) { m.alloc_data_length = 9; }},
        {"more to come", [](IPCQMessage& m) { m.parts_left = 1; }},
        {"less to come", [](IPCQMessage& m) { m.parts_left = -1; }},
        {"short of the total", [](IPCQMessage& m) { m.msg_data_len = 5; }},
        {"segment of nobody", [](IPCQMessage& m) { m.shmem_id = 0x7FFFFFFF, m.shmem_size = 6; }},
        {"negative length", [](IPCQMessage& m) { m.msg_data_len = -1; }},
    };
    for (const auto& change : changes) {
        const auto sendBad = [&](long channel) {
            IPCQMessage bad = LaterBlock(2, "234567", 0);
            change.second(bad);
            CHILD_CHECK(SendRecord(queue.id, channel, bad, 310) == 0);
            CHILD_CHECK(SendRecord(queue.id, me, Event(2, getpid(), "good")) == 0);
        };
        const pid_t sender = SendByHand(queue.id, me, FirstBlock(1), sendBad);
        EXPECT_EQ(Reports([&] { EXPECT_EQ(Receive(), IpcError); }), "") << change.first;
        EXPECT_EQ(Bytes(data).substr(0, 2), "01") << "what came stays";
        EXPECT_EQ(Receive(sender), 0) << "the next event comes";
        EXPECT_EQ(event, 2);
        EXPECT_EQ(Bytes(data), "good");
        EXPECT_EQ(Waiting(queue.id), 0u) << "and nothing is left";
        EndChild(sender);
    }
}

TEST_F(IpcqReceive, ASenderThatIsGoneAtOnceIsNoticed)
{
    IPCQMessage first = FirstBlock(1);
    first.senders_pid = DeadProcess();
    SendRecord(queue.id, me, first);
    EXPECT_EQ(Receive(), SenderGone);
    EXPECT_EQ(Bytes(data).substr(0, 2), "01") << "what came stays";
    EXPECT_EQ(data.Size(), 8u);
}

TEST_F(IpcqReceive, DataThatMemoryDoesNotHoldIsReported)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    const pid_t child = StartChild([&] {
        SendRecord(queue.id, getpid(), [&] {
            IPCQMessage msg = Event(1, peer, Pattern(1700));
            msg.parts_left = 30000;
            msg.alloc_data_length = 30000 * 1700;
            return msg;
        }());
        const MemoryLimit limit(8 << 20);
        Receiver small(queue.id);
        const std::string reports = Reports([&] {
            CHILD_CHECK(small.IPCReceive(event, 0, 0, data, status, response, ack) == ErrorReporter::OUT_OF_MEMORY);
        });
        CHILD_CHECK(reports ==
                    Report(ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, "Receieve event data storage"));

        static char big[24 << 20];
        CHILD_CHECK(Reports([&] {
                        CHILD_CHECK(small.IPCSend("p", "n", "v", getpid(), "d", 0, 1, big, sizeof big, 0, 0, 0) ==
                                    ErrorReporter::OUT_OF_MEMORY);
                    }) == Report(ErrorReporter::WARNING, ErrorReporter::OUT_OF_MEMORY, "IPCSend internal data"));
    });
    EXPECT_EQ(WaitForExit(child), 0);
}

} // namespace
