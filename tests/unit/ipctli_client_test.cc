// SPDX-License-Identifier: BSD-2-Clause
// The client of a server on another host, with peers that know the record layout alone and with servers of the library.
#include "tests/unit/ipctli_testing.h"

namespace {

using namespace ipctli_testing;

class IpctliClient : public IpctliTest {};

const short Object = 7;
const char HostFile[] = "/var/orv/data/orvdserver.host";

// A client without a probe, and its peer.
struct ClientAndPeer {
    RawSocket listener;
    IPCTliClient* client;
    RawSocket peer;
    explicit ClientAndPeer(const char* server = "orvd")
    {
        EXPECT_TRUE(listener.Listen());
        client = new IPCTliClient(Object, server, "localhost", 0);
        EXPECT_EQ(client->Connected(), 1);
        peer.fd = listener.Accept();
    }
    ~ClientAndPeer() { delete client; }
};

// The record of an event without data, as this program's clients send it.
RawRecord ClientRecord(int event, int responseRqd, int ackRqd)
{
    RawRecord record;
    record.Put16(0, Object);
    record.Put(4, "3.4");
    record.Put16(32, event);
    record.Put(34, "thisnode");
    record.Put(114, "/opt/orv/bin/tester");
    record.Put16(194, responseRqd);
    record.Put16(196, ackRqd);
    record.Put16(198, -1);
    return record;
}

// ---- Construction ----

TEST_F(IpctliClient, WithoutAServerNameNothingIsConnected)
{
    const Output output = Capture([] {
        IPCTliClient client(Object, nullptr, "localhost", 1);
        EXPECT_EQ(client.Connected(), 0);
        EXPECT_EQ(Dump(client), "IPCTliClient Object Begin\n"
                                "IPCTliClient::DestObject   : 7\n"
                                "IPCTliClient::ClientVersion: \n"
                                "IPCTliClient::ClientProgram: \n"
                                "IPCTliClient::ClientNode   : \n"
                                "IPCTliClient Object End\n");
        EXPECT_EQ(client.send_event(1, "x", 1), ConnectionLost);
        EXPECT_EQ(client.send_event_with_response(1, nullptr, 0), ConnectionLost);
        EXPECT_EQ(client.send_event_wait_ack(1, nullptr, -1), ConnectionLost);
        EXPECT_EQ(client.TLISend("p", "n", "v", 1, 2, nullptr, 0, 0, 0), ConnectionLost);
        short event = 5, response = 6, ack = 7;
        Buffer data(3);
        EXPECT_EQ(client.receive_response(event, data), ConnectionLost);
        EXPECT_EQ(event, 0);
        event = 5;
        EXPECT_EQ(client.TLIReceive(event, data, response, ack), ConnectionLost);
        EXPECT_EQ(event, 0);
        EXPECT_EQ(response, 0);
        EXPECT_EQ(ack, 0);
        EXPECT_EQ(data.Size(), 0u);
        EXPECT_STREQ(client.LastSendersProgramName(), "");
        EXPECT_STREQ(client.LastSendersNodeName(), "");
        client.SetReceiveTimeOut(1);
        client.SetSendTimeOut(1);
        client.Disconnect();
    });
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, "");
}

TEST_F(IpctliClient, TheDaemonsServicesAreOne)
{
    for (const char* server : {"orvd", "orvpmd", "pexserver"}) {
        ClientAndPeer ends(server);
        EXPECT_EQ(ends.client->send_event(3, nullptr, 0), 0);
        RawRecord record;
        ASSERT_TRUE(ends.peer.Receive(&record));
        EXPECT_EQ(record.Get16(32), 3);
    }
}

TEST_F(IpctliClient, AnotherServerHasItsOwnService)
{
    RawSocket daemon, other;
    ASSERT_TRUE(daemon.Listen());
    EXPECT_EQ(IPCTliClient(Object, "other", "localhost", 0).Connected(), 0);
    ASSERT_TRUE(other.Listen(5, 4712));
    EXPECT_EQ(IPCTliClient(Object, "other", "localhost", 0).Connected(), 1);
    EXPECT_EQ(IPCTliClient(Object, "nosuchservice", "localhost", 0).Connected(), 0);
}

