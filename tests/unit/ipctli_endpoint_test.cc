// SPDX-License-Identifier: BSD-2-Clause
// Endpoints: connecting, listening and accepting, time limits, and every line that they print.
#include <cstdlib>
#include <memory>
#include <utility>

#include <sys/socket.h>

#include "svr4/tli.h"
#include "tests/support/failing_memory.h"
#include "tests/unit/ipctli_testing.h"

namespace {

using namespace ipctli_testing;

class IpctliEndpoint : public IpctliTest {};

void ExpectSilence(const std::function<void()>& body)
{
    const Output output = Capture(body);
    EXPECT_EQ(output.out, "");
    EXPECT_EQ(output.err, "");
}

// The caller has its own handler of SIGALRM and its own alarm again, which was set to `seconds` just before the call.
void ExpectAlarm(const Handling& handler, unsigned seconds)
{
    EXPECT_TRUE(handler.IsInPlace());
    const unsigned left = alarm(0);
    EXPECT_GT(left, seconds - 10);
    EXPECT_LE(left, seconds);
}

// ---- The closed endpoint ----

TEST_F(IpctliEndpoint, AClosedEndpointCarriesNothing)
{
    ExpectSilence([] {
        IPCTli end;
        EXPECT_EQ(Descriptor(end), -1);
        EXPECT_EQ(end.Tclose(), -1);
        EXPECT_EQ(Descriptor(end), -1);
        end.Tshutdown();
        EXPECT_EQ(end.send("x", 1), TcpError);
        EXPECT_EQ(end.send("x", 0), 0);
        char byte = 'x';
        EXPECT_EQ(end.recv(&byte, 0), 0);
        EXPECT_EQ(end.recv(&byte, -1), 0);
        EXPECT_EQ(byte, 'x');
        end.SigTermProc(SIGTERM);
        end.SigTermProc(SIGTERM);
    });
}

TEST_F(IpctliEndpoint, ReceivingOnAClosedEndpointIsReported)
{
    IPCTli end;
    char bytes[4] = "xxx";
    const Output output = Capture([&] { EXPECT_EQ(end.recv(bytes, 3), TcpError); });
    EXPECT_EQ(WithoutErrno(output.out.substr(output.out.find('\n') + 1)), "errno: N t_errno: 4\ntlook is: -1\n");
    EXPECT_EQ(output.out.substr(0, output.out.find('\n') + 1), "t_recv failed: \n");
    EXPECT_EQ(output.err, "error on recv:: Illegal file descriptor\n");
    EXPECT_EQ(std::string(bytes, 3), std::string(3, '\0'));
}

// ---- Connecting ----

TEST_F(IpctliEndpoint, AHostThatIsThisNodeIsTheLocalHost)
{
    RawSocket listener;
    ASSERT_TRUE(listener.Listen());
    ExpectSilence([&] {
        for (const char* host : {static_cast<const char*>(nullptr), "thisnode", "\\1", "localhost", "127.0.0.1"}) {
            IPCTli end;
            EXPECT_EQ(end.Topen(host, "orvd"), 1) << (host != nullptr ? host : "null");
            EXPECT_GE(Descriptor(end), 0);
            RawSocket peer(listener.Accept());
            EXPECT_EQ(end.send("abc", 3), 0);
            char bytes[3];
            EXPECT_EQ(recv(peer.fd, bytes, 3, MSG_WAITALL), 3);
        }
        IPCTli end; // the node is in no table: only its replacement can be found
        EXPECT_EQ(end.get_addrs_and_provider("thisnode", "orvd"), 0);
        EXPECT_EQ(end.get_addrs_and_provider("\\1", "orvd"), 1);
        EXPECT_EQ(end.get_addrs_and_provider("localhost", "orvd"), 1);
    });
}

TEST_F(IpctliEndpoint, FailuresToConnectPrintNothing)
{
    RawSocket listener;
    ASSERT_TRUE(listener.Listen());
    ExpectSilence([] {
        IPCTli end;
        EXPECT_EQ(end.Topen("localhost", "other"), 0); // nobody listens
        EXPECT_EQ(Descriptor(end), -1);
        EXPECT_EQ(end.Topen("localhost", "nosuchservice"), 0);
        EXPECT_EQ(end.Topen("nosuchhost.invalid", "orvd"), 0);
        EXPECT_EQ(end.Topen("localhost", nullptr), 0);
        EXPECT_EQ(end.Topen("", "nosuchservice"), 0);
        setenv("NETPATH", "", 1);
        EXPECT_EQ(end.Topen("localhost", "orvd"), 0);
        EXPECT_EQ(end.get_addrs_and_provider("localhost", "orvd"), 0);
        setenv("NETPATH", "nosuchtransport:tcp", 1);
        EXPECT_EQ(end.Topen("localhost", "orvd"), 1);
        unsetenv("NETPATH");
        EXPECT_EQ(end.Topen("localhost", "other"), 0);
        EXPECT_EQ(Descriptor(end), -1);
    });
}

TEST_F(IpctliEndpoint, OpeningAgainClosesTheFirstConnection)
{
    RawSocket listener;
    ASSERT_TRUE(listener.Listen());
    IPCTli end;
    ASSERT_EQ(end.Topen("localhost", "orvd"), 1);
    const int open = OpenDescriptors();
    RawSocket first(listener.Accept());
    ASSERT_EQ(end.Topen("localhost", "orvd"), 1);
    RawSocket second(listener.Accept());
    EXPECT_TRUE(first.AtEnd());
    EXPECT_EQ(end.send("a", 1), 0);
    char byte;
    EXPECT_EQ(recv(second.fd, &byte, 1, 0), 1);
    EXPECT_EQ(OpenDescriptors(), open + 2);
    end.Tprelisten("localhost", "other");
    EXPECT_TRUE(second.AtEnd());
    EXPECT_EQ(OpenDescriptors(), open + 2);
}

// A connection that the peer does not complete: its backlog is full.
TEST_F(IpctliEndpoint, ConnectingIsLimitedTo120Seconds)
{
    RawSocket listener;
    ASSERT_TRUE(listener.Listen(0));
    RawSocket filler[4];
    for (RawSocket& socket : filler)
        ASSERT_TRUE(socket.BeginToConnect());
    IPCTli end;
    {
        Handling handling(SIGUSR2);
        Nagger nagger(SIGUSR2);
        ExpectSilence([&] { EXPECT_EQ(end.Topen("localhost", "orvd"), 0); });
        EXPECT_GT(Handling::secondsLeft, 115);
        EXPECT_LE(Handling::secondsLeft, 120);
    }
    EXPECT_EQ(Descriptor(end), -1);
    Handling alarms(SIGALRM);
    alarm(500);
    {
        Nagger nagger(SIGALRM);
        ExpectSilence([&] { EXPECT_EQ(end.Topen("localhost", "orvd"), 0); });
    }
    ExpectAlarm(alarms, 500);
}

// ---- Listening ----

TEST_F(IpctliEndpoint, ListeningReportsLookUpFailures)
{
    IPCTli end;
    Output output = Capture([&] { EXPECT_EQ(end.Tprelisten("nosuchhost.invalid", "orvd"), 0); });
    EXPECT_EQ(output.out, "get info failed for host: nosuchhost.invalid service: orvd\n");
    EXPECT_EQ(output.err, "");
    output = Capture([&] { EXPECT_EQ(end.Tprelisten(nullptr, "nosuchservice"), 0); });
    EXPECT_EQ(output.out, "get info failed for host: \\1 service: nosuchservice\n");
    output = Capture([&] { EXPECT_EQ(end.Tprelisten("thisnode", "nosuchservice"), 0); });
    EXPECT_EQ(output.out, "get info failed for host: \\1 service: nosuchservice\n");
    output = Capture([&] { EXPECT_EQ(end.Tprelisten(nullptr, nullptr), 0); });
    EXPECT_EQ(output.out, "get info failed for host: \\1 service: \n");
    setenv("NETPATH", "", 1);
    output = Capture([&] { EXPECT_EQ(end.Tprelisten("localhost", "orvd"), 0); });
    unsetenv("NETPATH");
    EXPECT_EQ(output.out, "get info failed for host: localhost service: orvd\n");
    EXPECT_EQ(Descriptor(end), -1);
}

TEST_F(IpctliEndpoint, ListeningReportsATakenAddress)
{
    IPCTli first;
    ASSERT_EQ(first.Tprelisten("localhost", "orvd"), 1);
    IPCTli second;
    const Output output = Capture([&] { EXPECT_EQ(second.Tprelisten("localhost", "orvd"), 0); });
    EXPECT_EQ(output.out.substr(0, output.out.find('\n') + 1), "Tprelisten t_bind failed: \n");
    EXPECT_EQ(WithoutErrno(output.out.substr(output.out.find('\n') + 1)), "errno: N t_errno: 23\n");
    EXPECT_EQ(output.err, "Tprelisten t_bind failed:: Transport address is in use\n");
    EXPECT_EQ(Descriptor(second), -1);
}

TEST_F(IpctliEndpoint, ListeningReportsThatDescriptorsRunOut)
{
    const ChildResult child = RunInChild([] {
        IPCTli end;
        const int next = dup(0);
        close(next);
        LimitDescriptors(static_cast<unsigned long>(next));
        CHILD_CHECK(end.Tprelisten(nullptr, "4711") == 0);
        CHILD_CHECK(end.Topen(nullptr, "4711") == 0);
    });
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(child.out, "Tprelisten t_open failure\n");
}

TEST_F(IpctliEndpoint, ListeningReportsThatMemoryFails)
{
    IPCTli end;
    Output output = Capture([&] {
        const MemoryFailure noTexts = MemoryFailure::Of(NewArray);
        EXPECT_EQ(end.Tprelisten("localhost", "orvd"), 0);
    });
    EXPECT_EQ(output.out, "no address or provider to Tprelisten\n");
    EXPECT_EQ(Descriptor(end), -1);
    output = Capture([&] {
        const MemoryFailure noAddress = MemoryFailure::OfSize(sizeof(struct sockaddr_storage), Calloc);
        EXPECT_EQ(end.Tprelisten("localhost", "orvd"), 0);
    });
    EXPECT_EQ(output.out, "Allocation of req failed\n");
    EXPECT_EQ(Descriptor(end), -1);
    output = Capture([&] {
        const MemoryFailure noCall = MemoryFailure::OfSize(sizeof(struct svr4::t_call), Calloc);
        EXPECT_EQ(end.Tprelisten("localhost", "orvd"), 0);
    });
    EXPECT_EQ(output.out, "unable to alloc a t_call structure in t_listen\n");
    EXPECT_EQ(output.err, "");
    EXPECT_EQ(Descriptor(end), -1);
    ASSERT_EQ(end.Tprelisten("localhost", "orvd"), 1);

    IPCTli client;
    ExpectSilence([&] {
        {
            const MemoryFailure noTexts = MemoryFailure::Of(NewArray);
            EXPECT_EQ(client.Topen("localhost", "orvd"), 0);
        }
        {
            const MemoryFailure noCall = MemoryFailure::OfSize(sizeof(struct svr4::t_call), Calloc);
            EXPECT_EQ(client.Topen("localhost", "orvd"), 0);
        }
        EXPECT_EQ(Descriptor(client), -1);
        EXPECT_EQ(client.Topen("localhost", "orvd"), 1);
    });
}

TEST_F(IpctliEndpoint, FiveRequestsMayWait)
{
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    RawSocket clients[5];
    for (RawSocket& client : clients)
        ASSERT_TRUE(client.Connect());
    for (char number = '0'; number < '5'; number++)
        ASSERT_TRUE(clients[number - '0'].Send(std::string(1, number)));
    for (char number = '0'; number < '5'; number++) { // in the order in which they came
        IPCTli end;
        ASSERT_EQ(listener.Tlisten(), 1);
        ASSERT_EQ(end.Taccept(listener), 1);
        char byte;
        EXPECT_EQ(end.recv(&byte, 1), 0);
        EXPECT_EQ(byte, number);
        EXPECT_EQ(end.send("!", 1), 0);
        EXPECT_EQ(recv(clients[number - '0'].fd, &byte, 1, 0), 1);
    }
}

TEST_F(IpctliEndpoint, AServerComesBackAtOnce)
{
    for (int i = 0; i < 3; i++) {
        RawPeerConnection connection; // which the server closes first
        EXPECT_EQ(connection.end.send("x", 1), 0);
    }
}

TEST_F(IpctliEndpoint, ListeningAgainClosesTheFirstEndpoint)
{
    IPCTli end;
    const int open = OpenDescriptors();
    ASSERT_EQ(end.Tprelisten(nullptr, "orvd"), 1);
    ASSERT_EQ(end.Tprelisten(nullptr, "orvd"), 1);
    EXPECT_EQ(OpenDescriptors(), open + 1);
    RawSocket client;
    EXPECT_TRUE(client.Connect());
    EXPECT_EQ(end.Tlisten(), 1);
    Output output = Capture([&] { EXPECT_EQ(end.Tprelisten(nullptr, "nosuchservice"), 0); });
    EXPECT_TRUE(client.AtEnd());
    output = Capture([&] { EXPECT_EQ(end.Tlisten(), 0); });
    EXPECT_EQ(output.out, "no callptr provied to Tlisten function\n");
}

TEST_F(IpctliEndpoint, ListenNeedsAPrelisten)
{
    IPCTli end;
    Output output = Capture([&] { EXPECT_EQ(end.Tlisten(), 0); });
    EXPECT_EQ(output.out, "no callptr provied to Tlisten function\n");
    EXPECT_EQ(output.err, "");

    RawSocket listener;
    ASSERT_TRUE(listener.Listen());
    ASSERT_EQ(end.Topen("localhost", "orvd"), 1);
    output = Capture([&] { EXPECT_EQ(end.Tlisten(), 0); });
    EXPECT_EQ(output.out, "no callptr provied to Tlisten function\n");
    EXPECT_EQ(Descriptor(end), -1);
}

TEST_F(IpctliEndpoint, ListenIsInterrupted)
{
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    Handling handling(SIGUSR2);
    Output output;
    {
        Nagger nagger(SIGUSR2);
        output = Capture([&] { EXPECT_EQ(listener.Tlisten(), 0); });
    }
    EXPECT_EQ(output.out, "Tprelisten t_listen failed: \nerrno: 4 t_errno: 8\n");
    EXPECT_EQ(output.err, "t_listen failed:: System error: Interrupted system call\n");
    EXPECT_EQ(Descriptor(listener), -1);
}

TEST_F(IpctliEndpoint, ListenFindsThatAClientHasGone)
{
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    RawSocket client;
    ASSERT_TRUE(client.Connect());
    ASSERT_EQ(listener.Tlisten(), 1);
    client.Reset();
    const Output output = Capture([&] { EXPECT_EQ(listener.Tlisten(), 0); });
    const size_t second = output.out.find('\n') + 1;
    EXPECT_EQ(output.out.substr(0, second), "Tprelisten t_listen failed: \n");
    EXPECT_EQ(WithoutErrno(output.out.substr(second)), "errno: N t_errno: 9\n"
                                                       "Tlisten t_listen failed tlook is: 16\n");
    EXPECT_EQ(output.err, "t_listen failed:: An event requires attention\n");
    EXPECT_EQ(Descriptor(listener), -1);
}

// ---- Accepting ----

TEST_F(IpctliEndpoint, AcceptNeedsAListenerWithAProvider)
{
    IPCTli listener;
    IPCTli end;
    const Output output = Capture([&] { EXPECT_EQ(end.Taccept(listener), 0); });
    EXPECT_EQ(output.out, "Taccept t_open failed: 21\n");
    EXPECT_EQ(output.err, "");
    EXPECT_EQ(Descriptor(end), -1);
}

TEST_F(IpctliEndpoint, AcceptNeedsARequest)
{
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    IPCTli end;
    const Output output = Capture([&] { EXPECT_EQ(end.Taccept(listener), 0); });
    EXPECT_EQ(WithoutErrno(output.out), "Taccept t_accept failed: 6\nTaccept t_accept errno:N\n");
    EXPECT_EQ(output.err, "Taccept t_accept failed:: Routine will place interface out of state\n");
    EXPECT_EQ(Descriptor(end), -1);
    EXPECT_GE(Descriptor(listener), 0);
}

TEST_F(IpctliEndpoint, AcceptFindsThatTheClientHasGone)
{
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    RawSocket client;
    ASSERT_TRUE(client.Connect());
    ASSERT_EQ(listener.Tlisten(), 1);
    client.Reset();
    IPCTli end;
    const Output output = Capture([&] { EXPECT_EQ(end.Taccept(listener), 0); });
    EXPECT_EQ(WithoutErrno(output.out), "Taccept t_accept failed: 9\n"
                                        "Taccept t_accept errno:N\n"
                                        "Taccept t_accept failed tlook is: 16\n");
    EXPECT_EQ(output.err, "Taccept t_accept failed:: An event requires attention\n");
    EXPECT_EQ(Descriptor(end), -1);

    RawSocket next; // the event was taken: the server goes on
    ASSERT_TRUE(next.Connect());
    ASSERT_EQ(listener.Tlisten(), 1);
    EXPECT_EQ(end.Taccept(listener), 1);
}

// ---- Transfer ----

TEST_F(IpctliEndpoint, ReceivesPieceByPiece)
{
    RawPeerConnection connection;
    const std::string text = Pattern(1904);
    const pid_t sender = StartChild([&] {
        for (size_t i = 0; i < text.size(); i += 17) {
            CHILD_CHECK(connection.peer.Send(text.substr(i, 17)));
            if (i % 10 == 0)
                usleep(1000);
        }
    });
    std::string received(1904, 'x');
    ExpectSilence([&] { EXPECT_EQ(connection.end.recv(received.data(), 1904), 0); });
    EXPECT_TRUE(received == text);
    EXPECT_EQ(WaitForExit(sender), 0);
}

TEST_F(IpctliEndpoint, APeerThatClosesInOrderEndsTheReceive)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send("half"));
    connection.peer.Close();
    std::string received(8, 'x');
    ExpectSilence([&] {
        EXPECT_EQ(connection.end.recv(received.data(), 8), ServerGone);
        EXPECT_EQ(received, std::string("half\0\0\0\0", 8));
        EXPECT_EQ(connection.end.recv(received.data(), 8), ServerGone);
    });
    EXPECT_EQ(received, std::string(8, '\0'));
    EXPECT_GE(Descriptor(connection.end), 0);
}

