// A server and its clients as real processes over one queue: side by side, dying at the wrong moment, and talking
// nonsense. The peers that talk nonsense are written from the record layout alone, over raw msgsnd and msgrcv.

#include "Misc/ipcq.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/proginfo.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

enum Event : short { Echo = 1, Count = 2, Exit = 9 };

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
    if (!server.Created())
        _exit(3);
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
    if (client.receive_response(event, answer) != 0 || event != Echo || answer.Size() != text.size())
        return false;
    return std::memcmp(static_cast<const void*>(answer), text.data(), text.size()) == 0;
}

// The record and its sending, as a peer of another make would have them.
struct RawRecord {
    long type; // widened
    char text[2000];

    explicit RawRecord(long channel) : type(channel)
    {
        std::memset(text, 0, sizeof text);
        Put32(24, getpid());
        PutText(32, "orvd");
        PutText(112, "raw");
        PutText(192, "rawnode");
        Put16(30, Echo);
        Put16(276, -1);
        Put32(292, -1);
    }
    // Offsets are those of the whole record, whose 4-byte type comes first.
    void Put16(int offset, int value)
    {
        const int16_t v = static_cast<int16_t>(value);
        std::memcpy(text + offset - 4, &v, sizeof v);
    }
    void Put32(int offset, long value)
    {
        const int32_t v = static_cast<int32_t>(value);
        std::memcpy(text + offset - 4, &v, sizeof v);
    }
    void PutText(int offset, const char* value) { std::strcpy(text + offset - 4, value); }
    int Get16(int offset) const
    {
        int16_t v;
        std::memcpy(&v, text + offset - 4, sizeof v);
        return v;
    }
    int Get32(int offset) const
    {
        int32_t v;
        std::memcpy(&v, text + offset - 4, sizeof v);
        return v;
    }
};

int RawQueue()
{
    return msgget(ftok("/opt/orv/bin/orvd", 1), 0660);
}

int RawSend(const RawRecord& record, size_t textLength)
{
    return msgsnd(RawQueue(), &record, textLength, 0);
}

TEST_F(QueueSystem, TwoClientsAtOnceWithTransfersOfManyBlocks)
{
    std::vector<pid_t> clients;
    for (char seed : {'a', 'q'})
        clients.push_back(StartChild([seed] {
            for (int round = 0; round < 5; round++)
                if (!EchoComesBack(Pattern(200000 + static_cast<size_t>(seed), seed)))
                    _exit(1);
        }));
    for (pid_t client : clients)
        EXPECT_EQ(WaitForExit(client), 0);
}

TEST_F(QueueSystem, APeerOfAnotherMakeIsAnswered)
{
    RawRecord request(server);
    request.Put16(272, 1);
    request.Put32(280, 5);
    request.Put32(300, 5);
    std::memcpy(request.text + 300, "hello", 5);
    ASSERT_EQ(RawSend(request, 305), 0) << std::strerror(errno);

    RawRecord answer(0);
    ASSERT_EQ(msgrcv(RawQueue(), &answer, 2000, getpid(), 0), 305);
    EXPECT_EQ(answer.Get32(24), server);
    EXPECT_EQ(answer.Get16(28), -1);
    EXPECT_EQ(answer.Get16(30), Echo);
    EXPECT_STREQ(answer.text + 32 - 4, "raw");
    EXPECT_STREQ(answer.text + 112 - 4, "queue_test");
    EXPECT_EQ(answer.Get16(276), 0);
    EXPECT_EQ(answer.Get32(280), 5);
    EXPECT_EQ(answer.Get16(284), 0);
    EXPECT_EQ(answer.Get32(292), -1);
    EXPECT_EQ(answer.Get32(300), 5);
    EXPECT_EQ(std::string(answer.text + 300, 5), "hello");
}