TEST_F(IpctliClient, FindsTheHostOfTheServer)
{
    RawSocket listener;
    ASSERT_TRUE(listener.Listen(20));
    const auto connects = [](const char* server, const char* node) {
        return IPCTliClient(Object, server, node, 0).Connected();
    };
    EXPECT_EQ(connects("orvd", nullptr), 0); // no file
    WriteFile(HostFile, "localhost and more\n");
    EXPECT_EQ(connects("orvd", nullptr), 1);
    EXPECT_EQ(connects("orvpmd", nullptr), 1);
    EXPECT_EQ(connects("pexserver", nullptr), 1);
    EXPECT_EQ(connects("other", nullptr), 0); // a host of that name
    WriteFile("/etc/hosts", "127.0.0.1 localhost other\n");
    RawSocket other;
    ASSERT_TRUE(other.Listen(5, 4712));
    EXPECT_EQ(connects("other", nullptr), 1);
    WriteFile(HostFile, "thisnode\n");
    EXPECT_EQ(connects("orvd", nullptr), 1);
    EXPECT_EQ(connects("orvd", "thisnode"), 1);
    EXPECT_EQ(connects("orvd", "nosuchhost.invalid"), 0);
    EXPECT_EQ(connects("orvd", ""), 0);
    WriteFile(HostFile, "");
    EXPECT_EQ(connects("orvd", nullptr), 0);
    EXPECT_EQ(connects("orvd", "localhost"), 1);
}

// ---- The probe ----

// Whether a client whose probe is answered with `answer` is connected.
short ConnectedAfter(const std::string& answer, bool reset = false)
{
    RawSocket listener;
    EXPECT_TRUE(listener.Listen());
    const pid_t server = StartChild([&] {
        RawSocket peer(listener.Accept());
        listener.Close();
        RawRecord expected, probe;
        expected.Put16(0, Object);
        expected.Put16(2, 1);
        CHILD_CHECK(peer.Receive(&probe));
        CHILD_CHECK(probe.bytes == expected.bytes);
        CHILD_CHECK(peer.Send(answer));
        if (reset)
            peer.Reset();
        else if (answer.size() == 1904 || answer.size() > 3000)
            peer.AtEnd();
    });
    listener.Close();
    short connected;
    {
        IPCTliClient client(Object, "orvd", "localhost", 1);
        connected = client.Connected();
    }
    EXPECT_EQ(WaitForExit(server), 0);
    return connected;
}

TEST_F(IpctliClient, TheProbesReplyDecides)
{
    const Output output = Capture([] {
        EXPECT_EQ(ConnectedAfter(MakeReply(0, 1).bytes), 1);
        EXPECT_EQ(ConnectedAfter(MakeReply(0, -1).bytes), 1);
        EXPECT_EQ(ConnectedAfter(MakeReply(5, 66).bytes), 1);
        EXPECT_EQ(ConnectedAfter(MakeReply(0, 0).bytes), 0);
        EXPECT_EQ(ConnectedAfter(MakeReply(5, 0).bytes), 0);
        EXPECT_EQ(ConnectedAfter(MakeReply(0, 1).bytes.substr(0, 952)), 0); // half a reply
        EXPECT_EQ(ConnectedAfter(""), 0);
        EXPECT_EQ(ConnectedAfter("", true), 0);
        RawRecord withData = MakeRecord(1, 0, 0, 4, "data");
        withData.Put16(198, 1);
        EXPECT_EQ(ConnectedAfter(withData.bytes), 1);
    });
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, "");
    const std::string report =
        Report(ErrorReporter::WARNING, ErrorReporter::TCP_ERROR, "Malformed record received, connection closed.");
    RawRecord malformed = MakeReply(0, 1);
    malformed.Put32(200, -1);
    EXPECT_EQ(Reports([&] { EXPECT_EQ(ConnectedAfter(malformed.bytes), 0); }), report);
}