TEST_F(IpctliEndpoint, APeerThatResetsEndsTheReceive)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send("half"));
    connection.peer.Reset();
    std::string received(8, 'x');
    ExpectSilence([&] { EXPECT_EQ(connection.end.recv(received.data(), 8), ServerGone); });
    ExpectSilence([&] { EXPECT_EQ(connection.end.send("x", 1), TcpError); });
}

// Neither a signal nor a line: a code.
TEST_F(IpctliEndpoint, SendingToAPeerThatHasGoneGivesACode)
{
    RawPeerConnection connection;
    connection.peer.Close();
    const std::string block(1 << 16, 'b');
    ExpectSilence([&] {
        short code = 0;
        EXPECT_TRUE(WaitUntil([&] { return (code = connection.end.send(block.data(), long(block.size()))) != 0; }));
        EXPECT_EQ(code, TcpError);
    });
}

TEST_F(IpctliEndpoint, AReceiveIsLimitedTo900Seconds)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send("half"));
    std::string received(8, 'x');
    Handling handling(SIGUSR2);
    Nagger nagger(SIGUSR2);
    ExpectSilence([&] { EXPECT_EQ(connection.end.recv(received.data(), 8), ReceiveTimeOut); });
    EXPECT_EQ(received, std::string("half\0\0\0\0", 8));
    EXPECT_GT(Handling::secondsLeft, 890);
    EXPECT_LE(Handling::secondsLeft, 900);
    EXPECT_GE(Descriptor(connection.end), 0);
}

