// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcobject.h"

#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

#include "Misc/cstring.h"
#include "Misc/ipctli.h"
#include "tests/support/failing_memory.h"
#include "tests/unit/echo_testing.h"

// The sleeps of the library, noted and not slept while a test counts them.
static std::vector<unsigned>* sleeps = nullptr;

extern "C" unsigned sleep(unsigned seconds)
{
    if (sleeps != nullptr) {
        sleeps->push_back(seconds);
        return 0;
    }
    const struct timespec time = {static_cast<time_t>(seconds), 0};
    nanosleep(&time, nullptr);
    return 0;
}

namespace {

using namespace ipcq_testing;

class IpcObject : public EchoTest {
protected:
    void TearDown() override
    {
        sleeps = nullptr;
        EchoTest::TearDown();
    }
};

const char EmptyDump[] = "IPCClient Object Begin\nIPCClient Object End\n";

/// The tags given to monitored objects so far: a queue client takes one each, whether it connects or not.
long Tags() { return MonitoredObject().myObjectTag(); }

TEST_F(IpcObject, WithoutANameNothingIsConnected)
{
    const long tags = Tags();
    IPCClient client(1, nullptr, "somewhere", IPCClient::AnyClient, 5);
    EXPECT_EQ(Tags() - tags, 1) << "no transport was tried";
    EXPECT_EQ(client.Connected(), 0);
    EXPECT_EQ(client.GetServerPID(), -1);
    EXPECT_EQ(client.send_event(1, nullptr, 0), 66);
    EXPECT_EQ(client.send_event_with_response(1, nullptr, 0), 66);
    EXPECT_EQ(client.send_event_wait_ack(1, nullptr, 0), 66);
    EXPECT_EQ(client.receive_response(event, data), 66);
    EXPECT_EQ(event, 0);
    client.RegisterVersion("1");
    client.RegisterProgramName("p");
    client.RegisterNodeName("n");
    client.SetReceiveTimeOut(1);
    client.SetSendTimeOut(1);
    client.Disconnect();
    EXPECT_EQ(Dump(client), EmptyDump);
    EXPECT_EQ(IPCClient::IPCServerExists(1, nullptr), 0);
    EXPECT_EQ(IPCClient::TLIServerExists(1, nullptr), 0);
}

TEST_F(IpcObject, TheQueueIsTakenBeforeAConnection)
{
    StartEchoes();
    const long tags = Tags();
    IPCClient client(5, "orvd");
    EXPECT_EQ(Tags() - tags, 2) << "one queue client";
    EXPECT_EQ(client.Connected(), 1);
    EXPECT_EQ(client.GetServerPID(), server);
    client.RegisterVersion("9.9");
    client.RegisterProgramName("prog");
    client.RegisterNodeName("there");
    client.SetReceiveTimeOut(11);
    client.SetSendTimeOut(12);
    const std::string queue = std::to_string(msgget(ftok_orvm("orvd"), 0660));
    EXPECT_EQ(Dump(client), "IPCClient Object Begin\n"
                            "IPCQ CLIENT\n"
                            "IPCQClient Object Begin\n"
                            "IPCQBase::ServerName     : orvd\n"
                            "IPCQBase::ServerPID      : " +
                                std::to_string(server) +
                                "\n"
                                "IPCQBase::MyQueueID      : " +
                                queue +
                                "\n"
                                "IPCQBase::ReceiveTimeOut : 11\n"
                                "IPCQBase::SendTimeOut    : 12\n"
                                "IPCQBase::MyPID          : " +
                                std::to_string(getpid()) +
                                "\n"
                                "IPCQBase::SendersPID     : -1\n"
                                "IPCQBase::SendersProgram : \n"
                                "IPCQBase::SendersNodeName: \n"
                                "IPCQClient::DestObject   : 5\n"
                                "IPCQClient::ClientVersion: 9.9\n"
                                "IPCQClient::ClientProgram: prog\n"
                                "IPCQClient::ClientNode   : there\n"
                                "IPCQClient Object End\n"
                                "IPCClient Object End\n");
    EXPECT_EQ(client.send_event_with_response(Who, nullptr, 0), 0);
    EXPECT_EQ(client.receive_response(event, data), 0);
    EXPECT_EQ(Bytes(data), "prog|there");
}

TEST_F(IpcObject, WhatIsAllowedIsTried)
{
    StartEchoes();
    EXPECT_TRUE(IPCClient(0, "orvd", nullptr, IPCClient::QueueClient).Connected());
    EXPECT_TRUE(IPCClient(0, "orvd", "elsewhere", IPCClient::QueueClient).Connected()) << "asked for in so many words";
    EXPECT_FALSE(IPCClient(0, "orvd", nullptr, IPCClient::TLIClient, 2).Connected()) << "there is no connection";
    EXPECT_TRUE(IPCClient(0, "orvd", ProgInfo::GetNodeName()).Connected());
    EXPECT_TRUE(IPCClient::IPCServerExists(0, "orvd"));
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "orvd", nullptr, IPCClient::TLIClient));
    EXPECT_FALSE(IPCClient::TLIServerExists(0, "orvd"));
}

