// SPDX-License-Identifier: BSD-2-Clause
// Partners that die, stop or fall silent in the middle of a transfer: how soon that is noticed, and that nothing of it
// stays on the queue.
#include "tests/unit/ipcq_transfer_testing.h"

#include <string>

namespace {

using namespace ipcq_testing;

const double Soon = 2; // far below the ten seconds of a step, on a busy machine too

const char* const Broken = "Multi-block event dropped, a block does not fit.";

class IpcqDeparted : public IpcqOneServer {
protected:
    void SetUp() override
    {
        IpcqOneServer::SetUp();
        SetQueueBytes(queue.id, 16384);
    }
    short Send(pid_t to, size_t size)
    {
        const std::string text = Pattern(size);
        return server.IPCSend("p", "n", "v", to, "d", 0, 1, text.data(), long(size), 0, 0, 0);
    }
    // A receiver by hand: acknowledges the first block, takes some others, and then does as `then` says.
    pid_t ReceiveByHand(int blocks, const std::function<void()>& then) const
    {
        return StartChild([=] {
            IPCQMessage block;
            CHILD_CHECK(TakeRecord(queue.id, getpid(), &block, 0) == 2000);
            CHILD_CHECK(SendRecord(queue.id, AckChannel(me, getpid()), Event(Ack, getpid())) == 0);
            for (int i = 0; i < blocks; i++)
                CHILD_CHECK(TakeRecord(queue.id, DataChannel(me, getpid()), &block, 0) > 0);
            then();
        });
    }
};

TEST_F(IpcqDeparted, AnAnswerToAProcessThatDiesIsTakenBack)
{
    const pid_t client = ReceiveByHand(3, [] {}); // a zombie then: nobody waits for it
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Send(client, 1000000), SenderGone); }), Soon);
    EXPECT_EQ(Waiting(queue.id), 0u);
    EXPECT_EQ(WaitForExit(client), 0);
}

TEST_F(IpcqDeparted, AWaitForAnAcknowledgementEndsWithItsPartner)
{
    const pid_t client = StartChild([] { usleep(300000); });
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Send(client, 5000), ReceiverGone); }), Soon);
    EXPECT_EQ(Waiting(queue.id), 0u) << "the first block is taken back as well";
    EXPECT_EQ(WaitForExit(client), 0);
}

TEST_F(IpcqDeparted, AWaitForABlockEndsWithItsPartner)
{
    const pid_t sender = StartChild([&] {
        IPCQMessage first = FirstBlock(3);
        first.senders_pid = getpid();
        SendRecord(queue.id, me, first);
        IPCQMessage acknowledgement;
        TakeRecord(queue.id, AckChannel(getpid(), me), &acknowledgement, 0);
        SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "23", 2));
        usleep(300000);
    });
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Receive(), ReceiverGone); }), Soon);
    EXPECT_EQ(Bytes(data).substr(0, 4), "0123");
    EXPECT_EQ(WaitForExit(sender), 0);
}

TEST_F(IpcqDeparted, AWaitForRoomEndsWithItsPartner)
{
    Fill(queue.id, 9, 300);
    const pid_t client = StartChild([] { usleep(300000); });
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Send(client, 100), SenderGone); }), Soon);
    EXPECT_EQ(WaitForExit(client), 0);
    const pid_t zombie = ZombieProcess();
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Send(zombie, 100), SenderGone); }), Soon);
    WaitForExit(zombie);
}

TEST_F(IpcqDeparted, AStoppedPartnerCostsTheTransferLimitAndNoRoom)
{
    server.SetTransferTimeOut(1);
    const pid_t client = ReceiveByHand(3, [] { raise(SIGSTOP); });
    EXPECT_LT(Seconds([&] { EXPECT_EQ(Send(client, 1000000), SendTimeout); }), 1 + Soon);
    EXPECT_EQ(Waiting(queue.id), 0u);
    const std::string silent =
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_RECV_TIME_OUT,
               "Multi-block event dropped, process " + std::to_string(client) + " was silent for 1 seconds.");
    EXPECT_EQ(Reports([&] { EXPECT_EQ(Send(client, 5000), Timeout); }), silent) << "no acknowledgement";
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(client);
}

TEST_F(IpcqDeparted, AClientLeavesItsFirstBlockToTheServer)
{
    Client client(nullptr);
    const pid_t stopped = StartChild([] { raise(SIGSTOP); });
    client.Adopt(queue.id, stopped);
    client.SetTransferTimeOut(1);
    CaptureStderr([&] { EXPECT_EQ(client.send_event(1, Pattern(5000).data(), 5000), Timeout); });
    IPCQMessage block;
    EXPECT_EQ(TakeRecord(queue.id, stopped, &block), 2000);
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(stopped);
}

TEST_F(IpcqDeparted, WhatWaitsForADeadClientIsRemovedWhileTheServerIsIdle)
{
    const pid_t client = IdleProcess();
    EXPECT_EQ(Send(client, 1000), 0);
    EXPECT_EQ(Send(client, 1000), 0);
    EXPECT_EQ(Waiting(queue.id), 2u);
    const pid_t next = StartChild([&] {
        usleep(100000);
        kill(client, SIGKILL);
        CHILD_CHECK(WaitUntil([&] { return Waiting(queue.id) == 0; }, 5));
        SendRecord(queue.id, me, Event(7, getpid()));
    });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 7);
    EXPECT_EQ(WaitForExit(next), 0);
    WaitForExit(client);
}

TEST_F(IpcqDeparted, WhatWaitsForADeadClientGivesWayToTheNextAnswer)
{
    const pid_t client = IdleProcess();
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(Send(client, 1200), 0);
    kill(client, SIGKILL);
    const pid_t other = IdleProcess();
    EXPECT_LT(Seconds([&] {
                  for (int i = 0; i < 10; i++)
                      EXPECT_EQ(Send(other, 1200), 0);
              }),
              Soon);
    EXPECT_EQ(Waiting(queue.id), 10u);
    WaitForExit(client);
    EndChild(other);
}

