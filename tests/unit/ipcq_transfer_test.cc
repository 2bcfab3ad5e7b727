// SPDX-License-Identifier: BSD-2-Clause
// The calls that put one message on a queue and take one off, and the transfers made of them.
#include "tests/unit/ipcq_transfer_testing.h"

#include <functional>
#include <string>
#include <vector>

#include <sys/time.h>
#include <sys/wait.h>

namespace {

using namespace ipcq_testing;

int handled = 0;
void Handler(int) { handled++; }

// ---- ipc_send and ipc_recv ----

TEST_F(IpcqTransfer, SendPutsTheUsedPartOnTheQueue)
{
    PrivateQueue queue;
    IPCQMessage msg = Event(5, getpid(), "hello");
    std::memset(msg.msg_data + 5, 'x', 100);
    EXPECT_EQ(ipc_send(queue.id, 123, &msg, 0, 60), 0);
    EXPECT_EQ(msg.mtype, 123);
    EXPECT_EQ(msg.event, 5);
    IPCQMessage taken;
    EXPECT_EQ(TakeRecord(queue.id, 123, &taken), 305);
    EXPECT_EQ(taken.event, 5);
    EXPECT_STREQ(taken.msg_data, "hello");

    LocalMsg = Event(6, getpid(), "local");
    EXPECT_EQ(ipc_send(queue.id, 124, &LocalMsg, 0, 60), 0);
    EXPECT_EQ(LocalMsg.mtype, 124);
    EXPECT_EQ(TakeRecord(queue.id, 124, &taken), 305);
    EXPECT_STREQ(taken.msg_data, "local");
    EXPECT_STREQ(LocalMsg.msg_data, "local");
}

TEST_F(IpcqTransfer, SendRefusesADataLengthOutsideTheRecord)
{
    PrivateQueue queue;
    IPCQMessage msg = Event(5, getpid());
    for (const int32_t length : {-1, 1701, 0x7FFFFFFF, -0x7FFFFFFF}) {
        msg.msg_data_len = length;
        short code = 0;
        EXPECT_EQ(Reports([&] { code = ipc_send(queue.id, 9, &msg, 0, 60); }),
                  IpcWarning("ipc_send failure because of an invalid argument or the queue does not exist"));
        EXPECT_EQ(code, IpcError);
    }
    EXPECT_EQ(Waiting(queue.id), 0u);
}

TEST_F(IpcqTransfer, ReceiveZeroesTheWholeMessage)
{
    PrivateQueue queue;
    SendRecord(queue.id, 9, Event(5, 1, "hello"));
    const auto isZeroFrom = [](const IPCQMessage& msg, size_t from) {
        const char* bytes = reinterpret_cast<const char*>(&msg);
        return std::all_of(bytes + from, bytes + sizeof msg, [](char c) { return c == 0; });
    };
    IPCQMessage own;
    for (IPCQMessage* msg : {&own, &LocalMsg}) {
        SendRecord(queue.id, 9, Event(5, 1, "hello"));
        std::memset(static_cast<void*>(msg), 'x', sizeof *msg);
        EXPECT_EQ(ipc_recv(queue.id, 9, msg, 0, 1), 0);
        EXPECT_EQ(msg->mtype, 9);
        EXPECT_EQ(msg->event, 5);
        EXPECT_STREQ(msg->msg_data, "hello");
        EXPECT_TRUE(isZeroFrom(*msg, 309));
        std::memset(static_cast<void*>(msg), 'x', sizeof *msg);
        EXPECT_EQ(ipc_recv(queue.id, 8, msg, 0, 1), Timeout);
        EXPECT_TRUE(isZeroFrom(*msg, 0)) << "also when it fails";
        std::memset(static_cast<void*>(msg), 'x', sizeof *msg);
        EXPECT_EQ(ipc_recv(-1, 8, msg, 0, 1), ServerGone);
        EXPECT_TRUE(isZeroFrom(*msg, 0));
    }
}

TEST_F(IpcqTransfer, WithoutAQueueOrAPeerNothingIsSent)
{
    PrivateQueue queue;
    IPCQMessage msg = Event(1, 1);
    EXPECT_EQ(ipc_send(-1, 9, &msg, 0, 60), ServerGone);
    EXPECT_EQ(ipc_recv(-1, 9, &msg, 0, 0), ServerGone);
    msg.mtype = 4;
    EXPECT_EQ(ipc_send(queue.id, 9, &msg, DeadProcess(), 60), SenderGone);
    EXPECT_EQ(msg.mtype, 4) << "nothing was done";
    EXPECT_EQ(ipc_send(queue.id, 9, &msg, -1, 60), SenderGone);
    EXPECT_EQ(Waiting(queue.id), 0u);
    EXPECT_EQ(ipc_send(queue.id, 0, &msg, 0, 60), ServerGone) << "no channel";
}

TEST_F(IpcqTransfer, UnexpectedFailuresAreReported)
{
    const int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0);
    const ChildResult result = RunInChild([&] {
        DropPrivileges();
        IPCQMessage msg = Event(1, 1);
        std::fputs(Reports([&] {
                       CHILD_CHECK(ipc_send(queue, 9, &msg, 0, 60) == IpcError);
                       CHILD_CHECK(ipc_recv(queue, 9, &msg, 0, 60) == IpcError);
                   }).c_str(),
                   stdout);
    });
    msgctl(queue, IPC_RMID, nullptr);
    if (result.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no user namespace within the sandbox";
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(result.out, IpcWarning("ipc_send failure because of invalid access permission") +
                              IpcWarning("ipc_recv failure because of invalid access permission"));
}

TEST_F(IpcqTransfer, NothingIsTouchedWhenNothingBlocks)
{
    PrivateQueue queue;
    signal(SIGALRM, Handler);
    struct itimerval due = {};
    due.it_value.tv_sec = 100;
    setitimer(ITIMER_REAL, &due, nullptr);
    IPCQMessage msg = Event(1, 1);
    EXPECT_EQ(ipc_send(queue.id, 9, &msg, getpid(), 60), 0);
    EXPECT_EQ(ipc_recv(queue.id, 9, &msg, getpid(), 60), 0);
    getitimer(ITIMER_REAL, &due);
    EXPECT_GT(due.it_value.tv_sec, 50);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), Handler);
    alarm(0);
}