TEST_F(IpcObject, ANamedOtherHostIsNeverReachedThroughAQueue)
{
    StartEchoes();
    sleeps = new std::vector<unsigned>;
    EXPECT_FALSE(IPCClient(0, "orvd", "elsewhere", IPCClient::AnyClient, 2).Connected());
    EXPECT_FALSE(IPCClient(0, "orvd", "", IPCClient::AnyClient, 2).Connected()) << "an empty name is another host";
    EXPECT_EQ(sleeps->size(), 0u);
    delete sleeps;
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "orvd", "elsewhere"));
}

TEST_F(IpcObject, WaitsForTheQueueLast)
{
    MakeKeyFile("orvd");
    sleeps = new std::vector<unsigned>;
    EXPECT_FALSE(IPCClient(0, "orvd", nullptr, IPCClient::AnyClient, 0).Connected());
    EXPECT_FALSE(IPCClient(0, "orvd", nullptr, IPCClient::TLIClient, 4).Connected());
    EXPECT_EQ(sleeps->size(), 0u);
    EXPECT_FALSE(IPCClient(0, "orvd", nullptr, IPCClient::QueueClient, 4).Connected());
    EXPECT_EQ(sleeps->size(), 2u);
    const long tags = Tags();
    EXPECT_FALSE(IPCClient(0, "orvd", nullptr, IPCClient::AnyClient, 4).Connected());
    EXPECT_EQ(Tags() - tags, 3) << "two queue clients; without a host no connection is tried";
    EXPECT_EQ(sleeps->size(), 4u);
    delete sleeps;
    sleeps = nullptr;

    server = StartChild([] {
        usleep(300000);
        Server late("orvd");
        ServeEchoes(late);
    });
    EXPECT_TRUE(IPCClient(0, "orvd", nullptr, IPCClient::AnyClient, 6).Connected());
}

TEST_F(IpcObject, SendsThroughTheQueue)
{
    StartEchoes();
    IPCClient client(0, "orvd");
    const std::string text = Pattern(5000);
    EXPECT_EQ(client.send_event(Echo, text.data(), 5000), 0);
    EXPECT_EQ(client.send_event_with_response(Echo, text.data(), 5000), 0);
    EXPECT_EQ(client.receive_response(event, data), 0);
    EXPECT_EQ(event, Echo);
    EXPECT_TRUE(Bytes(data) == text);
    EXPECT_EQ(client.send_event_with_response(Refuse, "why", 3), 0);
    EXPECT_EQ(client.receive_response(event, data), Refused);
    EXPECT_EQ(event, Refuse);
    EXPECT_EQ(Bytes(data), "why");
    EXPECT_EQ(client.send_event_wait_ack(Echo, nullptr, 0), 0);
    for (const char* status : {"\x2d", "\x41", "\x42"}) {
        EXPECT_EQ(client.send_event_wait_ack(Echo, status, 1), status[0]);
        EXPECT_TRUE(client.Connected()) << "a status of the server, whatever it is, is no lost connection";
    }
}

