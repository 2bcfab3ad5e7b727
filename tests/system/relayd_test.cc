// SPDX-License-Identifier: BSD-2-Clause
// Clients on other hosts: relayd, run for real, between TCP connections and a server's queue.
#include <csignal>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/system/relayd_testing.h"

using namespace relayd_testing;

namespace {

// ---- The same over both transports ------------------------------------------------------------------------------

class BothTransports : public RelaydTest, public ::testing::WithParamInterface<IPCClient::client_types> {
protected:
    void SetUp() override
    {
        RelaydTest::SetUp();
        if (!IsSkipped()) {
            StartEchoes();
            StartRelay();
        }
    }
    static const char* Node() { return GetParam() == IPCClient::TLIClient ? FarHost : nullptr; }
};

INSTANTIATE_TEST_SUITE_P(, BothTransports, ::testing::Values(IPCClient::QueueClient, IPCClient::TLIClient),
                         [](const auto& instance) {
                             return std::string(instance.param == IPCClient::QueueClient ? "Queue" : "Tcp");
                         });

TEST_P(BothTransports, CarriesEventsOfAllSizes)
{
    IPCClient client(0, "orvd", Node(), GetParam());
    ASSERT_TRUE(client.Connected());
    EXPECT_EQ(client.GetServerPID(), GetParam() == IPCClient::QueueClient ? server : -1);
    for (size_t size : {0u, 1u, 1699u, 1700u, 1701u, 3400u, 1u << 20, 10u << 20}) {
        const std::string text = Pattern(size);
        EXPECT_EQ(client.send_event_with_response(Echo, text.data(), static_cast<long>(size)), 0);
        EXPECT_EQ(client.receive_response(event, data), 0) << size << " bytes";
        EXPECT_EQ(event, Echo);
        EXPECT_TRUE(Bytes(data) == text) << size << " bytes, " << data.Size() << " came";
    }
}

TEST_P(BothTransports, BringsBackStatusAndEvent)
{
    IPCClient client(0, "orvd", Node(), GetParam());
    EXPECT_EQ(client.send_event_with_response(Refuse, "why", 3), 0);
    EXPECT_EQ(client.receive_response(event, data), Refused);
    EXPECT_EQ(event, Refuse);
    EXPECT_EQ(Bytes(data), "why");
    EXPECT_EQ(client.send_event_with_response(AnswerOddly, nullptr, 0), 0);
    EXPECT_EQ(client.receive_response(event, data), 0);
    EXPECT_EQ(event, OddEvent);
    for (const char* status : {"\x01", "\x2d", "\x7f"})
        EXPECT_EQ(client.send_event_wait_ack(Echo, status, 1), status[0]);
    EXPECT_EQ(client.send_event_wait_ack(Echo, nullptr, 0), 0);
    const std::string large = "\x05" + Pattern(100000);
    EXPECT_EQ(client.send_event_wait_ack(Echo, large.data(), 100001), 5);
    EXPECT_TRUE(client.Connected());
}

TEST_P(BothTransports, NamesTheSender)
{
    IPCClient client(0, "orvd", Node(), GetParam());
    client.RegisterProgramName("/opt/orv/bin/client");
    client.RegisterNodeName(FarHost);
    EXPECT_EQ(client.send_event_with_response(Who, nullptr, 0), 0);
    EXPECT_EQ(client.receive_response(event, data), 0);
    EXPECT_EQ(Bytes(data), "/opt/orv/bin/client|far");
}

TEST_P(BothTransports, KeepsTheOrderOfEvents)
{
    IPCClient client(0, "orvd", Node(), GetParam());
    for (int i = 0; i < 50; i++) {
        const std::string text = std::to_string(i);
        EXPECT_EQ(client.send_event(Echo, text.data(), static_cast<long>(text.size())), 0) << "nothing comes back";
        EXPECT_EQ(client.send_event_with_response(Echo, text.data(), static_cast<long>(text.size())), 0);
        EXPECT_EQ(client.receive_response(event, data), 0);
        EXPECT_EQ(Bytes(data), text);
    }
}

TEST_P(BothTransports, ReconnectClientFindsARestartedServer)
{
    ReconnectClient client(0, "orvd", Node());
    client.SetRetryCount(1);
    EXPECT_NE(client.ServerConnected(), 0);
    for (int signal : {SIGTERM, SIGKILL}) {
        EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "before", 6), 0);
        EndServer(signal);
        StartEchoes();
        EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "after", 5), 0);
        EXPECT_EQ(Bytes(data), "after");
        EXPECT_EQ(client.SendEventWaitAck(Echo, "\x09", 1), 9);
    }
}