TEST_F(IpcqTransfer, TheCallersAlarmAndHandlerComeBack)
{
    PrivateQueue queue;
    signal(SIGALRM, Handler);
    handled = 0;
    alarm(100);
    IPCQMessage msg;
    EXPECT_EQ(ipc_recv(queue.id, 9, &msg, 0, 1), Timeout);
    EXPECT_GE(alarm(100), 99u) << "with its whole remaining time";
    Fill(queue.id, 9, 300);
    const pid_t reader = StartChild([&] {
        usleep(300000);
        Empty(queue.id, 9);
    });
    msg = Event(1, 1);
    EXPECT_EQ(ipc_send(queue.id, 10, &msg, 0, 60), 0) << "blocked until there was room";
    EXPECT_GE(alarm(0), 99u);
    EXPECT_EQ(signal(SIGALRM, SIG_DFL), Handler);
    EXPECT_EQ(handled, 0);
    WaitForExit(reader);
}

TEST_F(IpcqTransfer, AQueueThatGoesEndsTheWait)
{
    const auto gone = [](const std::function<short(int)>& wait) {
        const int queue = msgget(IPC_PRIVATE, IPC_CREAT | 0660);
        Fill(queue, 9, 300);
        const pid_t waiter = StartChild([&] { CHILD_CHECK(wait(queue) == ServerGone); });
        usleep(300000);
        msgctl(queue, IPC_RMID, nullptr);
        return WaitForExit(waiter);
    };
    EXPECT_EQ(gone([](int queue) {
                  IPCQMessage msg = Event(1, 1);
                  return ipc_send(queue, 9, &msg, 0, 60);
              }),
              0);
    EXPECT_EQ(gone([](int queue) {
                  IPCQMessage msg;
                  return ipc_recv(queue, 8, &msg, 0, 0);
              }),
              0);
}