TEST_F(IpcObject, AFailedSendDisconnects)
{
    for (int form = 0; form < 3; form++) {
        StartEchoes();
        IPCClient client(0, "orvd");
        EndServer(SIGKILL); // the queue stays
        const short code = form == 0   ? client.send_event(Echo, nullptr, 0)
                           : form == 1 ? client.send_event_with_response(Echo, nullptr, 0)
                                       : client.send_event_wait_ack(Echo, nullptr, 0);
        EXPECT_EQ(code, 67);
        EXPECT_FALSE(client.Connected());
        EXPECT_EQ(Dump(client), EmptyDump) << "form " << form;
        EXPECT_EQ(client.GetServerPID(), -1);
        EXPECT_EQ(client.send_event(Echo, nullptr, 0), 66);
        EXPECT_EQ(client.send_event_with_response(Echo, nullptr, 0), 66);
        EXPECT_EQ(client.send_event_wait_ack(Echo, nullptr, 0), 66);
    }
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "orvd"));
    EXPECT_EQ(ObjectsOf("msg"), 0);
}

TEST_F(IpcObject, ARefusedLengthDisconnectsToo)
{
    StartEchoes();
    IPCClient client(0, "orvd");
    EXPECT_EQ(Reports([&] { EXPECT_EQ(client.send_event(Echo, nullptr, -1), 60); }).empty(), false);
    EXPECT_EQ(Dump(client), EmptyDump);
}

/// The answer of AmIontheORVDServerHost in a process of its own; -1 when a second call gave another.
int OnTheServerHost(const char* firstLine)
{
    unlink(HostFile);
    if (firstLine != nullptr)
        WriteFile(HostFile, firstLine);
    return WaitForExit(StartChild([] {
        const short answer = IPCClient::AmIontheORVDServerHost();
        unlink(HostFile);
        const bool kept = IPCClient::AmIontheORVDServerHost() == answer;
        WriteFile(HostFile, "elsewhere\n");
        _exit(kept && IPCClient::AmIontheORVDServerHost() == answer ? answer : 99);
    }));
}

TEST_F(IpcObject, KnowsTheServerHost)
{
    const std::string own = ProgInfo::GetNodeName();
    EXPECT_EQ(OnTheServerHost(nullptr), 1) << "nothing is configured";
    EXPECT_EQ(OnTheServerHost((own + " and a remark\n").c_str()), 1);
    EXPECT_EQ(OnTheServerHost("elsewhere\n"), 0);
    EXPECT_EQ(OnTheServerHost((" " + own + "\n").c_str()), 0) << "a blank ends the name";
    EXPECT_EQ(OnTheServerHost(""), 0) << "an empty name is a name";
}

class IpcReconnect : public IpcObject {};

TEST_F(IpcReconnect, CountsItsAttemptsAndSleeps)
{
    MakeKeyFile("orvd");
    long tags = Tags();
    ReconnectClient client(0, "orvd");
    EXPECT_EQ(Tags() - tags, 2) << "one client, made by the constructor";
    EXPECT_EQ(client.ServerConnected(), 0);
    const struct {
        short count, wait;
        long clients;
        std::vector<unsigned> slept;
    } cases[] = {
        {5, 5, 5, {5, 5, 5, 5}}, {1, 5, 1, {}}, {2, 9, 2, {9}}, {3, 0, 3, {}}, {0, 5, 0, {}}, {-1, 5, 0, {}},
    };
    for (const auto& expected : cases) {
        if (&expected != cases) { // the first shows the defaults
            client.SetRetryCount(expected.count);
            client.SetRetryWaitTime(expected.wait);
        }
        std::vector<unsigned> slept;
        sleeps = &slept;
        tags = Tags();
        EXPECT_EQ(client.AttemptReConnect(), 65);
        EXPECT_EQ(Tags() - tags, expected.clients + 1) << "count " << expected.count;
        EXPECT_EQ(slept, expected.slept) << "count " << expected.count;
    }
}