TEST_F(IpctliEndpoint, TheAlarmEndsAReceive)
{
    RawPeerConnection connection;
    char byte;
    Handling alarms(SIGALRM);
    alarm(500);
    {
        Nagger nagger(SIGALRM);
        ExpectSilence([&] { EXPECT_EQ(connection.end.recv(&byte, 1), ReceiveTimeOut); });
    }
    ExpectAlarm(alarms, 500);

    ASSERT_TRUE(connection.peer.Send("x")); // what is there is received under any number of alarms
    Nagger nagger(SIGALRM);
    EXPECT_TRUE(WaitUntil([] { return Handling::calls > 2; }));
    EXPECT_EQ(connection.end.recv(&byte, 1), 0);
    EXPECT_EQ(byte, 'x');
}

// The limit counts for a record, not for each piece of it.
TEST_F(IpctliEndpoint, TheLimitIsNotRenewedByData)
{
    RawPeerConnection connection;
    Handling handling(SIGUSR2);
    const pid_t sender = StartChild([&] {
        for (int i = 0; i < 15; i++) {
            usleep(100000);
            CHILD_CHECK(connection.peer.Send("x"));
        }
        for (;;) { // again and again: one that comes between two waits interrupts nothing
            CHILD_CHECK(kill(getppid(), SIGUSR2) == 0);
            usleep(20000);
        }
    });
    std::string received(100, '?');
    EXPECT_EQ(connection.end.recv(received.data(), 100), ReceiveTimeOut);
    EXPECT_GT(Handling::secondsLeft, 880);
    EXPECT_LT(Handling::secondsLeft, 900);
    EndChild(sender);
}