// The waits of 10 seconds stand side by side.
TEST_F(IpcqTransfer, WaitsEndAtTheirLimitsAndWhenAPeerDies)
{
    const PrivateQueue owner;
    const int full = owner.id;
    Fill(full, 9, 300);
    std::vector<pid_t> waits;
    const auto waiting = [&](const std::function<void(pid_t peer)>& body) {
        const pid_t peer = IdleProcess();
        waits.push_back(StartChild([=] { body(peer); }));
        return peer;
    };
    const auto sends = [&](short expected, long limit) {
        return waiting([=](pid_t peer) {
            IPCQMessage msg = Event(1, 1);
            CHILD_CHECK(ipc_send(full, 9, &msg, peer, limit) == expected);
        });
    };
    const auto receives = [&](short expected, long limit) {
        return waiting([=](pid_t peer) {
            IPCQMessage msg;
            CHILD_CHECK(ipc_recv(full, 8, &msg, peer, limit) == expected);
        });
    };
    std::vector<pid_t> alive = {sends(SendTimeout, 10), receives(Timeout, 10)};
    // A limit below a step waits for ever, so only the peer's end ends it.
    std::vector<pid_t> dying = {sends(SenderGone, 60),       sends(SenderGone, 9),      sends(SenderGone, 0),
                                receives(ReceiverGone, 900), receives(ReceiverGone, 9), receives(ReceiverGone, 0)};
    waits.push_back(StartChild([&] { // any signal counts as the end of a step
        struct sigaction action = {};
        action.sa_handler = Handler;
        sigaction(SIGUSR1, &action, nullptr);
        IPCQMessage msg = Event(1, 1);
        CHILD_CHECK(ipc_send(full, 9, &msg, 0, 20) == SendTimeout);
        CHILD_CHECK(handled == 1);
    }));
    const pid_t interrupted = waits.back();
    // Transfers that break off in the middle, on queues of their own.
    const auto breaksOff = [&](const std::function<void()>& end, short expected, long limit) {
        waits.push_back(StartChild([=] {
            signal(SIGCHLD, SIG_IGN); // no zombies: a sender that ended is gone
            PrivateQueue own;
            Receiver receiver(own.id);
            receiver.SetReceiveTimeOut(limit);
            const pid_t sender = SendByHand(own.id, getpid(), FirstBlock(2), [&](long channel) {
                SendRecord(own.id, channel, LaterBlock(2, "23", 1));
                end();
            });
            Buffer got;
            short e, s, r, a;
            CHILD_CHECK(receiver.IPCReceive(e, 0, 0, got, s, r, a) == expected);
            CHILD_CHECK(Bytes(got).substr(0, 4) == "0123" && got.Size() == 8);
            EndChild(sender);
        }));
    };
    breaksOff([] { _exit(0); }, ReceiverGone, 0);
    breaksOff([] { pause(); }, Timeout, 10);
    usleep(300000);
    kill(interrupted, SIGUSR1);
    for (const pid_t pid : dying)
        EndChild(pid);
    for (const pid_t pid : waits)
        EXPECT_EQ(WaitForExit(pid), 0);
    for (const pid_t pid : alive)
        EndChild(pid);
}

TEST_F(IpcqTransfer, MalformedMessagesDoNotEndAWait)
{
    PrivateQueue queue;
    char bytes[2001] = {};
    LetReportsRest();
    const std::string first = Reports([&] {
        SendRaw(queue.id, 9, bytes, 2001);
        SendRecord(queue.id, 9, Event(5, 1, "good"));
        IPCQMessage msg;
        EXPECT_EQ(ipc_recv(queue.id, 9, &msg, 0, 5), 0);
        EXPECT_STREQ(msg.msg_data, "good");
    });
    EXPECT_EQ(first, IpcWarning("Malformed message dropped from queue " + std::to_string(queue.id) + "."));
    IPCQMessage msg;

    // They give nobody more time either.
    const pid_t nuisance = StartChild([&] {
        for (;;) {
            SendRaw(queue.id, 9, bytes, 5);
            usleep(200000);
        }
    });
    CaptureStderr([&] { EXPECT_EQ(ipc_recv(queue.id, 9, &msg, 0, 1), Timeout); });
    EndChild(nuisance);
}

