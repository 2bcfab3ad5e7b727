// SPDX-License-Identifier: BSD-2-Clause
// A server and its clients as real processes over one queue: side by side, dying at the wrong moment, and talking
// nonsense. The peers that talk nonsense are written from the record layout alone.

#include "Misc/ipcq.h"

#include <cerrno>
#include <csignal>
#include <string>
#include <vector>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/support/objects.h"
#include "tests/support/raw_queue_peer.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

enum QueueTestEvents : short { Echo = 1, Count = 2, Exit = 9 };

const char* const Name = "orvd";

std::string Pattern(size_t length, char seed)
{
    std::string text(length, seed);
    for (size_t i = 0; i < length; i++)
        text[i] = static_cast<char>(seed + i * 7 + i / 251);
    return text;
}

// The server: echoes, counts what it got, and ends on Exit.
void Serve()
{
    IPCQServer server(Name);
    CHILD_CHECK(server.Created());
    int events = 0;
    for (;;) {
        short event = 0, responseRqd = 0, ackRqd = 0;
        Buffer data;
        server.receive_event(event, data, responseRqd, ackRqd);
        events++;
        if (event == Echo)
            server.send_response(Echo, 0, static_cast<const void*>(data), data.Size());
        else if (event == Count)
            server.send_response(Count, 0, &events, sizeof events);
        else if (event == Exit)
            break;
    }
}

class QueueSystem : public testing::Test {
protected:
    void SetUp() override
    {
        static const char* arguments[] = {"queue_test", nullptr};
        ProgInfo::Initialize(1, const_cast<char* const*>(arguments), environ, "1.0");
        MakeKeyFile(Name);
        server = StartChild(Serve);
        ASSERT_TRUE(WaitUntil([] { return IPCQClient(0, Name).Connected() != 0; }));
    }

    void TearDown() override
    {
        if (server > 0)
            StopServer();
    }

    void StopServer()
    {
        IPCQClient client(0, Name);
        client.send_event(Exit, nullptr, 0);
        EXPECT_EQ(WaitForExit(server), 0);
        server = -1;
    }

    pid_t server = -1;
};

bool EchoComesBack(const std::string& text)
{
    IPCQClient client(0, Name);
    if (client.send_event_with_response(Echo, text.data(), static_cast<long>(text.size())) != 0)
        return false;
    short event = 0;
    Buffer answer;
    return client.receive_response(event, answer) == 0 && event == Echo && Bytes(answer) == text;
}

// A record as a peer of another make would have it.
struct EchoRecord : RawQueueRecord {
    explicit EchoRecord(long channel)
    {
        Put32(0, channel);
        Put32(24, getpid());
        Put16(30, Echo);
        Put(32, "orvd");
        Put(112, "raw");
        Put(192, "rawnode");
        Put16(276, -1);
        Put32(292, -1);
    }
};

int RawQueue() { return msgget(ftok("/opt/orv/bin/orvd", 1), 0660); }

TEST_F(QueueSystem, ServesTwoClientsAtOnceWithTransfersOfManyBlocks)
{
    std::vector<pid_t> clients;
    for (char seed : {'a', 'q'})
        clients.push_back(StartChild([seed] {
            for (int round = 0; round < 5; round++)
                CHILD_CHECK(EchoComesBack(Pattern(200000 + static_cast<size_t>(seed), seed)));
        }));
    for (pid_t client : clients)
        EXPECT_EQ(WaitForExit(client), 0);
}

TEST_F(QueueSystem, APeerOfAnotherMakeIsAnswered)
{
    EchoRecord request(server);
    request.Put16(272, 1);
    request.Put32(280, 5);
    request.Put32(300, 5);
    request.Put(304, "hello");
    ASSERT_EQ(SendRaw(RawQueue(), request, 305), 0) << std::strerror(errno);

    RawQueueRecord answer;
    ASSERT_EQ(TakeRaw(RawQueue(), getpid(), &answer), 305);
    EXPECT_EQ(answer.Get32(24), server);
    EXPECT_EQ(answer.Get16(28), -1);
    EXPECT_EQ(answer.Get16(30), Echo);
    EXPECT_EQ(answer.Text(32), "raw");
    EXPECT_EQ(answer.Text(112), "queue_test");
    EXPECT_EQ(answer.Get16(276), 0);
    EXPECT_EQ(answer.Get32(280), 5);
    EXPECT_EQ(answer.Get16(284), 0);
    EXPECT_EQ(answer.Get32(292), -1);
    EXPECT_EQ(answer.Get32(300), 5);
    EXPECT_EQ(answer.Data(), "hello");
}