TEST_F(IpcReconnect, StopsAtTheFirstConnectedClient)
{
    StartEchoes();
    ReconnectClient client(0, "orvd");
    EXPECT_NE(client.ServerConnected(), 0);
    std::vector<unsigned> slept;
    sleeps = &slept;
    const long tags = Tags();
    EXPECT_EQ(client.AttemptReConnect(), 0);
    EXPECT_EQ(Tags() - tags, 2);
    EXPECT_TRUE(slept.empty());
}

TEST_F(IpcReconnect, WithoutMemoryThereIsNoClient)
{
    StartEchoes();
    std::vector<unsigned> slept;
    sleeps = &slept;
    std::unique_ptr<ReconnectClient> client;
    {
        const MemoryFailure noClient = MemoryFailure::OfSize(sizeof(IPCClient), NewObject);
        client = std::make_unique<ReconnectClient>(0, "orvd");
        EXPECT_EQ(client->ServerConnected(), 0);
        EXPECT_EQ(client->AttemptReConnect(), 10);
        EXPECT_TRUE(slept.empty()) << "waiting makes no memory";
        EXPECT_EQ(client->SendEvent(Echo, nullptr, 0), 10);
        EXPECT_EQ(client->SendEventWaitAck(Echo, nullptr, 0), 10);
        EXPECT_EQ(client->SendEventWithResponse(Echo, data, Echo, nullptr, 0), 65);
        client->SetRetryCount(0);
        EXPECT_EQ(client->AttemptReConnect(), 10);
    }
    client->SetRetryCount(1);
    {
        const MemoryFailure noTransport = MemoryFailure::OfSize(sizeof(IPCQClient), NewObject);
        EXPECT_EQ(client->AttemptReConnect(), 65);
    }
    EXPECT_EQ(client->SendEvent(Echo, nullptr, 0), 0);
}

TEST_F(IpcReconnect, WithoutMemoryForTheNodeNoOtherServerIsTaken)
{
    StartEchoes();
    std::unique_ptr<ReconnectClient> client;
    {
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CStringRep) + sizeof "elsewhere", NewObject);
        client = std::make_unique<ReconnectClient>(0, "orvd", "elsewhere");
    }
    EXPECT_EQ(client->ServerConnected(), 0);
    EXPECT_EQ(client->AttemptReConnect(), 10);
    client->SetServerNode("");
    EXPECT_EQ(client->AttemptReConnect(), 0);
}

TEST_F(IpcReconnect, RecoversWhenTheQueueIsGone)
{
    MakeKeyFile("orvd");
    ReconnectClient client(0, "orvd");
    client.SetRetryCount(1);
    // How each operation fails without a server, and works with one: first on a client that still has the old queue,
    // then on one that has none.
    const std::vector<std::function<short()>> operations = {
        [&] { return client.SendEvent(Echo, nullptr, 0); },
        [&] { return client.SendEventWaitAck(Echo, nullptr, 0); },
        [&] { return client.SendEventWithResponse(Echo, data, Echo, nullptr, 0); },
    };
    std::vector<pid_t> retired;
    for (const auto& operation : operations) {
        for (bool restarted : {true, false}) {
            StartEchoes();
            client.CreateClient();
            EXPECT_EQ(client.SendEvent(Retire, nullptr, 0), 0);
            EXPECT_TRUE(WaitUntil([] { return ObjectsOf("msg") == 0; }));
            retired.push_back(server);
            if (restarted) {
                StartEchoes();
                EXPECT_EQ(operation(), 0) << "65 of the first send, 0 of the second";
                EndServer();
            } else {
                EXPECT_EQ(operation(), 65) << "there is no other";
                EXPECT_EQ(operation(), 65) << "66 of the send, 65 of reconnecting";
                StartEchoes();
                EXPECT_EQ(operation(), 0);
                EndServer();
            }
        }
    }
    for (pid_t pid : retired) {
        EndChild(pid);
    }
}

TEST_F(IpcReconnect, ReturnsTheCodeOfTheFailedSend)
{
    StartEchoes();
    ReconnectClient client(0, "orvd");
    client.SetRetryCount(1);
    EndServer(SIGKILL); // the queue stays: 67
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, nullptr, 0), 67) << "not 65, which reconnecting gave";
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, nullptr, 0), 65) << "nothing was sent";

    StartEchoes();
    client.CreateClient();
    EndServer(SIGKILL);
    EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 67) << "unchanged: it starts no reconnection";
    EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 65);
    EXPECT_EQ(ObjectsOf("msg"), 0);
}

