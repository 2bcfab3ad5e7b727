// SPDX-License-Identifier: BSD-2-Clause
// Transfers beside which others go on: pairs that share their channels, records of strangers, mail in floods.
#include "tests/unit/ipcq_transfer_testing.h"

#include <string>
#include <vector>

#include <sys/wait.h>

namespace {

using namespace ipcq_testing;

class IpcqBystanders : public IpcqOneServer {
protected:
    // A record that looks as if a pair of strangers had put it on a channel for `addressee`.
    static IPCQMessage StrangersBlock(long channel, long base, pid_t addressee)
    {
        IPCQMessage block = LaterBlock(2, "not yours", 3);
        block.senders_pid = static_cast<int32_t>(addressee - (channel - base));
        return block;
    }
    // What waits on a channel afterwards is this record, byte for byte.
    void ExpectOnly(const IPCQMessage& record, long channel) const
    {
        IPCQMessage left;
        ASSERT_EQ(TakeRecord(queue.id, channel, &left), 300 + record.msg_data_len);
        EXPECT_EQ(std::memcmp(&left.senders_version, &record.senders_version, sizeof left - sizeof left.mtype), 0);
        EXPECT_EQ(Waiting(queue.id), 0u);
    }
};

TEST_F(IpcqBystanders, AStrangersBlockIsNeitherUsedNorLost)
{
    const pid_t other = IdleProcess();
    IPCQMessage strangers;
    long channel = 0;
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(1), [&](long dataChannel) {
        CHILD_CHECK(SendRecord(queue.id, dataChannel, StrangersBlock(dataChannel, DataChannel(0, 0), other)) == 0);
        usleep(300000); // the receiver has it, alone
        CHILD_CHECK(SendRecord(queue.id, dataChannel, LaterBlock(2, "234567", 0)) == 0);
    });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    channel = DataChannel(sender, me);
    strangers = StrangersBlock(channel, DataChannel(0, 0), other);
    ExpectOnly(strangers, channel);
    EndChild(sender);
    EndChild(other);
}

TEST_F(IpcqBystanders, AStrangersBlockThatIsThereBeforeTheTransferStays)
{
    const pid_t other = IdleProcess();
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(1), [&](long channel) {
        CHILD_CHECK(SendRecord(queue.id, channel, LaterBlock(2, "234567", 0)) == 0);
    });
    const long channel = DataChannel(sender, me);
    const IPCQMessage strangers = StrangersBlock(channel, DataChannel(0, 0), other);
    SendRecord(queue.id, channel, strangers);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    ExpectOnly(strangers, channel);
    EndChild(sender);
    EndChild(other);
}

TEST_F(IpcqBystanders, AStrangersAcknowledgementIsNeitherUsedNorLost)
{
    const pid_t other = IdleProcess();
    const std::string text = Pattern(1700);
    const pid_t sender = StartChild([&] {
        Client client(nullptr);
        client.Adopt(queue.id, me);
        CHILD_CHECK(client.send_event(8, text.data(), 1700) == 0);
    });
    const long channel = AckChannel(sender, me);
    const IPCQMessage strangers = Event(Ack, other + (channel - AckChannel(0, 0)));
    SendRecord(queue.id, channel, strangers);
    usleep(300000); // the sender has it, alone
    EXPECT_EQ(Receive(), 0);
    EXPECT_TRUE(Bytes(data) == text);
    EXPECT_EQ(WaitForExit(sender), 0);
    ExpectOnly(strangers, channel);
    EndChild(other);
}

// The server's id is in the middle of its clients', so that each pair of them shares the channels.
TEST_F(IpcqBystanders, ClientsOnBothSidesOfTheServersIdAreAllAnswered)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs process ids of its choice";
    const pid_t middle = 20000;
    const int pairs = 4;
    const int rounds = 60;
    MakeKeyFile("middle");
    SetQueueLimit(16384);
    const pid_t serverProcess = StartChildAt(middle, [&] {
        Server self("middle");
        CHILD_CHECK(self.Created());
        short e, r, a;
        Buffer got;
        for (int i = 0; i < 2 * pairs * rounds; i++) {
            CHILD_CHECK(self.receive_event(e, got, r, a) == -1);
            const std::string text = Bytes(got);
            CHILD_CHECK(self.send_response(e, 0, text.data(), long(text.size())) == 0);
        }
        CHILD_CHECK(WaitUntil([&] { return Waiting(self.Queue()) == 0; }));
    });
    ASSERT_TRUE(WaitUntil([] { return Client("middle").Connected() != 0; }));
    std::vector<pid_t> clients;
    for (int i = 1; i <= pairs; i++)
        for (const pid_t pid : {middle - i, middle + i})
            clients.push_back(StartChildAt(pid, [&] {
                Client client("middle");
                CHILD_CHECK(client.Connected());
                const std::string text = Pattern(static_cast<size_t>(15000 + pid % 7 * 1000));
                for (short round = 1; round <= rounds; round += 3) {
                    for (short i = 0; i < 3; i++) // the server answers while others are sent
                        CHILD_CHECK(client.send_event_with_response(static_cast<short>(round + i), text.data(),
                                                                    long(text.size())) == 0);
                    for (short i = 0; i < 3; i++) {
                        short e;
                        Buffer got;
                        CHILD_CHECK(client.receive_response(e, got) == 0);
                        CHILD_CHECK(e == round + i && Bytes(got) == text);
                    }
                }
            }));
    for (const pid_t pid : clients)
        EXPECT_EQ(WaitForExit(pid, 60), 0);
    EXPECT_EQ(WaitForExit(serverProcess), 0);
    EXPECT_EQ(ObjectsOf("msg"), 1) << "the fixture's";
}