TEST_F(IpcqTransfer, AFloodOfMalformedMessagesIsReportedOnceASecond)
{
    PrivateQueue queue;
    const int count = 40;
    const auto takeMalformed = [&](int number) {
        for (int i = 0; i < number; i++)
            SendRaw(queue.id, 9, "rubbish", 7);
        SendRecord(queue.id, 9, Event(5, 1, "good"));
        IPCQMessage msg;
        EXPECT_EQ(ipc_recv(queue.id, 9, &msg, 0, 5), 0);
    };
    LetReportsRest();
    CaptureStderr([&] { takeMalformed(1); }); // with what is left of earlier ones
    LetReportsRest();
    const std::string queueText = "queue " + std::to_string(queue.id) + ".";
    EXPECT_EQ(Reports([&] { takeMalformed(count); }), IpcWarning("Malformed message dropped from " + queueText));
    LetReportsRest();
    EXPECT_EQ(Reports([&] { takeMalformed(1); }),
              IpcWarning(std::to_string(count) + " malformed messages dropped from " + queueText));
}

// ---- IPCSend and IPCReceive ----

// A server that answers every event with its data, the event and status 0, until event 99.
void Echo(Server& server)
{
    short event, response, ack;
    Buffer data;
    for (;;) {
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1);
        if (event == 99)
            return;
        const std::string text = Bytes(data);
        CHILD_CHECK(server.send_response(event, 0, text.data(), long(text.size())) == 0);
    }
}