TEST_P(BothTransports, ServesSeveralClientsAtOnce)
{
    std::vector<pid_t> clients(4);
    const IPCClient::client_types kind = GetParam();
    const char* node = Node();
    for (int i = 0; i < 4; i++)
        clients[static_cast<size_t>(i)] = StartChild([=] {
            IPCClient client(0, "orvd", node, kind);
            CHILD_CHECK(client.Connected());
            const std::string text = Pattern(static_cast<size_t>(20000 + i));
            for (int round = 0; round < 10; round++) {
                short answered;
                Buffer answer;
                CHILD_CHECK(client.send_event_with_response(Echo, text.data(), static_cast<long>(text.size())) == 0);
                CHILD_CHECK(client.receive_response(answered, answer) == 0);
                CHILD_CHECK(answered == Echo && Bytes(answer) == text);
            }
        });
    for (pid_t client : clients)
        EXPECT_EQ(WaitForExit(client), 0);
}

// ---- The relay --------------------------------------------------------------------------------------------------

TEST_F(RelaydTest, TheProbeTellsWhetherTheServerLives)
{
    MakeKeyFile("orvd");
    StartRelay();
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "orvd", FarHost));
    EXPECT_TRUE(IPCClient::TLIServerExists(0, "orvd", FarHost)) << "the host is there";
    EXPECT_TRUE(IPCClient(0, "orvd", FarHost, IPCClient::TLIClient, 0, 0).Connected()) << "not asked";
    StartEchoes();
    EXPECT_TRUE(IPCClient::IPCServerExists(0, "orvd", FarHost));
    EXPECT_TRUE(IPCClient::IPCServerExists(0, "orvpmd", FarHost)) << "reached through the same service";
    EndServer(SIGKILL);
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "orvd", FarHost));
    EXPECT_TRUE(Serves(0)) << "no zombie either";
}

TEST_F(RelaydTest, AnswersProbesAndEventsWithWholeRecords)
{
    StartEchoes();
    StartRelay();
    RawConnection connection;
    TliMsgStruct expected = {};
    std::strcpy(expected.senders_version, "1.0");
    std::strcpy(expected.origprog, Relayd.c_str());
    std::strcpy(expected.orignode, ProgInfo::GetNodeName());
    expected.object = 12;
    expected.result_code = 1;
    TliMsgStruct answer;
    EXPECT_TRUE(connection.Send(ProbeRecord(12)));
    ASSERT_TRUE(connection.Receive(answer));
    EXPECT_EQ(std::memcmp(&answer, &expected, sizeof answer), 0);

    // What asks for nothing gets nothing: the next answer is that of the next question.
    TliMsgStruct silent = Record(Echo, "no answer");
    EXPECT_TRUE(connection.Send(silent));
    TliMsgStruct question = Record(Echo, "answer", true);
    question.object = 12;
    EXPECT_TRUE(connection.Send(question));
    expected.event = Echo;
    expected.result_code = 0;
    expected.alloc_data_length = 6;
    expected.send_data_length = 6;
    std::memcpy(expected.msg_data, "answer", 6);
    ASSERT_TRUE(connection.Receive(answer));
    EXPECT_EQ(std::memcmp(&answer, &expected, sizeof answer), 0);

    EXPECT_TRUE(connection.Send(Record(Who, "\x21", true, true)));
    ASSERT_TRUE(connection.Receive(answer));
    EXPECT_EQ(answer.event, AckEvent);
    EXPECT_EQ(answer.result_code, 0x21);
    ASSERT_TRUE(connection.Receive(answer));
    EXPECT_EQ(answer.event, Who) << "asked for both, it gets both";
    EXPECT_EQ(std::string(answer.msg_data, 7), "raw|far");
}

