// SPDX-License-Identifier: BSD-2-Clause
// Transfers beside garbage, with partners that change their mind, and on hosts that refuse memory or segments.
#include "tests/unit/ipcq_transfer_testing.h"

#include <string>

#include <sys/shm.h>
#include <sys/syscall.h>

#include "tests/support/failing_memory.h"

namespace {

using namespace ipcq_testing;

class IpcqRefusals : public IpcqOneServer {
protected:
    // What is shorter than a record's header.
    void SendGarbage(long channel) const { EXPECT_EQ(SendRaw(queue.id, channel, "garbage", 7), 0); }
    short Send(pid_t to) { return server.IPCSend("p", "n", "v", to, "d", 0, 1, Pattern(1700).data(), 1700, 0, 0, 0); }
    // Takes the two blocks that Send makes.
    void TakeBlocks() const
    {
        IPCQMessage block;
        CHILD_CHECK(TakeRecord(queue.id, getpid(), &block, 0) == 2000);
        CHILD_CHECK(SendRecord(queue.id, AckChannel(me, getpid()), Event(Ack, getpid())) == 0);
        CHILD_CHECK(TakeRecord(queue.id, DataChannel(me, getpid()), &block, 0) == 300);
    }
    void SendFirst(short firstEvent) const
    {
        IPCQMessage first = FirstBlock(1);
        first.senders_pid = getpid();
        first.event = firstEvent;
        CHILD_CHECK(SendRecord(queue.id, me, first) == 0);
    }
    void AwaitAcknowledgement() const
    {
        IPCQMessage acknowledgement;
        CHILD_CHECK(TakeRecord(queue.id, AckChannel(getpid(), me), &acknowledgement, 0) == 300);
    }
};

// ---- Garbage ----

TEST_F(IpcqRefusals, GarbageAmongTheBlocksIsDroppedWithAReport)
{
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(1), [&](long channel) {
        CHILD_CHECK(SendRaw(queue.id, channel, "garbage", 7) == 0);
        CHILD_CHECK(SendRecord(queue.id, channel, LaterBlock(2, "234567", 0)) == 0);
    });
    EXPECT_EQ(MalformedIn(Reports([&] { EXPECT_EQ(Receive(), 0); }), queue.id), 1);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(sender);
}

TEST_F(IpcqRefusals, GarbageThatIsThereBeforeTheTransferIsDroppedWithAReport)
{
    LetReportsRest();
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(1), [&](long channel) {
        CHILD_CHECK(SendRecord(queue.id, channel, LaterBlock(2, "234567", 0)) == 0);
    });
    SendGarbage(DataChannel(sender, me));
    EXPECT_EQ(MalformedIn(Reports([&] { EXPECT_EQ(Receive(), 0); }), queue.id), 1);
    EXPECT_EQ(Bytes(data), "01234567");
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(sender);
}

TEST_F(IpcqRefusals, GarbageAmongTheBlocksOfAnEventBeforeItsTurnIsDroppedWithAReport)
{
    LetReportsRest();
    const pid_t partner = StartChild([&] {
        SendFirst(30);
        AwaitAcknowledgement();
        CHILD_CHECK(SendRaw(queue.id, DataChannel(getpid(), me), "garbage", 7) == 0);
        CHILD_CHECK(SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "234567", 0)) == 0);
        CHILD_CHECK(WaitUntil([&] { return Waiting(queue.id) == 1; })); // the first block of the other event
        TakeBlocks();
        pause();
    });
    EXPECT_EQ(MalformedIn(Reports([&] {
                              EXPECT_EQ(Send(partner), 0);
                              EXPECT_EQ(Receive(), 0);
                          }),
                          queue.id),
              1);
    EXPECT_EQ(Bytes(data), "01234567");
    EndChild(partner);
}

TEST_F(IpcqRefusals, WhatOthersSentStaysWhereAFirstBlockIsTakenBack)
{
    const pid_t silent = IdleProcess();
    IPCQMessage others = Event(7, getppid(), "kept");
    SendRecord(queue.id, silent, others);
    SendGarbage(silent);
    server.SetTransferTimeOut(1);
    CaptureStderr([&] { EXPECT_EQ(Send(silent), Timeout); });
    IPCQMessage left;
    EXPECT_EQ(TakeRecord(queue.id, silent, &left), 304);
    EXPECT_EQ(left.event, 7);
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(silent);
}

// ---- Partners that change their mind ----

TEST_F(IpcqRefusals, AnEventThatItsSenderGaveUpIsNotAcknowledgedBeforeItsTurn)
{
    const pid_t partner = StartChild([&] {
        SendFirst(30);
        SendFirst(31);
        TakeBlocks();
        IPCQMessage acknowledgement;
        CHILD_CHECK(TakeRecord(queue.id, AckChannel(getpid(), me), &acknowledgement) < 0);
        AwaitAcknowledgement();
        CHILD_CHECK(SendRecord(queue.id, DataChannel(getpid(), me), LaterBlock(2, "234567", 0)) == 0);
        pause();
    });
    ASSERT_TRUE(WaitUntil([&] { return Waiting(queue.id) == 2; }));
    EXPECT_EQ(Send(partner), 0);
    ASSERT_TRUE(WaitUntil([&] { return Waiting(queue.id) == 0; })); // the partner takes its last block
    EXPECT_EQ(Receive(), IpcError);
    EXPECT_EQ(event, 30);
    EXPECT_EQ(Receive(), 0);
    EXPECT_EQ(event, 31);
    EXPECT_EQ(Bytes(data), "01234567");
    EndChild(partner);
}