// ---- Ending ----

TEST_F(IpctliEndpoint, ShutdownDeliversWhatWasSent)
{
    RawPeerConnection connection;
    const std::string block(100000, 'b');
    ASSERT_EQ(connection.end.send(block.data(), long(block.size())), 0);
    connection.end.Tshutdown();
    EXPECT_EQ(connection.end.send("x", 1), TcpError);
    EXPECT_EQ(connection.end.Tclose(), 0);
    EXPECT_EQ(Descriptor(connection.end), -1);
    EXPECT_EQ(connection.end.Tclose(), -1);
    std::string received(block.size(), '?');
    EXPECT_EQ(recv(connection.peer.fd, received.data(), received.size(), MSG_WAITALL), ssize_t(block.size()));
    EXPECT_TRUE(received == block);
    EXPECT_TRUE(connection.peer.AtEnd());
}

TEST_F(IpctliEndpoint, SigTermProcReleasesEverything)
{
    RawPeerConnection connection;
    connection.end.SigTermProc(SIGTERM);
    EXPECT_EQ(Descriptor(connection.end), -1);
    EXPECT_TRUE(connection.peer.AtEnd());
    connection.listener.SigTermProc(SIGTERM);
    EXPECT_EQ(Descriptor(connection.listener), -1);
    const Output output = Capture([&] { EXPECT_EQ(connection.listener.Tlisten(), 0); });
    EXPECT_EQ(output.out, "no callptr provied to Tlisten function\n");
    connection.listener.SigTermProc(SIGTERM);
    RawSocket late;
    EXPECT_FALSE(late.Connect());
}