void EchoSizes(const char* name, int blockSize, unsigned long queueBytes)
{
    if (!QueuesMayHold(queueBytes))
        GTEST_SKIP() << "queues cannot be that large here";
    const pid_t pid = StartServer(name, [&](Server& server) {
        SetQueueBytes(server.Queue(), queueBytes);
        IPCMessageMaxDataLen = 1700;
        check_max_data_size(server.Queue());
        CHILD_CHECK(IPCMessageMaxDataLen == blockSize);
        Echo(server);
    });
    ASSERT_TRUE(WaitUntil([&] {
        IPCMessageMaxDataLen = 1700;
        Client probe(name);
        return IPCMessageMaxDataLen == blockSize;
    }));
    Client client(name);
    ASSERT_TRUE(client.Connected());
    for (const size_t size : {0, 1, 273, 1091, 1092, 1093, 1699, 1700, 1701, 2184, 3400, 3401, 1 << 20, 10 << 20}) {
        const std::string text = Pattern(size);
        ASSERT_EQ(client.send_event_with_response(3, text.data(), long(size)), 0) << size;
        short event = 0;
        Buffer data;
        ASSERT_EQ(client.receive_response(event, data), 0) << size;
        EXPECT_EQ(event, 3);
        ASSERT_TRUE(Bytes(data) == text) << size;
        EXPECT_EQ(Waiting(client.Queue()), 0u);
    }
    EXPECT_EQ(client.send_event(99, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(pid), 0);
}

TEST_F(IpcqTransfer, CarriesEverySizeInBlocksOf1700) { EchoSizes("full", 1700, 100000); }
TEST_F(IpcqTransfer, CarriesEverySizeInBlocksOf1092) { EchoSizes("small", 1092, 16384); }

// What a raw receiver sees of one event, with its acknowledgement in between.
struct Seen {
    std::vector<IPCQMessage> blocks;
    std::vector<ssize_t> lengths;
    short code = -1;
};

Seen WatchASend(long length)
{
    Seen seen;
    PrivateQueue queue;
    const std::string text = Pattern(length > 0 ? size_t(length) : 0);
    const pid_t me = getpid();
    const pid_t sender = StartChild([&] {
        Client client(nullptr);
        client.Adopt(queue.id, me);
        client.RegisterNodeName("n");
        CHILD_CHECK(client.send_event(8, text.data(), length) == 0);
    });
    IPCQMessage block;
    ssize_t n = TakeRecord(queue.id, me, &block, 0);
    const auto keep = [&] {
        seen.blocks.push_back(block);
        seen.lengths.push_back(n);
    };
    keep();
    if (block.parts_left > 0) {
        usleep(100000);
        EXPECT_EQ(Waiting(queue.id), 0u) << "nothing follows before the acknowledgement";
        IPCQMessage ack = Event(Ack, me);
        EXPECT_EQ(SendRecord(queue.id, AckChannel(sender, me), ack), 0);
    }
    while (block.parts_left > 0) {
        n = TakeRecord(queue.id, DataChannel(sender, me), &block, 0);
        keep();
    }
    seen.code = short(WaitForExit(sender));
    EXPECT_EQ(Waiting(queue.id), 0u);
    return seen;
}

void ExpectBlock(const Seen& seen, size_t i, short event, int offset, int length, int partsLeft, int total)
{
    ASSERT_LT(i, seen.blocks.size());
    const IPCQMessage& block = seen.blocks[i];
    EXPECT_EQ(seen.lengths[i], 300 + length);
    EXPECT_EQ(block.event, event);
    EXPECT_EQ(block.curr_data_offset, offset);
    EXPECT_EQ(block.msg_data_len, length);
    EXPECT_EQ(block.parts_left, partsLeft);
    EXPECT_EQ(block.alloc_data_length, total);
    EXPECT_EQ(block.shmem_id, -1);
    EXPECT_EQ(block.shmem_size, 0);
    EXPECT_STREQ(block.orignode, "n");
    EXPECT_EQ(block.object, 7);
    EXPECT_EQ(block.result_code, -1);
}

TEST_F(IpcqTransfer, AMultipleOfTheBlockSizeEndsWithAnEmptyBlock)
{
    const Seen seen = WatchASend(1700);
    EXPECT_EQ(seen.code, 0);
    ASSERT_EQ(seen.blocks.size(), 2u);
    ExpectBlock(seen, 0, 8, 0, 1700, 1, 1700);
    ExpectBlock(seen, 1, MoreData, 1700, 0, 0, 1700);
}

TEST_F(IpcqTransfer, ThreeBlocksNeedOneAcknowledgement)
{
    const Seen seen = WatchASend(3401);
    EXPECT_EQ(seen.code, 0);
    ASSERT_EQ(seen.blocks.size(), 3u);
    ExpectBlock(seen, 0, 8, 0, 1700, 2, 3401);
    ExpectBlock(seen, 1, MoreData, 1700, 1700, 1, 3401);
    ExpectBlock(seen, 2, MoreData, 3400, 1, 0, 3401);
}

TEST_F(IpcqTransfer, NoDataIsOneBlock)
{
    const Seen seen = WatchASend(0);
    ASSERT_EQ(seen.blocks.size(), 1u);
    ExpectBlock(seen, 0, 8, 0, 0, 0, 0);
}

TEST_F(IpcqTransfer, ABlockSizeThatIsNotPositiveKeepsTheLastOne)
{
    IPCMessageMaxDataLen = 1000;
    PrivateQueue queue;
    Client sender(nullptr);
    const pid_t peer = IdleProcess();
    sender.Adopt(queue.id, peer);
    ASSERT_EQ(sender.send_event(1, "x", 1), 0);
    for (const int16_t useless : {0, -1, -32154, -32768}) {
        IPCMessageMaxDataLen = useless;
        EXPECT_EQ(WatchASend(1001).blocks.size(), 2u);
        EXPECT_EQ(IPCMessageMaxDataLen, useless);
    }
    IPCMessageMaxDataLen = 32767;
    EXPECT_EQ(WatchASend(1701).blocks.front().msg_data_len, 1700) << "never beyond the record";
    EndChild(peer);
}

TEST_F(IpcqTransfer, ArgumentsThatCannotBeAreRefused)
{
    PrivateQueue queue;
    Receiver server(queue.id);
    const pid_t peer = IdleProcess();
    const auto send = [&](long to, const void* ptr, long length) {
        return server.IPCSend("p", "n", "v", to, "d", 0, 1, ptr, length, 0, 0, 0);
    };
    const std::string warning =
        Report(ErrorReporter::WARNING, ErrorReporter::BAD_IPC_PARAMETER, "IPCSend data or data length not valid.");
    const auto refused = [&](long to, const void* ptr, long length) {
        EXPECT_EQ(Reports([&] { EXPECT_EQ(send(to, ptr, length), IpcError); }), warning) << length;
    };
    const std::string big(1000, 'x');
    refused(peer, big.data(), -1);
    refused(peer, nullptr, 1);
    refused(peer, big.data(), 32768L * 1700); // its blocks are never looked at
    IPCMessageMaxDataLen = 10;
    refused(peer, big.data(), 32768L * 10);
    refused(getpid(), big.data(), -1);
    refused(getpid(), nullptr, 1);
    if (sizeof(long) > 4)
        refused(getpid(), big.data(), static_cast<long>(0x100000000));
    EXPECT_EQ(Waiting(queue.id), 0u);
    EXPECT_EQ(InternalQMsgsPtr, nullptr);
    EXPECT_EQ(send(peer, nullptr, 0), 0);
    server.Adopt(-1);
    EXPECT_EQ(send(peer, nullptr, 0), ErrorReporter::IPC_CONNECTION_LOST);
    EndChild(peer);
}

TEST_F(IpcqTransfer, CarriesTheMostBlocks)
{
    const std::string text = Pattern(32767);
    const pid_t pid = StartServer("most", Echo);
    IPCMessageMaxDataLen = 1; // 32767 blocks of one byte, and the empty one
    Client client("most");
    IPCMessageMaxDataLen = 1;
    ASSERT_EQ(client.send_event_with_response(3, text.data(), 32767), 0);
    short event;
    Buffer data;
    EXPECT_EQ(client.receive_response(event, data), 0);
    EXPECT_TRUE(Bytes(data) == text);
    client.send_event(99, nullptr, 0);
    EXPECT_EQ(WaitForExit(pid), 0);
}

TEST_F(IpcqTransfer, AnAcknowledgementOfAnotherKindIsRefused)
{
    PrivateQueue queue;
    const pid_t me = getpid();
    const pid_t sender = StartChild([&] {
        Client client(nullptr);
        client.Adopt(queue.id, me);
        CHILD_CHECK(client.send_event(8, Pattern(1700).data(), 1700) == IpcError);
        CHILD_CHECK(!client.Connected());
        CHILD_CHECK(LocalMsg.event == MoreData && LocalMsg.alloc_data_length == 1700);
    });
    IPCQMessage block;
    TakeRecord(queue.id, me, &block, 0);
    SendRecord(queue.id, AckChannel(sender, me), Event(MoreData, me));
    EXPECT_EQ(WaitForExit(sender), 0);
}

TEST_F(IpcqTransfer, AnAcknowledgementThatCameTooLateIsForgotten)
{
    PrivateQueue queue;
    const pid_t me = getpid();
    int go[2];
    ASSERT_EQ(pipe(go), 0);
    const pid_t sender = StartChild([&] {
        char byte;
        CHILD_CHECK(read(go[0], &byte, 1) == 1);
        Client client(nullptr);
        client.Adopt(queue.id, me);
        CHILD_CHECK(client.send_event(8, Pattern(1700).data(), 1700) == 0);
    });
    SendRecord(queue.id, AckChannel(sender, me), Event(Ack, me));
    ASSERT_EQ(write(go[1], "g", 1), 1);
    IPCQMessage block;
    EXPECT_EQ(TakeRecord(queue.id, me, &block, 0), 2000);
    usleep(200000);
    EXPECT_EQ(Waiting(queue.id), 0u) << "the sender still waits";
    SendRecord(queue.id, AckChannel(sender, me), Event(Ack, me));
    EXPECT_EQ(TakeRecord(queue.id, DataChannel(sender, me), &block, 0), 300);
    EXPECT_EQ(WaitForExit(sender), 0);
    close(go[0]);
    close(go[1]);
}

// Two processes that send each other far more than the queue holds before either receives.
TEST_F(IpcqTransfer, BothSidesSendOverAFullQueue)
{
    const int count = 500;
    const std::string text = Pattern(1000);
    const pid_t pid = StartServer("crossing", [&](Server& server) {
        SetQueueBytes(server.Queue(), 16384);
        short event, response, ack;
        Buffer data;
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1 && event == 1);
        for (short i = 0; i < count; i++)
            CHILD_CHECK(server.send_response(i, 0, text.data(), 1000) == 0);
        for (short i = 0; i < count; i++) {
            CHILD_CHECK(server.receive_event(event, data, response, ack) == -1);
            CHILD_CHECK(event == i && Bytes(data) == text);
        }
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1 && event == 9999);
    });
    Client client("crossing");
    IPCMessageMaxDataLen = 1700;
    ASSERT_EQ(client.send_event(1, nullptr, 0), 0);
    for (short i = 0; i < count; i++)
        ASSERT_EQ(client.send_event(i, text.data(), 1000), 0) << i;
    short event;
    Buffer data;
    for (short i = 0; i < count; i++) {
        ASSERT_EQ(client.receive_response(event, data), 0);
        ASSERT_EQ(event, i);
        ASSERT_TRUE(Bytes(data) == text);
    }
    EXPECT_EQ(client.send_event(9999, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(pid), 0);
}