TEST_F(RelaydTest, TellsItsClientThatTheServerHasGone)
{
    StartEchoes();
    StartRelay();
    for (int form = 0; form < 3; form++) {
        RawConnection connection;
        TliMsgStruct answer;
        EXPECT_TRUE(connection.Send(ProbeRecord()));
        ASSERT_TRUE(connection.Receive(answer));
        EXPECT_EQ(answer.result_code, 1);
        EndServer(form == 0 ? SIGTERM : SIGKILL);
        EXPECT_TRUE(connection.Send(Record(Echo, "", form == 1, form == 2)));
        ASSERT_TRUE(connection.Receive(answer));
        EXPECT_EQ(answer.event, GoneEvent) << "form " << form;
        EXPECT_TRUE(connection.IsClosedByPeer());
        StartEchoes();
    }
}

TEST_F(RelaydTest, AServerThatDiesBeforeItAnswersIs65)
{
    StartEchoes();
    StartRelay();
    // The relay and a local client look every ten seconds whether the server lives: wait for both at once.
    std::vector<pid_t> clients;
    const std::string ready[] = {directory.File("response"), directory.File("ack")};
    for (bool ack : {false, true})
        clients.push_back(StartChild([&ready, ack] {
            const std::unique_ptr<IPCClient> client = FarClient();
            CHILD_CHECK(client->Connected());
            WriteFile(ready[ack], "");
            if (ack) {
                CHILD_CHECK(client->send_event_wait_ack(Hang, nullptr, 0) == 65);
            } else {
                short answered = -1;
                Buffer answer;
                CHILD_CHECK(client->send_event_with_response(Hang, nullptr, 0) == 0);
                CHILD_CHECK(client->receive_response(answered, answer) == 65);
                CHILD_CHECK(answered == 0);
            }
            CHILD_CHECK(!client->Connected());
            CHILD_CHECK(client->send_event(Echo, nullptr, 0) == 66);
        }));
    EXPECT_TRUE(WaitUntil([&] { return access(ready[0].c_str(), F_OK) == 0 && access(ready[1].c_str(), F_OK) == 0; }));
    usleep(200000); // for their events to arrive
    EndServer(SIGKILL);
    for (pid_t client : clients)
        EXPECT_EQ(WaitForExit(client), 0);
}

// The relay takes blocks of 1700 bytes; this queue has blocks of 1092, whose number goes beyond its limit.
TEST_F(RelaydTest, AnEventThatIsTooLongForTheQueueIs60)
{
    SetQueueLimit(16384);
    StartEchoes();
    StartRelay();
    IPCClient client(0, "orvd", FarHost);
    std::string text;
    text.resize(40000000, 'x');
    EXPECT_EQ(client.send_event_with_response(Echo, text.data(), static_cast<long>(text.size())), 0);
    EXPECT_EQ(client.receive_response(event, data), 60);
    EXPECT_EQ(client.send_event_wait_ack(Echo, "\x08", 1), 8) << "the connection goes on";
}

TEST_F(RelaydTest, AReconnectClientRecovers)
{
    StartEchoes();
    StartRelay();
    ReconnectClient client(0, "orvd", FarHost);
    client.SetRetryCount(1);
    EndServer();
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, nullptr, 0), 65) << "by the event 0xFFFF";
    EXPECT_EQ(client.ServerConnected(), 0);
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, nullptr, 0), 65) << "by the probe";
    EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 65);
    StartEchoes();
    EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 0);
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "again", 5), 0);
    EXPECT_EQ(Bytes(data), "again");

    // The relay goes: its connections go with it.
    EXPECT_EQ(EndRelay(), 0);
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, nullptr, 0), 65);
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, nullptr, 0), 65) << "refused";
    StartRelay();
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "again", 5), 0) << "at once, on the same port";

    // Killed without a chance, it leaves the open connections to the processes that serve them.
    const std::vector<pid_t> serving = ChildrenOf(relay);
    EXPECT_EQ(EndRelay(SIGKILL), 128 + SIGKILL);
    EXPECT_EQ(client.SendEventWithResponse(Echo, data, Echo, "again", 5), 0);
    EXPECT_FALSE(IPCClient::TLIServerExists(0, "orvd", FarHost));
    client.SetServerNode("nowhere");
    client.CreateClient();
    for (pid_t pid : serving)
        EXPECT_TRUE(WaitUntil([&] { return !process_exists(pid); })) << "it ends with its connection";
    StartRelay();
    client.SetServerNode(FarHost);
    EXPECT_EQ(client.SendEventWaitAck(Echo, "\x03", 1), 3);
}