TEST_F(IpctliEndpoint, ASignalEndsAProcessWithOpenEndpoints)
{
    IPCTli listener;
    ASSERT_EQ(listener.Tprelisten(nullptr, "orvd"), 1);
    const pid_t server = StartChild([&] {
        IPCTli end;
        CHILD_CHECK(listener.Tlisten() && end.Taccept(listener));
        CHILD_CHECK(end.send("up", 2) == 0);
        char byte;
        end.recv(&byte, 1);
    });
    listener.Tclose();
    RawSocket client;
    ASSERT_TRUE(client.Connect());
    char up[2];
    ASSERT_EQ(recv(client.fd, up, 2, MSG_WAITALL), 2);
    kill(server, SIGTERM);
    EXPECT_EQ(WaitForExit(server), 0);
    EXPECT_EQ(recv(client.fd, up, 1, 0), 0); // in order, not by a reset
    RawSocket late;
    EXPECT_FALSE(late.Connect());
}

// ---- Forked children ----

bool CarriesBothWays(RawPeerConnection& connection)
{
    char byte = 0;
    if (connection.end.send("x", 1) != 0 || recv(connection.peer.fd, &byte, 1, 0) != 1 || byte != 'x')
        return false;
    return connection.peer.Send("y") && connection.end.recv(&byte, 1) == 0 && byte == 'y';
}