// Two processes that send each other events of many blocks before either receives: each waits for the other to take
// note of its first block.
TEST_F(IpcqTransfer, BothSidesSendEventsOfManyBlocks)
{
    const int count = 100;
    const auto text = [](const char* side, int i) { return side + Pattern(static_cast<size_t>(20000 + i)); };
    const pid_t pid = StartServer("crossing2", [&](Server& server) {
        SetQueueBytes(server.Queue(), 16384);
        short event, response, ack;
        Buffer data;
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1 && event == 1);
        for (short i = 0; i < count; i++) {
            const std::string answer = text("answer", i);
            CHILD_CHECK(server.send_response(i, 0, answer.data(), long(answer.size())) == 0);
        }
        for (short i = 0; i < count; i++) {
            CHILD_CHECK(server.receive_event(event, data, response, ack) == -1);
            CHILD_CHECK(event == i && Bytes(data) == text("request", i));
        }
        CHILD_CHECK(server.receive_event(event, data, response, ack) == -1 && event == 9999);
        CHILD_CHECK(Waiting(server.Queue()) == 0);
    });
    Client client("crossing2");
    ASSERT_EQ(client.send_event(1, nullptr, 0), 0);
    EXPECT_LT(Seconds([&] {
                  for (short i = 0; i < count; i++) {
                      const std::string request = text("request", i);
                      ASSERT_EQ(client.send_event(i, request.data(), long(request.size())), 0) << i;
                  }
              }),
              60)
        << "far below the 300 seconds for one acknowledgement";
    short event;
    Buffer data;
    for (short i = 0; i < count; i++) {
        ASSERT_EQ(client.receive_response(event, data), 0);
        ASSERT_EQ(event, i);
        ASSERT_TRUE(Bytes(data) == text("answer", i)) << i;
    }
    EXPECT_EQ(client.send_event(9999, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(pid), 0);
}