TEST_F(RelaydTest, ALostConnectionIsMadeAgainBySends)
{
    StartEchoes();
    StartRelay();
    ReconnectClient client(0, "orvd", FarHost);
    client.SetRetryCount(1);
    for (bool ack : {false, true}) {
        EXPECT_EQ(EndRelay(), 0);
        StartRelay();
        EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 0) << "taken by a connection that nobody reads";
        usleep(50000); // for the host to find out
        EXPECT_EQ(ack ? client.SendEventWaitAck(Echo, nullptr, 0) : client.SendEvent(Echo, nullptr, 0), 0);
        EXPECT_TRUE(Serves(1)) << "after 62, on a new connection";
    }
    EndServer();
    EXPECT_EQ(EndRelay(), 0);
    EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 0);
    usleep(50000);
    EXPECT_EQ(client.SendEvent(Echo, nullptr, 0), 65) << "of reconnecting, not 62";
}

TEST_F(RelaydTest, DumpsTheConnection)
{
    StartEchoes();
    StartRelay();
    IPCClient client(3, "orvd", FarHost);
    client.RegisterVersion("9.9");
    client.RegisterProgramName("prog");
    client.RegisterNodeName("there");
    client.SetReceiveTimeOut(1);
    client.SetSendTimeOut(1);
    std::ostringstream out;
    client.dumpOn(out);
    EXPECT_EQ(Replaced(out.str(), "fd      : [0-9]+", "fd      : N"), "IPCClient Object Begin\n"
                                                                      "TLI CLIENT\n"
                                                                      "IPCTliClient Object Begin\n"
                                                                      "IPCTliClient::DestObject   : 3\n"
                                                                      "IPCTliClient::ClientVersion: 9.9\n"
                                                                      "IPCTliClient::ClientProgram: prog\n"
                                                                      "IPCTliClient::ClientNode   : there\n"
                                                                      "IPCTli::fd      : N\n"
                                                                      "IPCTliClient Object End\n"
                                                                      "IPCClient Object End\n");
    client.Disconnect();
    EXPECT_EQ(client.send_event(Echo, nullptr, 0), 66);
    EXPECT_TRUE(Serves(0));
}

TEST_F(RelaydTest, LeavesNothingOpenInItsClients)
{
    StartEchoes();
    StartRelay();
    const int descriptors = OpenDescriptors();
    for (int i = 0; i < 10; i++) {
        ReconnectClient client(0, "orvd", FarHost);
        EXPECT_EQ(client.SendEventWaitAck(Echo, nullptr, 0), 0);
        client.CreateClient();
        EXPECT_FALSE(IPCClient(0, "unknown", FarHost).Connected());
    }
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST_F(RelaydTest, AServerOnThisHostNeedsNoConnection)
{
    StartEchoes();
    StartRelay();
    WriteFile(HostFile, "far\n");
    const IPCClient client(0, "orvd");
    EXPECT_EQ(client.GetServerPID(), server);
    std::ostringstream out;
    client.dumpOn(out);
    EXPECT_EQ(out.str().find("TLI CLIENT"), std::string::npos);
    EXPECT_TRUE(ChildrenOf(relay).empty());
    const IPCClient asked(0, "orvd", nullptr, IPCClient::TLIClient);
    EXPECT_TRUE(asked.Connected());
    EXPECT_EQ(asked.GetServerPID(), -1);
    EXPECT_TRUE(Serves(1));
}

TEST_F(RelaydTest, FindsTheHostInItsFile)
{
    const pid_t other = StartServer("hello", ServeEchoes);
    MakeKeyFile("orvd");
    StartRelay({"--object", "4", "hello"});
    const auto answers = [&](short object) {
        IPCClient client(object, "orvd");
        short code = client.send_event_with_response(Echo, "x", 1);
        return code == 0 ? client.receive_response(event, data) : code;
    };
    EXPECT_EQ(answers(4), 66) << "no host is configured";
    WriteFile(HostFile, " far\n");
    EXPECT_EQ(answers(4), 66) << "an empty name";
    WriteFile(HostFile, "nowhere\n");
    EXPECT_EQ(answers(4), 66);
    WriteFile(HostFile, "far from here\n");
    EXPECT_EQ(answers(4), 0);
    EXPECT_EQ(answers(5), 66) << "no server of that object";
    EXPECT_EQ(IPCClient::AmIontheORVDServerHost(), 0);
    kill(other, SIGTERM);
    EXPECT_EQ(WaitForExit(other), 0);
}

TEST_F(RelaydTest, ServesOtherServices)
{
    const pid_t other = StartServer("hello", ServeEchoes);
    const pid_t service = StartProgram(Relayd, {"--service", "hello"}, directory.File("hello.log"));
    EXPECT_TRUE(WaitUntil([] { return IPCClient::TLIServerExists(0, "hello", FarHost); }));
    EXPECT_TRUE(IPCClient::IPCServerExists(0, "hello", FarHost));
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "orvd", FarHost)) << "nobody listens there";
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "unknown", FarHost)) << "an unknown service";
    EXPECT_FALSE(IPCClient::IPCServerExists(0, "hello", "nowhere"));
    for (pid_t pid : {other, service}) {
        kill(pid, SIGTERM);
        EXPECT_EQ(WaitForExit(pid), 0);
    }
}