bool TakesAnotherClient(RawPeerConnection& connection)
{
    RawSocket other;
    IPCTli end;
    return other.Connect() && connection.listener.Tlisten() && end.Taccept(connection.listener);
}

TEST_F(IpctliEndpoint, AChildThatExitsLeavesTheConnectionAlone)
{
    const pid_t owner = StartChild([] {
        static RawPeerConnection connection; // which exit destroys
        const pid_t child = StartChild([] { std::exit(0); });
        CHILD_CHECK(WaitForExit(child) == 0);
        CHILD_CHECK(CarriesBothWays(connection));
        CHILD_CHECK(TakesAnotherClient(connection));
    });
    EXPECT_EQ(WaitForExit(owner), 0);
}

TEST_F(IpctliEndpoint, ASignalThatEndsAChildLeavesTheConnectionAlone)
{
    const auto connection = std::make_unique<RawPeerConnection>();
    const pid_t child = StartChild([] {
        for (;;)
            pause();
    });
    kill(child, SIGTERM);
    EXPECT_EQ(WaitForExit(child), 0);
    EXPECT_TRUE(CarriesBothWays(*connection));
    EXPECT_TRUE(TakesAnotherClient(*connection));
}

TEST_F(IpctliEndpoint, WhatAChildGivesUpIsItsCopy)
{
    RawPeerConnection connection;
    const pid_t child = StartChild([&] {
        const int descriptors = OpenDescriptors();
        CHILD_CHECK(connection.end.Tclose() == 0);
        CHILD_CHECK(connection.listener.Tclose() == 0);
        CHILD_CHECK(OpenDescriptors() == descriptors - 2);
    });
    EXPECT_EQ(WaitForExit(child), 0);
    EXPECT_TRUE(CarriesBothWays(connection));
    const pid_t another = StartChild([&] {
        RawSocket listener;
        CHILD_CHECK(listener.Listen(5, Port + 1));
        CHILD_CHECK(connection.end.Topen("localhost", "other")); // in the place of the inherited one
        connection.listener.SigTermProc(SIGTERM);
        CHILD_CHECK(Descriptor(connection.listener) == -1);
    });
    EXPECT_EQ(WaitForExit(another), 0);
    EXPECT_TRUE(CarriesBothWays(connection));
    EXPECT_TRUE(TakesAnotherClient(connection));
}