TEST_F(IpcqRefusals, AnEndThatGoesTakesTheEventsAlongThatItHasBegun)
{
    const pid_t partner = StartChild([&] {
        SendFirst(30);
        AwaitAcknowledgement();
        TakeBlocks();
    });
    {
        Receiver passing{queue.id};
        EXPECT_EQ(passing.IPCSend("p", "n", "v", partner, "d", 0, 1, Pattern(1700).data(), 1700, 0, 0, 0), 0);
        EXPECT_EQ(WaitForExit(partner), 0);
    }
    EXPECT_EQ(Waiting(queue.id), 0u);
}

// ---- Hosts that refuse ----

TEST_F(IpcqRefusals, AStrangersRecordStaysWhereThereIsNoMemoryForIt)
{
    const pid_t other = IdleProcess();
    const pid_t sender = SendByHand(queue.id, me, FirstBlock(1), [&](long channel) {
        CHILD_CHECK(SendRecord(queue.id, channel, LaterBlock(2, "234567", 0)) == 0);
    });
    const long channel = DataChannel(sender, me);
    IPCQMessage strangers = LaterBlock(2, "not yours", 3);
    strangers.senders_pid = static_cast<int32_t>(other - (channel - DataChannel(0, 0)));
    SendRecord(queue.id, channel, strangers);
    {
        const auto failure = testing_support::MemoryFailure::OfSize(sizeof(IPCQMsg), testing_support::NewObject);
        EXPECT_EQ(Receive(), 0);
        EXPECT_TRUE(failure.HasHappened());
    }
    EXPECT_EQ(Bytes(data), "01234567");
    IPCQMessage left;
    EXPECT_EQ(TakeRecord(queue.id, channel, &left), 309);
    EXPECT_EQ(Waiting(queue.id), 0u);
    EndChild(sender);
    EndChild(other);
}

#ifndef SYS_ipc // there one call has all of these
// Receives two blocks, one of them in a segment, in a child that may attach none.
void ReceiveWithoutSegments(int qid, bool isFirst)
{
    const int segment = copy_to_shmem("01", 2);
    ASSERT_GE(segment, 0);
    const ChildResult result = RunInChild([&] {
        IPCQMessage first = FirstBlock(1);
        IPCQMessage second = LaterBlock(2, "", 0);
        IPCQMessage& inSegment = isFirst ? first : second;
        inSegment.shmem_id = segment;
        inSegment.shmem_size = 2;
        inSegment.msg_data_len = 0;
        first.alloc_data_length = second.alloc_data_length = 4;
        const pid_t receiver = getpid();
        const auto sendFirst = [&] {
            first.senders_pid = getpid();
            CHILD_CHECK(SendRecord(qid, receiver, first) == 0);
            pause();
        };
        const auto sendSecond = [&](long channel) {
            second.senders_pid = getpid();
            CHILD_CHECK(SendRecord(qid, channel, second) == 0);
        };
        const pid_t sender = isFirst ? StartChild(sendFirst) : SendByHand(qid, receiver, first, sendSecond);
        MakeCallsFail({SYS_shmat}, ENOMEM);
        Receiver end{qid};
        short event, status, response, ack;
        Buffer data;
        CHILD_CHECK(end.IPCReceive(event, 0, 0, data, status, response, ack) == IpcError);
        CHILD_CHECK(event == 30);
        EndChild(sender);
    });
    struct shmid_ds status;
    EXPECT_EQ(shmctl(segment, IPC_STAT, &status), 0) << "it was not read";
    delete_shmem_id(segment);
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to refuse system calls here";
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

TEST_F(IpcqRefusals, AnEventWhoseFirstSegmentCannotBeAttachedIsBroken) { ReceiveWithoutSegments(queue.id, true); }
TEST_F(IpcqRefusals, AnEventWhoseLaterSegmentCannotBeAttachedIsBroken) { ReceiveWithoutSegments(queue.id, false); }

TEST_F(IpcqRefusals, ASegmentThatCannotBeAttachedIsGivenBack)
{
    const int segment = copy_to_shmem("01", 2);
    ASSERT_GE(segment, 0);
    const int before = ObjectsOf("shm");
    const ChildResult result = RunInChild([=] {
        MakeCallsFail({SYS_shmat}, ENOMEM);
        CHILD_CHECK(copy_to_shmem("01", 2) == -1);
        Buffer copied;
        CHILD_CHECK(copy_from_shmem(segment, copied, 0, 2) == 0 && copied.Size() == 0);
    });
    EXPECT_TRUE(result.exitCode == 0 || result.exitCode == NotPossibleHere) << result.err;
    EXPECT_EQ(ObjectsOf("shm"), before);
    delete_shmem_id(segment);
}
#endif

} // namespace