TEST_F(RelaydTest, OutlivesWhatItsClientsDo)
{
    StartEchoes();
    StartRelay();
    const std::unique_ptr<IPCClient> client = FarClient(); // works throughout
    const auto works = [&] {
        return client->send_event_with_response(Echo, "still", 5) == 0 && client->receive_response(event, data) == 0 &&
               Bytes(data) == "still";
    };
    ASSERT_TRUE(works());

    std::vector<TliMsgStruct> malformed;
    const auto add = [&](const std::function<void(TliMsgStruct&)>& spoil) {
        malformed.push_back(Record(Echo, "data", true));
        spoil(malformed.back());
    };
    add([](TliMsgStruct& record) { record.send_data_length = 1701; });
    add([](TliMsgStruct& record) { record.send_data_length = -1; });
    add([](TliMsgStruct& record) { record.alloc_data_length = -1; });
    add([](TliMsgStruct& record) { record.alloc_data_length = 3; });
    add([](TliMsgStruct& record) { record.alloc_data_length = INT32_MAX; });
    add([](TliMsgStruct& record) { record.curr_data_offset = 1; });
    add([](TliMsgStruct& record) { record.curr_data_offset = INT32_MIN; });
    add([](TliMsgStruct& record) { record.parts_left = -1; });
    add([](TliMsgStruct& record) { record.alloc_data_length = 0, record.send_data_length = 0, record.parts_left = 1; });
    add([](TliMsgStruct& record) { std::memset(record.origprog, 'x', sizeof record.origprog); });
    add([](TliMsgStruct& record) { std::memset(record.orignode, 'x', sizeof record.orignode); });
    add([](TliMsgStruct& record) { std::memset(record.senders_version, 'x', sizeof record.senders_version); });
    add([](TliMsgStruct& record) { std::memset(static_cast<void*>(&record), 0xFF, sizeof record); });
    for (const TliMsgStruct& record : malformed) {
        RawConnection connection;
        EXPECT_TRUE(connection.Send(record));
        EXPECT_TRUE(connection.IsClosedByPeer()) << "record " << &record - malformed.data();
        EXPECT_TRUE(works());
    }
    { // half a record
        RawConnection connection;
        EXPECT_TRUE(connection.Send(malformed.data(), 1000));
    }
    { // half an event
        RawConnection connection;
        TliMsgStruct first = Record(Echo, std::string(1700, 'x'), true);
        first.alloc_data_length = 5000;
        first.parts_left = 2;
        EXPECT_TRUE(connection.Send(first));
    }
    { // broken off in the middle of an answer
        RawConnection connection;
        EXPECT_TRUE(connection.Send(Record(Echo, "data", true)));
        connection.Reset();
    }
    RawConnection silent;
    EXPECT_TRUE(Serves(2)) << "this one and the client's; the others left no zombie";
    EXPECT_TRUE(works());
}

TEST_F(RelaydTest, SignalsForADumpEndNothing)
{
    StartEchoes();
    StartRelay();
    const std::unique_ptr<IPCClient> client = FarClient();
    ASSERT_TRUE(Serves(1));
    kill(relay, SIGUSR1);
    kill(ChildrenOf(relay)[0], SIGUSR1); // ends a wait, as an idle quarter of an hour does
    usleep(50000);
    EXPECT_EQ(client->send_event_wait_ack(Echo, "\x08", 1), 8);
    EXPECT_TRUE(WaitUntil([] { return FarClient()->Connected() != 0; }));
}