TEST_F(IpcReconnect, ChecksTheResponse)
{
    StartEchoes();
    ReconnectClient client(0, "orvd");
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "x", 1), 0);
    EXPECT_EQ(client.SendEventWithResponse(Refuse, data, Refuse, "x", 1), Refused);
    EXPECT_EQ(Bytes(data), "x") << "a refusal may have data";
    EXPECT_EQ(client.SendEventWithResponse(RefuseOddly, data, RefuseOddly, "y", 1), Refused) << "before the event";
    EXPECT_EQ(client.SendEventWithResponse(AnswerOddly, data, AnswerOddly, "z", 1), 48);
    EXPECT_EQ(Bytes(data), "z");
    EXPECT_EQ(client.SendEventWithResponse(AnswerOddly, data, OddEvent, "z", 1), 0);
    EXPECT_NE(client.ServerConnected(), 0);
}

TEST_F(IpcReconnect, TheTextFormGoesThroughTheBufferForm)
{
    class Counting : public ReconnectClient {
    public:
        using ReconnectClient::ReconnectClient;
        using ReconnectClient::SendEventWithResponse;
        short SendEventWithResponse(short event, Buffer& inbuf, short response_event, const void* ptr,
                                    long size) override
        {
            calls++;
            return ReconnectClient::SendEventWithResponse(event, inbuf, response_event, ptr, size);
        }
        int calls = 0;
    };
    StartEchoes();
    Counting client(0, "orvd");
    client.SetRetryCount(1);
    CString text("earlier");
    EXPECT_EQ(client.SendEventWithResponse(Echo, text, Echo, "hello\0there", 11), 0);
    EXPECT_STREQ(text, "hello");
    EXPECT_EQ(text.strlen(), 5u);
    EXPECT_EQ(client.SendEventWithResponse(Refuse, text, Refuse, "no", 2), Refused);
    EXPECT_STREQ(text, "no");
    EXPECT_EQ(client.SendEventWithResponse(AnswerOddly, text, AnswerOddly, "odd", 3), 48);
    EXPECT_STREQ(text, "odd");
    EndServer();
    EXPECT_EQ(client.SendEventWithResponse(Echo, text, Echo, nullptr, 0), 67);
    EXPECT_STREQ(text, "") << "assigned in every case";
    EXPECT_EQ(client.calls, 4);
}

TEST_F(IpcReconnect, KeepsItsNodeAndNotItsName)
{
    StartEchoes("first");
    const pid_t first = server;
    const pid_t second = StartServer("second", ServeEchoes);
    char name[16] = "first";
    ReconnectClient client(0, name, "elsewhere");
    client.SetRetryCount(1);
    EXPECT_STREQ(client.GetServerNode(), "elsewhere");
    EXPECT_EQ(client.ServerConnected(), 0) << "another host";
    client.SetServerNode("");
    EXPECT_EQ(client.ServerConnected(), 0) << "setting it connects nothing";
    EXPECT_EQ(client.AttemptReConnect(), 0) << "an empty node leaves it to the client";
    client.SetServerNode(nullptr);
    EXPECT_STREQ(client.GetServerNode(), "");
    client.SetServerNode(ProgInfo::GetNodeName());
    EXPECT_EQ(client.AttemptReConnect(), 0);

    EXPECT_EQ(client.SendEvent(End, nullptr, 0), 0);
    EXPECT_EQ(WaitForExit(first), 0);
    server = second;
    std::strcpy(name, "second");
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "to the second", 13), 0);
}

TEST_F(IpcReconnect, LeavesNothingOpen)
{
    StartEchoes();
    const int descriptors = OpenDescriptors();
    for (int i = 0; i < 20; i++) {
        ReconnectClient client(0, "orvd");
        EXPECT_EQ(client.SendEventWaitAck(Echo, nullptr, 0), 0);
        client.CreateClient();
        IPCClient other(0, "orvd", "elsewhere");
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

} // namespace