TEST_F(IpcqBystanders, WhoWaitsForAnAcknowledgementGivesOneToThatPartner)
{
    const pid_t partner = StartChild([&] {
        IPCQMessage first = FirstBlock(1), block;
        first.senders_pid = getpid();
        CHILD_CHECK(SendRecord(queue.id, me, first) == 0);
        CHILD_CHECK(TakeRecord(queue.id, AckChannel(getpid(), me), &block, 0) == 300);
        CHILD_CHECK(SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "234567", 0)) == 0);
        CHILD_CHECK(TakeRecord(queue.id, getpid(), &block, 0) == 2000);
        CHILD_CHECK(SendRecord(queue.id, AckChannel(me, getpid()), Event(Ack, getpid())) == 0);
        CHILD_CHECK(TakeRecord(queue.id, DataChannel(me, getpid()), &block, 0) == 300);
        pause();
    });
    EXPECT_EQ(server.IPCSend("p", "n", "v", partner, "d", 0, 1, Pattern(1700).data(), 1700, 0, 0, 0), 0);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 30);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_TRUE(WaitUntil([&] { return Waiting(queue.id) == 0; }))
        << "the partner takes its last block in its own time";
    EndChild(partner);
}

TEST_F(IpcqBystanders, AnEventThatBeginsInASegmentIsAcknowledgedInItsTurn)
{
    const pid_t partner = StartChild([&] {
        IPCQMessage first = FirstBlock(1), block;
        first.senders_pid = getpid();
        first.shmem_id = copy_to_shmem("01", 2);
        first.shmem_size = 2;
        first.msg_data_len = 0;
        CHILD_CHECK(SendRecord(queue.id, me, first) == 0);
        CHILD_CHECK(TakeRecord(queue.id, getpid(), &block, 0) == 2000);
        usleep(300000);
        CHILD_CHECK(TakeRecord(queue.id, AckChannel(getpid(), me), &block) < 0);
        CHILD_CHECK(SendRecord(queue.id, AckChannel(me, getpid()), Event(Ack, getpid())) == 0);
        CHILD_CHECK(TakeRecord(queue.id, DataChannel(me, getpid()), &block, 0) == 300);
        CHILD_CHECK(TakeRecord(queue.id, AckChannel(getpid(), me), &block, 0) == 300);
        CHILD_CHECK(SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "234567", 0)) == 0);
        pause();
    });
    EXPECT_EQ(server.IPCSend("p", "n", "v", partner, "d", 0, 1, Pattern(1700).data(), 1700, 0, 0, 0), 0);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(ObjectsOf("shm"), 0);
    EndChild(partner);
}

TEST_F(IpcqBystanders, ADrainEndsUnderAFloodAndSavesSoManyOnly)
{
    const unsigned most = 8192;
    SetQueueBytes(queue.id, 16384);
    const IPCQMessage small = Event(1, me + 1, "x");
    const pid_t flood = StartChild([&] {
        while (SendRecord(queue.id, me, small) == 0) {
        }
    });
    ASSERT_TRUE(WaitUntil([&] {
        server.IPCDrain(); // ends, though the flood does not
        return server.Saved().Quantity() == most;
    }));
    server.IPCDrain();
    EXPECT_EQ(server.Saved().Quantity(), most);
    EXPECT_TRUE(WaitUntil([&] { return Waiting(queue.id) > 40; })) << "the rest stays on the queue";

    EndChild(flood);
}

TEST_F(IpcqBystanders, AWaitSavesAsManyAgainAndThenMeetsItsOwnLimit)
{
    const unsigned most = 8192;
    const pid_t other = IdleProcess();
    const auto fillWithMail = [&] {
        SetQueueBytes(queue.id, 16384);
        const IPCQMessage small = Event(1, other, "x");
        while (SendRaw(queue.id, me, &small.senders_version, 301, IPC_NOWAIT) == 0) {
        }
    };
    const auto send = [&] { return server.IPCSend("p", "n", "v", other, "d", 0, 1, "data", 4, 0, 0, 0); };
    server.SetSendTimeOut(10);
    while (server.Saved().Quantity() < most)
        server.Saved().AddItem(new IPCQMsg());
    fillWithMail();
    const unsigned long waiting = Waiting(queue.id);
    EXPECT_EQ(send(), 0);
    EXPECT_EQ(server.Saved().Quantity(), most + waiting);

    while (server.Saved().Quantity() < 2 * most)
        server.Saved().AddItem(new IPCQMsg());
    fillWithMail();
    EXPECT_EQ(send(), SendTimeout);
    EXPECT_EQ(server.Saved().Quantity(), 2 * most);
    EndChild(other);
}

TEST_F(IpcqBystanders, AServerUnderAFloodAnswersOthers)
{
    const pid_t server2 = StartServer("flooded", [](Server& self) {
        short e, r, a;
        Buffer got;
        while (self.receive_event(e, got, r, a) == -1 && e != 99)
            if (r != 0)
                CHILD_CHECK(self.send_response(e, 0, nullptr, 0) == 0);
    });
    const pid_t flood = StartChild([] {
        Client client("flooded");
        while (client.send_event(1, "x", 1) == 0) {
        }
    });
    Client client("flooded");
    ASSERT_TRUE(client.Connected());
    for (short i = 0; i < 20; i++) {
        short e = -1;
        Buffer got;
        ASSERT_EQ(client.send_event_with_response(i, Pattern(20000).data(), 20000), 0);
        ASSERT_EQ(client.receive_response(e, got), 0);
        EXPECT_EQ(e, i);
    }
    EndChild(flood);
    EXPECT_EQ(client.send_event(99, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(server2), 0);
}

} // namespace