TEST_F(QueueSystem, APeerOfAnotherMakeSendsThreeBlocksAndOnlyTheFirstIsAcknowledged)
{
    const std::string text = Pattern(3401, 'k');

    EchoRecord block(server);
    block.Put16(272, 1);
    block.Put32(280, 3401);
    for (int part = 0; part < 3; part++) {
        const std::string piece = text.substr(static_cast<size_t>(part) * 1700, 1700);
        block.Put16(284, 2 - part);
        block.Put32(288, part * 1700);
        block.Put32(300, static_cast<long>(piece.size()));
        block.Put(304, piece);
        ASSERT_EQ(SendRaw(RawQueue(), block, piece.size() + 300), 0);
        if (part == 0) {
            RawQueueRecord ack;
            ASSERT_EQ(TakeRaw(RawQueue(), AckChannel(getpid(), server), &ack), 300);
            EXPECT_EQ(ack.Get16(30), -2);
            EXPECT_EQ(ack.Get32(24), server);
            block.Put32(0, DataChannel(getpid(), server));
            block.Put16(30, -3);
        }
    }

    // the answer comes in blocks of the server's choice, of which the first waits for its acknowledgement too
    std::string answer;
    RawQueueRecord first;
    ASSERT_GT(TakeRaw(RawQueue(), getpid(), &first), 300);
    const int blockSize = first.Get32(300);
    const int blocks = 3401 / blockSize + 1;
    EXPECT_EQ(first.Get16(284), blocks - 1);
    answer += first.Data();
    EchoRecord ack(AckChannel(server, getpid()));
    ack.Put16(30, -2);
    ASSERT_EQ(SendRaw(RawQueue(), ack, 300), 0);
    for (int part = 1; part < blocks; part++) {
        RawQueueRecord next;
        ASSERT_GE(TakeRaw(RawQueue(), DataChannel(server, getpid()), &next), 300);
        EXPECT_EQ(next.Get16(30), -3);
        EXPECT_EQ(next.Get16(284), blocks - 1 - part);
        EXPECT_EQ(next.Get32(288), part * blockSize);
        answer += next.Data();
    }
    EXPECT_TRUE(answer == text);
}