TEST_F(IpctliEndpoint, AChildThatServesTheConnectionEndsIt)
{
    RawPeerConnection connection; // of which this process keeps its copy
    const pid_t child = StartChild([&] {
        CHILD_CHECK(connection.end.send("x", 1) == 0);
        connection.end.Tshutdown();
    });
    EXPECT_EQ(WaitForExit(child), 0);
    char byte = 0;
    EXPECT_EQ(recv(connection.peer.fd, &byte, 1, 0), 1);
    EXPECT_TRUE(connection.peer.AtEnd());
}

TEST_F(IpctliEndpoint, AMalformedRecordEndsTheConnectionThatAChildServes)
{
    RawPeerConnection connection;
    ASSERT_TRUE(connection.peer.Send(MakeRecord(1, -1, 0, 0, "")));
    const pid_t child = StartChild([&] {
        TliMsgStruct record;
        Buffer data;
        Reports([&] { CHILD_CHECK(connection.end.recv_block(&record, data) == TcpError); });
        CHILD_CHECK(Descriptor(connection.end) == -1);
    });
    EXPECT_EQ(WaitForExit(child), 0);
    EXPECT_TRUE(connection.peer.AtEnd());
}

TEST_F(IpctliEndpoint, TheOwnerEndsTheConnectionThoughAChildHasACopy)
{
    auto connection = std::make_unique<RawPeerConnection>();
    RawSocket peer(std::exchange(connection->peer.fd, -1));
    const pid_t child = StartChild([] {
        for (;;)
            pause();
    });
    connection.reset();
    EXPECT_TRUE(peer.AtEnd());
    kill(child, SIGKILL);
    WaitForExit(child);
}

} // namespace