TEST_F(IpcqDeparted, ASilentSenderHoldsAServerForTheTransferLimitOnly)
{
    MakeKeyFile("patient");
    Server patient("patient");
    patient.SetTransferTimeOut(1);
    const pid_t sender = SendByHand(patient.Queue(), me, FirstBlock(1), [](long) {});
    const pid_t other = StartChild([&] {
        usleep(500000);
        SendRecord(patient.Queue(), me, Event(7, getpid()));
    });
    EXPECT_EQ(Reports([&] { EXPECT_EQ(patient.receive_event(event, data, response, ack), -1); }),
              Report(ErrorReporter::WARNING, ErrorReporter::IPC_RECV_TIME_OUT,
                     "Multi-block event dropped, process " + std::to_string(sender) + " was silent for 1 seconds."));
    EXPECT_EQ(event, 7);
    EndChild(sender);
    WaitForExit(other);

    server.SetTransferTimeOut(1);
    const pid_t again = SendByHand(queue.id, me, FirstBlock(1), [](long) {});
    CaptureStderr([&] { EXPECT_EQ(Receive(), Timeout); });
    EXPECT_EQ(Bytes(data).substr(0, 2), "01") << "what came stays";
    EndChild(again);
}

TEST_F(IpcqDeparted, AServerDropsABadBlockAndWaitsOn)
{
    MakeKeyFile("sturdy");
    Server sturdy("sturdy");
    const pid_t sender = SendByHand(sturdy.Queue(), me, FirstBlock(1), [&](long channel) {
        SendRecord(sturdy.Queue(), channel, LaterBlock(3, "34567", 0));
        SendRecord(sturdy.Queue(), me, Event(7, getpid(), "good"));
    });
    EXPECT_EQ(Reports([&] { EXPECT_EQ(sturdy.receive_event(event, data, response, ack), -1); }), IpcWarning(Broken));
    EXPECT_EQ(event, 7);
    EXPECT_EQ(Bytes(data), "good");
    EXPECT_TRUE(sturdy.Created());
    EndChild(sender);
}

TEST_F(IpcqDeparted, ANewEventOfASenderEndsTheOneThatItGaveUp)
{
    MakeKeyFile("newer");
    Server newer("newer");
    const pid_t sender = SendByHand(newer.Queue(), me, FirstBlock(1),
                                    [&](long) { SendRecord(newer.Queue(), me, Event(7, getpid(), "newer")); });
    EXPECT_EQ(Reports([&] { EXPECT_EQ(newer.receive_event(event, data, response, ack), -1); }), IpcWarning(Broken));
    EXPECT_EQ(event, 7);
    EXPECT_EQ(Bytes(data), "newer");
    EndChild(sender);
}

TEST_F(IpcqDeparted, AnEventWhoseSenderHasBegunAnotherIsNotAcknowledged)
{
    const pid_t sender = StartChild([&] {
        IPCQMessage outdated = FirstBlock(1), acknowledgement; // as of a dead process with the same id
        outdated.senders_pid = getpid();
        CHILD_CHECK(SendRecord(queue.id, me, outdated) == 0);
        IPCQMessage first = FirstBlock(1);
        first.senders_pid = getpid();
        first.event = 31;
        CHILD_CHECK(SendRecord(queue.id, me, first) == 0);
        CHILD_CHECK(TakeRecord(queue.id, AckChannel(getpid(), me), &acknowledgement, 0) == 300);
        CHILD_CHECK(SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "234567", 0)) == 0);
        pause();
    });
    ASSERT_TRUE(WaitUntil([&] { return Waiting(queue.id) == 2; }));
    EXPECT_EQ(Receive(), IpcError);
    EXPECT_EQ(event, 30);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 31);
    EXPECT_EQ(Bytes(data), "01234567");
    EndChild(sender);
}

TEST_F(IpcqDeparted, WhatASenderPutOnTheQueueBeforeItDiedStillCounts)
{
    const pid_t sender = StartChild([&] {
        IPCQMessage first = FirstBlock(2), acknowledgement;
        first.senders_pid = getpid();
        SendRecord(queue.id, me, first);
        TakeRecord(queue.id, AckChannel(getpid(), me), &acknowledgement, 0);
        for (int i = 0; i < 20; i++)
            usleep(10000); // the receiver waits in slices
        SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "234", 1));
        SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(5, "567", 0));
    });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(WaitForExit(sender), 0);
}

TEST_F(IpcqDeparted, ANewEventBehindBlocksThatAreNotReadYetEndsNothing)
{
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(2), [&](long channel) {
        SendRecord(queue.id, me, Event(7, getpid(), "newer"));
        usleep(400000); // the receiver knows of it
        SendRecord(queue.id, channel, LaterBlock(2, "234", 1));
        usleep(400000);
        SendRecord(queue.id, channel, LaterBlock(5, "567", 0));
    });
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 7);
    EndChild(sender);
}

TEST_F(IpcqDeparted, BlocksOfABrokenEventThatComeLaterAreRemoved)
{
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(2), [&](long channel) {
        SendRecord(queue.id, channel, LaterBlock(9, "out of place", 1));
        usleep(400000);
        SendRecord(queue.id, channel, LaterBlock(5, "567", 0));
        CHILD_CHECK(WaitUntil([&] { return Waiting(queue.id) == 0; }, 5));
        SendRecord(queue.id, me, Event(7, getpid()));
    });
    EXPECT_EQ(Receive(), IpcError);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 7);
    EndChild(sender);
}

} // namespace