TEST_F(QueueSystem, NonsenseIsDroppedAndTheServerGoesOn)
{
    struct Nonsense {
        const char* what;
        size_t length;
        void (*spoil)(RawQueueRecord&);
    };
    // Each record is wrong in one thing alone, so that no other rule catches it.
    const Nonsense all[] = {
        {"no header", 0, [](RawQueueRecord&) {}},
        {"half a header", 299, [](RawQueueRecord&) {}},
        {"negative block length", 300, [](RawQueueRecord& r) { r.Put32(300, -1); }},
        {"block longer than the record", 2000,
         [](RawQueueRecord& r) {
             r.Put32(280, 5000);
             r.Put32(300, 1701);
         }},
        {"block longer than what came", 310,
         [](RawQueueRecord& r) {
             r.Put32(280, 100);
             r.Put32(300, 100);
         }},
        {"block longer than the event", 310,
         [](RawQueueRecord& r) {
             r.Put32(280, 5);
             r.Put32(300, 10);
         }},
        {"negative total", 300, [](RawQueueRecord& r) { r.Put32(280, -5); }},
        {"negative offset", 310,
         [](RawQueueRecord& r) {
             r.Put32(280, 10);
             r.Put32(288, -10);
             r.Put32(300, 10);
         }},
        {"offset beyond the event", 310,
         [](RawQueueRecord& r) {
             r.Put32(280, 10);
             r.Put32(288, 5);
             r.Put32(300, 10);
         }},
        {"offset that wraps", 310,
         [](RawQueueRecord& r) {
             r.Put32(280, 10);
             r.Put32(288, 0x7FFFFFFF);
             r.Put32(300, 10);
         }},
        {"negative count", 310,
         [](RawQueueRecord& r) {
             r.Put32(280, 10);
             r.Put32(300, 10);
             r.Put16(284, -1);
         }},
        {"a total larger than memory", 2000,
         [](RawQueueRecord& r) {
             r.Put32(280, 0x7FFFFFFF);
             r.Put32(300, 1700);
             r.Put16(284, 32767);
         }},
        {"a program name without end", 300, [](RawQueueRecord& r) { r.Put(112, std::string(80, 'x')); }},
        {"a node name without end", 300, [](RawQueueRecord& r) { r.Put(192, std::string(80, 'x')); }},
        {"a version without end", 300, [](RawQueueRecord& r) { r.Put(4, std::string(20, 'x')); }},
        {"a server name without end", 300, [](RawQueueRecord& r) { r.Put(32, std::string(80, 'x')); }},
    };
    for (const Nonsense& nonsense : all) {
        SCOPED_TRACE(nonsense.what);
        EchoRecord record(server);
        nonsense.spoil(record);
        ASSERT_EQ(SendRaw(RawQueue(), record, nonsense.length), 0);
        EXPECT_TRUE(EchoComesBack("still there"));
        EXPECT_EQ(kill(server, 0), 0);
    }
    IPCQClient client(0, Name);
    ASSERT_EQ(client.send_event_with_response(Count, nullptr, 0), 0);
    short event;
    Buffer answer;
    ASSERT_EQ(client.receive_response(event, answer), 0);
    int events = 0;
    answer.GetDataAt(0, &events, sizeof events);
    EXPECT_EQ(events, static_cast<int>(std::size(all)) + 1) << "nonsense must not be handed out as an event";
}

TEST_F(QueueSystem, AClientThatDiesInTheMiddleOfATransferHurtsNobody)
{
    const pid_t client = StartChild([this] {
        EchoRecord first(server);
        first.Put32(280, 5000);
        first.Put16(284, 2);
        first.Put32(300, 1700);
        SendRaw(RawQueue(), first, 2000);
        RawQueueRecord ack;
        TakeRaw(RawQueue(), AckChannel(getpid(), server), &ack);
        kill(getpid(), SIGKILL);
    });
    EXPECT_EQ(WaitForExit(client), 128 + SIGKILL);
    // the server notices within its step of 10 seconds
    EXPECT_TRUE(EchoComesBack("after the death"));
}

TEST_F(QueueSystem, AServerKilledIsFoundDeadByClientAndSuccessor)
{
    IPCQClient client(0, Name);
    ASSERT_TRUE(client.Connected());
    const int queue = RawQueue();
    EndChild(server);
    server = -1;

    EXPECT_EQ(client.send_event(Echo, "x", 1), ErrorReporter::IPC_SEND_PROCESS_GONE);
    EXPECT_FALSE(client.Connected());

    server = StartChild(Serve);
    ASSERT_TRUE(WaitUntil([] { return IPCQClient(0, Name).Connected() != 0; }));
    EXPECT_NE(RawQueue(), queue) << "the stale queue must be replaced";
    EXPECT_TRUE(EchoComesBack("the successor answers"));
}

TEST_F(QueueSystem, AClientWaitingForAResponseSeesTheServerDie)
{
    const pid_t client = StartChild([this] {
        IPCQClient waiting(0, Name);
        if (waiting.send_event(Count, nullptr, 0) != 0) // answered; the next one is not
            _exit(1);
        short event;
        Buffer data;
        waiting.receive_response(event, data);
        kill(server, SIGSTOP);
        waiting.send_event_with_response(Echo, "x", 1);
        const short code = waiting.receive_response(event, data);
        _exit(code == ErrorReporter::IPC_RECV_PROCESS_GONE && event == 0 ? 0 : 2);
    });
    usleep(500000);
    EndChild(server);
    server = -1;
    EXPECT_EQ(WaitForExit(client), 0);
    EXPECT_FALSE(IPCQClient(0, Name).Connected()); // removes what the dead server left
    EXPECT_EQ(RawQueue(), -1);
}

} // namespace