TEST_F(IpcqTransfer, ASignalCountsAsTheEndOfAStep)
{
    PrivateQueue queue;
    const pid_t me = getpid();
    Fill(queue.id, 9, 300);
    const auto blocked = [&](const std::function<short(Client&)>& body, short expected) {
        return StartChild([&] {
            struct sigaction action = {};
            action.sa_handler = Handler;
            sigaction(SIGWINCH, &action, nullptr);
            handled = 0;
            alarm(100);
            Client client(nullptr);
            client.Adopt(queue.id, me);
            client.SetSendTimeOut(10);
            client.SetReceiveTimeOut(10);
            CHILD_CHECK(body(client) == expected);
            CHILD_CHECK(handled == 1);
            CHILD_CHECK(alarm(0) >= 99);
        });
    };
    const pid_t sends = blocked([](Client& client) { return client.send_event(1, nullptr, 0); }, SendTimeout);
    const pid_t receives = blocked(
        [](Client& client) {
            short event;
            Buffer data;
            const short code = client.receive_response(event, data);
            return event == 0 ? code : short(-2);
        },
        0);
    usleep(500000);
    kill(sends, SIGWINCH);
    kill(receives, SIGWINCH);
    EXPECT_EQ(WaitForExit(sends), 0);
    EXPECT_EQ(WaitForExit(receives), 0);
}

TEST_F(IpcqTransfer, MailThatComesWhileASendWaitsIsDeliveredNext)
{
    const pid_t me = getpid();
    PrivateQueue queue;
    Fill(queue.id, 9, 1500); // leaves 1384 bytes
    const pid_t child = StartChild([&] {
        Client client(nullptr);
        client.Adopt(queue.id, me);
        CHILD_CHECK(client.send_event(1, Pattern(1650).data(), 1650) == 0); // blocks: 1950 bytes
        short event;
        Buffer data;
        for (short i = 1; i <= 3; i++) {
            CHILD_CHECK(client.receive_response(event, data) == -1);
            CHILD_CHECK(event == i);
        }
    });
    usleep(300000);
    EXPECT_EQ(SendRecord(queue.id, child, Event(1, me), 300), 0);
    EXPECT_EQ(SendRecord(queue.id, child, Event(2, me), 300), 0);
    Empty(queue.id, 9);
    IPCQMessage got;
    EXPECT_EQ(TakeRecord(queue.id, me, &got, 0), 1950);
    SendRecord(queue.id, child, Event(3, me));
    EXPECT_EQ(WaitForExit(child), 0);
}

} // namespace