// The process that listens has accepted the connections, but each is its own process's to end.
TEST_F(RelaydTest, ASignalThatEndsAConnectionsProcessEndsTheConnection)
{
    StartEchoes();
    StartRelay();
    RawConnection ended;
    ASSERT_TRUE(Serves(1));
    const std::unique_ptr<IPCClient> other = FarClient();
    kill(ChildrenOf(relay)[0], SIGTERM);
    EXPECT_TRUE(ended.IsClosedByPeer());
    EXPECT_TRUE(Serves(1));
    EXPECT_EQ(other->send_event_wait_ack(Echo, "\x08", 1), 8);
}

TEST_F(RelaydTest, APulledCableOnlyDelays)
{
    StartEchoes();
    StartRelay();
    const auto reached = [&](const char* step) { return access(directory.File(step).c_str(), F_OK) == 0; };
    const auto await = [&](const char* step) { return WaitUntil([&] { return reached(step); }); };
    const auto reach = [&](const char* step) { WriteFile(directory.File(step), ""); };
    SecondHost second([&] {
        IPCClient client(0, "orvd", FirstAddress);
        client.RegisterNodeName("second");
        CHILD_CHECK(client.send_event_wait_ack(Echo, "\x01", 1) == 1);
        reach("connected");
        CHILD_CHECK(await("pulled"));
        CHILD_CHECK(client.send_event_wait_ack(Echo, "\x02", 1) == 2);
        CHILD_CHECK(reached("put back"));
        CHILD_CHECK(system("ip link set cable down") == 0); // the network is unreachable: no waiting
        CHILD_CHECK(!IPCClient(0, "orvd", FirstAddress).Connected());
    });
    ASSERT_TRUE(await("connected"));
    EXPECT_TRUE(second.PullCable());
    reach("pulled");
    usleep(700000);
    reach("put back");
    EXPECT_TRUE(second.PutCableBack());
    EXPECT_EQ(second.WaitForExit(), 0);
}

TEST_F(RelaydTest, ManyConnectionsComeAndGo)
{
    StartEchoes();
    StartRelay();
    std::vector<std::unique_ptr<IPCClient>> clients;
    for (int i = 0; i < 30; i++) {
        clients.push_back(FarClient());
        EXPECT_TRUE(clients.back()->Connected());
    }
    EXPECT_TRUE(Serves(30));
    for (const auto& client : clients)
        EXPECT_EQ(client->send_event_wait_ack(Echo, "\x01", 1), 1);
    clients.resize(10);
    EXPECT_TRUE(Serves(10));
    const std::vector<pid_t> children = ChildrenOf(relay);
    EXPECT_EQ(EndRelay(), 0);
    for (pid_t child : children)
        EXPECT_TRUE(WaitUntil([&] { return !process_exists(child); })) << "they end with the relay";
    for (const auto& client : clients)
        EXPECT_EQ(client->send_event_wait_ack(Echo, nullptr, 0), 65);
}

TEST_F(RelaydTest, ComplainsOfWrongUsage)
{
    const auto run = [&](const std::vector<std::string>& arguments) {
        return WaitForExit(StartProgram(Relayd, arguments, directory.File("relayd.log")));
    };
    EXPECT_EQ(run({"--help"}), 0);
    EXPECT_NE(Log().find("Exit codes: 0 ended as asked, 1 could not listen, 2 wrong usage.\n"), std::string::npos);
    const std::vector<std::string> wrong[] = {{"orvd"},
                                              {"--service"},
                                              {"--object", "1"},
                                              {"--object", "x", "n"},
                                              {"--object", "99999", "n"},
                                              {"--max-connections", "0"},
                                              {"--max-connections", "1x"},
                                              {"--max-connections"},
                                              {"--keepalive", "0"},
                                              {"--keepalive", "32768"},
                                              {"--trust-node-names", "yes"}};
    for (const std::vector<std::string>& arguments : wrong) {
        EXPECT_EQ(run(arguments), 2);
        EXPECT_EQ(Log().find("usage: relayd "), 0u);
    }
    EXPECT_EQ(run({"--service", "unknown"}), 1);
    EXPECT_EQ(Log(), "get info failed for host: \\1 service: unknown\nrelayd: cannot listen for service unknown\n");
    StartRelay();
    EXPECT_EQ(WaitForExit(StartProgram(Relayd, {}, directory.File("second.log"))), 1);
    EXPECT_NE(ReadFile(directory.File("second.log")).find("relayd: cannot listen for service orvd\n"),
              std::string::npos);
}

} // namespace