TEST_F(IpctliClient, WithoutAProbeNothingIsSent)
{
    ClientAndPeer ends;
    char byte;
    EXPECT_EQ(recv(ends.peer.fd, &byte, 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
}

// ---- Sending ----

TEST_F(IpctliClient, SendsTheRecordsOfItsEvents)
{
    ClientAndPeer ends;
    RawRecord record;
    EXPECT_EQ(ends.client->send_event(11, nullptr, 0), 0);
    ASSERT_TRUE(ends.peer.Receive(&record));
    EXPECT_TRUE(record.bytes == ClientRecord(11, 0, 0).bytes);

    EXPECT_EQ(ends.client->send_event_with_response(-12, "data", 4), 0);
    RawRecord expected = ClientRecord(-12, 1, 0);
    expected.Put16(26, 4);
    expected.Put32(200, 4);
    expected.Put(204, "data");
    ASSERT_TRUE(ends.peer.Receive(&record));
    EXPECT_TRUE(record.bytes == expected.bytes);

    ASSERT_TRUE(ends.peer.Send(MakeReply(0, 45)));
    EXPECT_EQ(ends.client->send_event_wait_ack(13, nullptr, 0), 45);
    ASSERT_TRUE(ends.peer.Receive(&record));
    EXPECT_TRUE(record.bytes == ClientRecord(13, 0, 1).bytes);

    EXPECT_EQ(ends.client->TLISend(nullptr, "", "12345678901234567890123", -2, 14, nullptr, 0, 3, 4), 0);
    expected = ClientRecord(14, 3, 4);
    expected.Put16(0, -2);
    expected.Put(4, "1234567890123456789");
    expected.Put(34, std::string(160, '\0'));
    ASSERT_TRUE(ends.peer.Receive(&record));
    EXPECT_TRUE(record.bytes == expected.bytes);
    EXPECT_EQ(ends.client->Connected(), 1);
}

TEST_F(IpctliClient, TheIdentityIsCut)
{
    ClientAndPeer ends;
    const std::string text(200, 't');
    ends.client->RegisterVersion(text.c_str());
    ends.client->RegisterProgramName(text.c_str());
    ends.client->RegisterNodeName(text.c_str());
    EXPECT_EQ(ends.client->send_event(1, nullptr, 0), 0);
    RawRecord record;
    ASSERT_TRUE(ends.peer.Receive(&record));
    EXPECT_EQ(record.Text(4), std::string(19, 't'));
    EXPECT_EQ(record.Text(34), std::string(79, 't'));
    EXPECT_EQ(record.Text(114), std::string(79, 't'));
    EXPECT_EQ(Dump(*ends.client).substr(0, Dump(*ends.client).find("IPCTli::")), "IPCTliClient Object Begin\n"
                                                                                 "IPCTliClient::DestObject   : 7\n"
                                                                                 "IPCTliClient::ClientVersion: " +
                                                                                     std::string(19, 't') +
                                                                                     "\n"
                                                                                     "IPCTliClient::ClientProgram: " +
                                                                                     std::string(79, 't') +
                                                                                     "\n"
                                                                                     "IPCTliClient::ClientNode   : " +
                                                                                     std::string(79, 't') + "\n");
    ends.client->RegisterVersion(nullptr);
    ends.client->RegisterNodeName("");
    EXPECT_EQ(ends.client->send_event(1, nullptr, 0), 0);
    ASSERT_TRUE(ends.peer.Receive(&record));
    EXPECT_EQ(record.Text(4), "");
    EXPECT_EQ(record.Text(34), "");
}

TEST_F(IpctliClient, DumpsItselfAndItsConnection)
{
    ClientAndPeer ends;
    EXPECT_EQ(Replaced(Dump(*ends.client), "fd      : [0-9]+", "fd      : N"),
              "IPCTliClient Object Begin\n"
              "IPCTliClient::DestObject   : 7\n"
              "IPCTliClient::ClientVersion: 3.4\n"
              "IPCTliClient::ClientProgram: /opt/orv/bin/tester\n"
              "IPCTliClient::ClientNode   : thisnode\n"
              "IPCTli::fd      : N\n"
              "IPCTliClient Object End\n");
}

TEST_F(IpctliClient, AFailedSendDisconnects)
{
    const std::string block(1 << 16, 'b');
    typedef short (IPCTliClient::*Send)(short, const void*, long);
    for (const Send send : {&IPCTliClient::send_event, &IPCTliClient::send_event_with_response}) {
        ClientAndPeer ends;
        ends.peer.Close();
        short code = 0;
        EXPECT_TRUE(WaitUntil([&] { return (code = (ends.client->*send)(1, block.data(), long(block.size()))) != 0; }));
        EXPECT_EQ(code, TcpError);
        EXPECT_EQ(ends.client->Connected(), 0);
        EXPECT_EQ((ends.client->*send)(1, nullptr, 0), ConnectionLost);
    }
    ClientAndPeer ends;
    ends.peer.Close();
    const short code = ends.client->send_event_wait_ack(1, nullptr, 0);
    EXPECT_TRUE(code == ServerGone || code == TcpError) << code;
    EXPECT_EQ(ends.client->Connected(), 0);
}

TEST_F(IpctliClient, RefusedArgumentsDisconnect)
{
    ClientAndPeer ends;
    EXPECT_EQ(Reports([&] { EXPECT_EQ(ends.client->TLISend("p", "n", "v", 1, 2, nullptr, 1, 0, 0), TcpError); }),
              Report(ErrorReporter::WARNING, ErrorReporter::BAD_IPC_PARAMETER,
                     "tcp_send_block data or data length not valid."));
    EXPECT_EQ(ends.client->Connected(), 1);
    Reports([&] { EXPECT_EQ(ends.client->send_event(1, nullptr, 1), TcpError); });
    EXPECT_EQ(ends.client->Connected(), 0);
    EXPECT_TRUE(ends.peer.AtEnd()); // without a byte of a record
}

// The last event of a client that ends arrives.
TEST_F(IpctliClient, AnEventArrivesThoughTheClientDisconnectsAtOnce)
{
    ClientAndPeer ends;
    const std::string text = Pattern(100000);
    EXPECT_EQ(ends.client->send_event(1, text.data(), long(text.size())), 0);
    ends.client->Disconnect();
    EXPECT_EQ(ends.client->Connected(), 0);
    ends.client->Disconnect();
    std::string received;
    RawRecord record;
    while (ends.peer.Receive(&record))
        received += record.Data();
    EXPECT_TRUE(received == text);
    EXPECT_TRUE(ends.peer.AtEnd());
}

// What a forked child gives up is its copy of the connection.
TEST_F(IpctliClient, AForkedChildThatDisconnectsLeavesTheParentConnected)
{
    ClientAndPeer ends;
    const pid_t child = StartChild([&] {
        ends.client->Disconnect();
        CHILD_CHECK(!ends.client->Connected());
    });
    EXPECT_EQ(WaitForExit(child), 0);
    EXPECT_EQ(ends.client->send_event(1, nullptr, 0), 0);
    RawRecord record;
    ASSERT_TRUE(ends.peer.Receive(&record));
    ASSERT_TRUE(ends.peer.Send(MakeReply(2, 3)));
    short event = 0;
    Buffer data;
    EXPECT_EQ(ends.client->receive_response(event, data), 3);
    EXPECT_EQ(event, 2);
}

// ---- Receiving ----

TEST_F(IpctliClient, ReceivesAResponse)
{
    ClientAndPeer ends;
    RawRecord record = MakeRecord(21, 0, 0, 5, "hello");
    record.Put16(194, 2);
    record.Put16(196, 3);
    record.Put16(198, 48);
    ASSERT_TRUE(ends.peer.Send(record));
    short event = 1, response = 0, ack = 0;
    Buffer data;
    EXPECT_EQ(ends.client->TLIReceive(event, data, response, ack), 48);
    EXPECT_EQ(event, 21);
    EXPECT_EQ(response, 2);
    EXPECT_EQ(ack, 3);
    EXPECT_EQ(Bytes(data), "hello");
    EXPECT_STREQ(ends.client->LastSendersProgramName(), "/opt/raw/prog");
    EXPECT_STREQ(ends.client->LastSendersNodeName(), "rawnode");

    ASSERT_TRUE(ends.peer.Send(MakeReply(-2, 0)));
    EXPECT_EQ(ends.client->receive_response(event, data), 0);
    EXPECT_EQ(event, -2);
    EXPECT_EQ(data.Size(), 0u);

    RawRecord nameless = MakeReply(22, 0); // the last sender is forgotten
    nameless.Put(34, std::string(160, '\0'));
    ASSERT_TRUE(ends.peer.Send(nameless));
    EXPECT_EQ(ends.client->receive_response(event, data), 0);
    EXPECT_STREQ(ends.client->LastSendersProgramName(), "");
    EXPECT_STREQ(ends.client->LastSendersNodeName(), "");
    EXPECT_EQ(ends.client->Connected(), 1);
}

TEST_F(IpctliClient, TheServerSaysThatItIsGoing)
{
    ClientAndPeer ends;
    RawRecord record = MakeRecord(-1, 0, 0, 5, "hello");
    record.Put16(194, 1);
    ASSERT_TRUE(ends.peer.Send(record));
    short event = 5, response = 0, ack = 0;
    Buffer data;
    EXPECT_EQ(ends.client->TLIReceive(event, data, response, ack), ServerGone);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(response, 1);
    EXPECT_EQ(data.Size(), 0u);
    EXPECT_EQ(ends.client->Connected(), 0);
    EXPECT_STREQ(ends.client->LastSendersNodeName(), "rawnode");
    EXPECT_TRUE(ends.peer.AtEnd());
    event = 5;
    EXPECT_EQ(ends.client->receive_response(event, data), ConnectionLost);
    EXPECT_EQ(event, 0);
}

TEST_F(IpctliClient, AFailedReceiveDisconnects)
{
    const std::string malformed = [] {
        RawRecord record = MakeRecord(1, 0, 0, 5, "hello");
        record.Put16(26, 1701);
        return record.bytes;
    }();
    const struct {
        std::string bytes;
        bool reset;
        short code;
    } cases[] = {{"", false, ServerGone},
                 {"", true, ServerGone},
                 {std::string(952, '\0'), false, ServerGone},
                 {malformed, false, TcpError}};
    for (const auto& each : cases) {
        ClientAndPeer ends;
        ASSERT_TRUE(ends.peer.Send(each.bytes));
        if (each.reset)
            ends.peer.Reset();
        else
            ends.peer.Close();
        short event = 5, code = 0;
        Buffer data(9);
        const Output output = Capture([&] { code = ends.client->receive_response(event, data); });
        EXPECT_EQ(code, each.code);
        EXPECT_EQ(output.out, "");
        EXPECT_EQ(output.err.empty(), code == ServerGone);
        EXPECT_EQ(event, 0);
        EXPECT_EQ(data.Size(), 0u);
        EXPECT_EQ(ends.client->Connected(), 0);
    }
}

TEST_F(IpctliClient, AReceiveThatTakesTooLongDisconnects)
{
    ClientAndPeer ends;
    ASSERT_TRUE(ends.peer.Send(std::string(952, '\0')));
    ends.client->SetReceiveTimeOut(1); // without effect
    Handling alarms(SIGALRM);
    Nagger nagger(SIGALRM);
    short event = 5;
    Buffer data;
    EXPECT_EQ(ends.client->receive_response(event, data), ReceiveTimeOut);
    EXPECT_EQ(event, 0);
    EXPECT_EQ(ends.client->Connected(), 0);
}

// ---- Both ends of the library, in processes of their own ----

// Answers events: with their data when they ask for a response, without when they ask for an acknowledgement.
void Echo(IPCTli& listener)
{
    IPCTli end;
    CHILD_CHECK(listener.Tlisten() && end.Taccept(listener));
    TliMsgStruct record;
    Buffer data;
    while (end.recv_block(&record, data) == 0) {
        const bool probe = record.QueueExistCheck != 0;
        CHILD_CHECK(record.object == Object);
        record.result_code = probe ? 1 : record.event;
        const long length = record.response_rqd ? long(data.Size()) : 0;
        if (probe || record.response_rqd || record.ack_rqd)
            CHILD_CHECK(end.send_block(&record, static_cast<const void*>(data), length) == 0);
    }
}

// A server that echoes one client's events, in a process of its own.
pid_t StartEcho()
{
    IPCTli listener;
    EXPECT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    const pid_t server = StartChild([&] { Echo(listener); });
    listener.Tclose();
    return server;
}

TEST_F(IpctliClient, EventsOfAnySizeAreEchoed)
{
    const pid_t server = StartEcho();
    {
        IPCTliClient client(Object, "orvd", "localhost", 1);
        ASSERT_EQ(client.Connected(), 1);
        short event = 0;
        Buffer data;
        for (const int size : {0, 1, 1699, 1700, 1701, 3400, 1 << 20, 10 << 20}) {
            const std::string text = Pattern(static_cast<size_t>(size));
            ASSERT_EQ(client.send_event_with_response(30, text.data(), size), 0) << size;
            ASSERT_EQ(client.receive_response(event, data), 30) << size;
            EXPECT_EQ(event, 30);
            EXPECT_TRUE(Bytes(data) == text) << size;
            EXPECT_STREQ(client.LastSendersProgramName(), "/opt/orv/bin/tester");
            EXPECT_STREQ(client.LastSendersNodeName(), "thisnode");
        }
        EXPECT_EQ(client.send_event_wait_ack(31, "text", 4), 31);
        EXPECT_EQ(client.send_event(32, "text", 4), 0);
    }
    EXPECT_EQ(WaitForExit(server), 0);
}

TEST_F(IpctliClient, AServerThatDiesIsNoticed)
{
    const pid_t server = StartEcho();
    IPCTliClient client(Object, "orvd", "localhost", 1);
    ASSERT_EQ(client.Connected(), 1);
    EndChild(server);
    short event = 5;
    Buffer data;
    EXPECT_EQ(client.receive_response(event, data), ServerGone);
    EXPECT_EQ(client.Connected(), 0);
}

} // namespace