TEST_F(QueueSystem, APeerOfAnotherMakeSendsThreeBlocksAndOnlyTheFirstIsAcknowledged)
{
    const std::string text = Pattern(3401, 'k');
    const long ackChannel = 0x0EFFFFFFL - getpid() + server;
    const long dataChannel = 0x0FFFFFFFL - getpid() + server;

    RawRecord block(server);
    block.Put16(272, 1);
    block.Put32(280, 3401);
    for (int part = 0; part < 3; part++) {
        const int length = part < 2 ? 1700 : 1;
        block.Put16(284, 2 - part);
        block.Put32(288, part * 1700);
        block.Put32(300, length);
        std::memcpy(block.text + 300, text.data() + part * 1700, static_cast<size_t>(length));
        ASSERT_EQ(RawSend(block, static_cast<size_t>(length) + 300), 0);
        if (part == 0) {
            RawRecord ack(0);
            ASSERT_EQ(msgrcv(RawQueue(), &ack, 2000, ackChannel, 0), 300);
            EXPECT_EQ(ack.Get16(30), -2);
            EXPECT_EQ(ack.Get32(24), server);
            block.type = dataChannel;
            block.Put16(30, -3);
        }
    }

    // the answer comes in blocks of the server's choice, of which the first waits for its acknowledgement too
    std::string answer;
    RawRecord first(0);
    ASSERT_GT(msgrcv(RawQueue(), &first, 2000, getpid(), 0), 300);
    const int blockSize = first.Get32(300);
    const int blocks = 3401 / blockSize + 1;
    EXPECT_EQ(first.Get16(284), blocks - 1);
    answer.append(first.text + 300, static_cast<size_t>(blockSize));
    RawRecord ack(0x0EFFFFFFL - server + getpid());
    ack.Put16(30, -2);
    ASSERT_EQ(RawSend(ack, 300), 0);
    for (int part = 1; part < blocks; part++) {
        RawRecord next(0);
        ASSERT_GE(msgrcv(RawQueue(), &next, 2000, 0x0FFFFFFFL - server + getpid(), 0), 300);
        EXPECT_EQ(next.Get16(30), -3);
        EXPECT_EQ(next.Get16(284), blocks - 1 - part);
        EXPECT_EQ(next.Get32(288), part * blockSize);
        answer.append(next.text + 300, static_cast<size_t>(next.Get32(300)));
    }
    EXPECT_TRUE(answer == text);
}

TEST_F(QueueSystem, NonsenseIsDroppedAndTheServerGoesOn)
{
    struct Nonsense {
        const char* what;
        size_t length;
        void (*spoil)(RawRecord&);
    };
    // Each record is wrong in one thing alone, so that no other rule catches it.
    const Nonsense all[] = {
        {"no header", 0, [](RawRecord&) {}},
        {"half a header", 299, [](RawRecord&) {}},
        {"negative block length", 300, [](RawRecord& r) { r.Put32(300, -1); }},
        {"block longer than the record", 2000,
         [](RawRecord& r) {
             r.Put32(280, 5000);
             r.Put32(300, 1701);
         }},
        {"block longer than what came", 310,
         [](RawRecord& r) {
             r.Put32(280, 100);
             r.Put32(300, 100);
         }},
        {"block longer than the event", 310,
         [](RawRecord& r) {
             r.Put32(280, 5);
             r.Put32(300, 10);
         }},
        {"negative total", 300, [](RawRecord& r) { r.Put32(280, -5); }},
        {"negative offset", 310,
         [](RawRecord& r) {
             r.Put32(280, 10);
             r.Put32(288, -10);
             r.Put32(300, 10);
         }},
        {"offset beyond the event", 310,
         [](RawRecord& r) {
             r.Put32(280, 10);
             r.Put32(288, 5);
             r.Put32(300, 10);
         }},
        {"offset that wraps", 310,
         [](RawRecord& r) {
             r.Put32(280, 10);
             r.Put32(288, 0x7FFFFFFF);
             r.Put32(300, 10);
         }},
        {"negative count", 310,
         [](RawRecord& r) {
             r.Put32(280, 10);
             r.Put32(300, 10);
             r.Put16(284, -1);
         }},
        {"a total larger than memory", 2000,
         [](RawRecord& r) {
             r.Put32(280, 0x7FFFFFFF);
             r.Put32(300, 1700);
             r.Put16(284, 32767);
         }},
        {"a program name without end", 300, [](RawRecord& r) { std::memset(r.text + 112 - 4, 'x', 80); }},
        {"a node name without end", 300, [](RawRecord& r) { std::memset(r.text + 192 - 4, 'x', 80); }},
        {"a version without end", 300, [](RawRecord& r) { std::memset(r.text, 'x', 20); }},
        {"a server name without end", 300, [](RawRecord& r) { std::memset(r.text + 32 - 4, 'x', 80); }},
    };
    for (const Nonsense& nonsense : all) {
        SCOPED_TRACE(nonsense.what);
        RawRecord record(server);
        nonsense.spoil(record);
        ASSERT_EQ(RawSend(record, nonsense.length), 0);
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
        RawRecord first(server);
        first.Put32(280, 5000);
        first.Put16(284, 2);
        first.Put32(300, 1700);
        RawSend(first, 2000);
        RawRecord ack(0);
        msgrcv(RawQueue(), &ack, 2000, 0x0EFFFFFFL - getpid() + server, 0);
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
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
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
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    server = -1;
    EXPECT_EQ(WaitForExit(client), 0);
    EXPECT_FALSE(IPCQClient(0, Name).Connected()); // removes what the dead server left
    EXPECT_EQ(RawQueue(), -1);
}

} // namespace
