// SPDX-License-Identifier: BSD-2-Clause
// What relayd holds against the hosts that connect to it: those that vanish, those that are too many, and those that
// say that they are another.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/system/relayd_testing.h"

using namespace relayd_testing;

namespace {

/// Messages on the queues of the sandbox.
int QueuedMessages()
{
    std::ifstream table("/proc/sysvipc/msg");
    std::string line;
    std::getline(table, line);
    int messages = 0;
    for (int key, id, mode, bytes, count; table >> key >> id >> mode >> bytes >> count; std::getline(table, line))
        messages += count;
    return messages;
}

class RelaydPeersTest : public RelaydTest {
protected:
    void SetUp() override
    {
        RelaydTest::SetUp();
        if (!IsSkipped())
            StartEchoes();
    }
    /// Whether the server lives and is reached by those who may.
    bool Works()
    {
        RawConnection connection;
        TliMsgStruct answer;
        return connection.Send(Record(Echo, "still", true)) && connection.Receive(answer) && answer.event == Echo;
    }
    int Refusals() const { return CountOf(Log(), "event rejected"); }
};

// ---- Those that vanish ----

TEST_F(RelaydPeersTest, AHostThatVanishedFreesItsProcess)
{
    StartRelay({"--keepalive", "2"});
    SecondHost second([] {
        const IPCClient client(0, "orvd", FirstAddress);
        CHILD_CHECK(client.Connected());
        pause();
    });
    ASSERT_TRUE(Serves(1));
    usleep(2500000);
    EXPECT_TRUE(Serves(1)) << "it is silent, but there";
    EXPECT_TRUE(second.Vanish());
    EXPECT_TRUE(Serves(0));
    EXPECT_TRUE(Works());
}

TEST_F(RelaydPeersTest, AHostThatVanishedBeforeItsAnswerCameFreesItsProcess)
{
    StartRelay({"--keepalive", "2"});
    kill(server, SIGSTOP);
    SecondHost second([] {
        IPCClient client(0, "orvd", FirstAddress);
        client.RegisterNodeName("second");
        CHILD_CHECK(client.send_event_with_response(Echo, "x", 1) == 0);
        pause();
    });
    ASSERT_TRUE(WaitUntil([] { return QueuedMessages() > 0; }));
    EXPECT_TRUE(second.Vanish());
    kill(server, SIGCONT);
    EXPECT_TRUE(Serves(0));
    EXPECT_TRUE(Works());
}

// ---- Those that wait ----

TEST_F(RelaydPeersTest, SignalsForADumpLeaveThoseThatWait)
{
    StartRelay();
    for (int signal : {SIGUSR1, SIGCONT}) { // whatever stops a process and lets it go on interrupts its waits as well
        kill(relay, SIGSTOP);
        RawConnection waiting[3];
        kill(relay, signal);
        kill(relay, SIGCONT);
        for (RawConnection& connection : waiting) {
            TliMsgStruct answer;
            EXPECT_TRUE(connection.connected && connection.Send(ProbeRecord()) && connection.Receive(answer));
        }
    }
    EXPECT_EQ(Log(), "");
}

TEST_F(RelaydPeersTest, ASignalForADumpLeavesAnEventThatHasBegun)
{
    StartRelay();
    RawConnection connection;
    TliMsgStruct record = Record(Echo, "whole", true);
    EXPECT_TRUE(connection.RawSocket::Send(&record, 1000));
    ASSERT_TRUE(Serves(1));
    usleep(50000); // for it to arrive
    kill(ChildrenOf(relay)[0], SIGUSR1);
    usleep(50000);
    EXPECT_TRUE(connection.RawSocket::Send(reinterpret_cast<const char*>(&record) + 1000, sizeof record - 1000));
    TliMsgStruct answer;
    EXPECT_TRUE(connection.Receive(answer));
    EXPECT_STREQ(answer.msg_data, "whole");
}

// ---- Those that are too many ----

TEST_F(RelaydPeersTest, RefusesConnectionsBeyondItsLimit)
{
    StartRelay({"--max-connections", "2"});
    {
        const std::unique_ptr<IPCClient> first = FarClient();
        RawConnection second;
        ASSERT_TRUE(Serves(2));
        for (int i = 0; i < 3; i++) {
            EXPECT_FALSE(FarClient()->Connected());
            RawConnection further;
            EXPECT_TRUE(further.IsClosedByPeer());
            IPCClient client(0, "orvd", FarHost, IPCClient::TLIClient, 0, 0);
            client.send_event_with_response(Echo, nullptr, 0);
            const short code = client.receive_response(event, data);
            EXPECT_TRUE(code == 65 || code == 66) << code; // 66 when the send has noticed
        }
        EXPECT_EQ(ChildrenOf(relay).size(), 2u);
        EXPECT_EQ(first->send_event_wait_ack(Echo, "\x08", 1), 8);
    }
    EXPECT_TRUE(Serves(0)) << "no zombie either";
    EXPECT_EQ(CountOf(Log(), "2 connections are open: refused one from 127.0.0.1"), 1) << Log();
    for (int i = 0; i < 5; i++) {
        EXPECT_TRUE(Works());
        EXPECT_TRUE(Serves(0));
    }
}

TEST_F(RelaydPeersTest, WithoutProcessesRefusesConnectionsAndGoesOn)
{
    relay = StartChild([&] {
        setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // the search for leaks starts a process
        MakeCallsFail({SYS_clone, SYS_clone3, SYS_fork}, EAGAIN);
        const int log = open(directory.File("relayd.log").c_str(), O_WRONLY | O_CREAT, 0644);
        dup2(log, 1);
        dup2(log, 2);
        Execute(Relayd, {});
    });
    ASSERT_TRUE(WaitUntil([] { return RawConnection().connected; })) << Log();
    for (int i = 0; i < 3; i++)
        EXPECT_TRUE(RawConnection().IsClosedByPeer());
    const std::string refusal = "no process for a connection: refused one from 127.0.0.1";
    EXPECT_TRUE(WaitUntil([&] { return CountOf(Log(), refusal) > 0; })) << Log();
    EXPECT_EQ(CountOf(Log(), refusal), 1) << "of many within ten seconds one";
}

#ifndef __SANITIZE_ADDRESS__ // a sanitizer needs some of its own
TEST_F(RelaydPeersTest, WithoutDescriptorsListensOn)
{
    StartRelay();
    const rlim_t inUse = 4; // the standard streams and the listening endpoint
    const struct rlimit few = {inUse, 1024};
    const struct rlimit many = {1024, 1024};
    ASSERT_EQ(prlimit(relay, RLIMIT_NOFILE, &few, nullptr), 0);
    const std::string refusal = "t_listen failed:: System error: Too many open files\n";
    for (int i = 1; i <= 3; i++) {
        EXPECT_TRUE(
            WaitUntil([] { return RawConnection().connected; })); // while it makes its endpoint anew nobody listens
        EXPECT_TRUE(WaitUntil([&] { return CountOf(Log(), refusal) >= i; })) << Log();
    }
    ASSERT_EQ(prlimit(relay, RLIMIT_NOFILE, &many, nullptr), 0);
    EXPECT_TRUE(WaitUntil([&] { return Works(); })) << Log();
}
#endif

TEST_F(RelaydPeersTest, TheLimitIs256UnlessSet)
{
    StartRelay();
    std::list<RawConnection> connections;
    TliMsgStruct answer;
    for (int i = 0; i < 256; i++) {
        connections.emplace_back();
        ASSERT_TRUE(connections.back().Send(ProbeRecord()) && connections.back().Receive(answer)) << i;
    }
    EXPECT_TRUE(RawConnection().IsClosedByPeer());
    EXPECT_TRUE(Serves(256));
    connections.pop_back();
    EXPECT_TRUE(Serves(255));
    EXPECT_TRUE(Works());
}

// ---- Those that say that they are another ----

void NameNode(TliMsgStruct& record, const std::string& node)
{
    std::memset(record.orignode, 0, sizeof record.orignode);
    node.copy(record.orignode, sizeof record.orignode - 1);
}

// Whether an event that names its node so reaches the server.
bool IsPassedOn(const std::string& node, const char* host = "127.0.0.1")
{
    RawConnection connection(host);
    TliMsgStruct record = Record(Who, "", true);
    NameNode(record, node);
    TliMsgStruct answer;
    return connection.Send(record) && connection.Receive(answer) && answer.msg_data == "raw|" + node;
}

// Whether the connection is closed on which it comes. The server would end if it got it.
bool IsRefused(const std::string& node, const char* host = "127.0.0.1")
{
    RawConnection connection(host);
    TliMsgStruct record = Record(End);
    NameNode(record, node);
    return connection.Send(record) && connection.IsClosedByPeer();
}

std::string Capitals(std::string text)
{
    for (char& c : text)
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

const std::string OwnName = [] {
    char name[80] = "";
    gethostname(name, sizeof name - 1);
    return std::string(name);
}();

// Names that are no host's.
const std::string NoNames[] = {"", "nowhere", "the node", " ", "\\1", "0.0.0.0", "::", "*", "second 192.0.2.2"};

TEST_F(RelaydPeersTest, ThisHostsNamesAreThoseOfItsOwnConnections)
{
    StartRelay();
    for (const std::string& node : {OwnName, Capitals(OwnName), std::string("localhost"), std::string(FarHost)})
        EXPECT_TRUE(IsPassedOn(node)) << node;
    for (const std::string& node : NoNames)
        EXPECT_TRUE(IsRefused(node)) << node;
    for (const char* node : {"second", "192.0.2.2"})
        EXPECT_TRUE(IsRefused(node)) << node;
    EXPECT_TRUE(Works());
}

TEST_F(RelaydPeersTest, AHostIsBelievedItsOwnNameOnly)
{
    StartRelay();
    SecondHost second([] {
        for (const char* node : {"second", "SECOND", "192.0.2.2"})
            CHILD_CHECK(IsPassedOn(node, FirstAddress));
        for (const std::string& node : NoNames)
            CHILD_CHECK(IsRefused(node, FirstAddress));
        for (const std::string& node : {OwnName, Capitals(OwnName), OwnName + "."})
            CHILD_CHECK(IsRefused(node, FirstAddress));
        for (const char* node : {"localhost", FarHost, "127.0.0.1", "127.0.0.9", FirstAddress, "::1", "third"})
            CHILD_CHECK(IsRefused(node, FirstAddress));
        // As clients do it.
        IPCClient client(0, "orvd", FirstAddress);
        client.RegisterNodeName("second");
        CHILD_CHECK(client.send_event_wait_ack(Echo, "\x08", 1) == 8);
        client.RegisterNodeName(OwnName.c_str());
        CHILD_CHECK(client.send_event_wait_ack(Echo, "\x08", 1) == 65);
    });
    EXPECT_EQ(second.WaitForExit(), 0);
    EXPECT_TRUE(Works());
}

TEST_F(RelaydPeersTest, BelievesByTheOtherTransportAsWell)
{
    setenv("NETPATH", "tcp6", 1);
    relay = StartProgram(Relayd, {}, directory.File("relayd.log"));
    const auto connects = [](const char* host) {
        return WaitUntil([&] { return IPCClient(0, "orvd", host, IPCClient::TLIClient).Connected() != 0; });
    };
    EXPECT_TRUE(connects("::1")) << Log();
    EXPECT_EQ(IPCClient(0, "orvd", "::1", IPCClient::TLIClient).send_event_wait_ack(Echo, "\x08", 1), 8);
    SecondHost second([&] {
        CHILD_CHECK(connects(FirstAddress6));
        for (const char* node : {"second", "2001:db8::2"}) {
            IPCClient client(0, "orvd", FirstAddress6);
            client.RegisterNodeName(node);
            CHILD_CHECK(client.send_event_wait_ack(Echo, "\x08", 1) == 8);
        }
        for (const char* node : {OwnName.c_str(), "localhost", "third", "::1", "192.0.2.2", FirstAddress6}) {
            IPCClient client(0, "orvd", FirstAddress6);
            client.RegisterNodeName(node);
            CHILD_CHECK(client.send_event_wait_ack(End, "\x08", 1) == 65);
        }
    });
    EXPECT_EQ(second.WaitForExit(), 0);
    unsetenv("NETPATH");
    EXPECT_EQ(CountOf(Log(), "2001:db8::2 is not node \"third\": event rejected"), 1) << Log();
}

TEST_F(RelaydPeersTest, LooksAtEveryEventOfAConnection)
{
    StartRelay();
    RawConnection connection;
    TliMsgStruct answer;
    for (int i = 0; i < 2; i++)
        EXPECT_TRUE(connection.Send(Record(Echo, "x", true)) && connection.Receive(answer));
    EXPECT_EQ(Refusals(), 0);
    TliMsgStruct changed = Record(End);
    NameNode(changed, "second");
    EXPECT_TRUE(connection.Send(changed));
    EXPECT_TRUE(connection.IsClosedByPeer());
    EXPECT_TRUE(Works());
    EXPECT_EQ(Refusals(), 1);
}

TEST_F(RelaydPeersTest, TheFirstRecordOfAnEventNamesItsNode)
{
    StartRelay();
    for (const bool isTrue : {true, false}) {
        RawConnection connection;
        TliMsgStruct first = Record(Who, std::string(1700, 'x'), true);
        first.alloc_data_length = 1701;
        first.parts_left = 1;
        TliMsgStruct last = Record(Who, "x", true);
        last.alloc_data_length = 1701;
        last.curr_data_offset = 1700;
        NameNode(isTrue ? last : first, "second");
        EXPECT_TRUE(connection.Send(first) && connection.Send(last));
        TliMsgStruct answer = {};
        EXPECT_EQ(connection.Receive(answer), isTrue);
        EXPECT_STREQ(answer.msg_data, isTrue ? "raw|far" : "");
    }
}

TEST_F(RelaydPeersTest, ReportsWhoNamedItselfHow)
{
    SyslogSink syslog;
    StartRelay();
    EXPECT_TRUE(IsRefused("\x1B[2Jse\ncond\xFF\"|%x"));
    EXPECT_TRUE(IsRefused(std::string(79, 'n')));
    EXPECT_TRUE(Works());
    EXPECT_EQ(CountOf(Log(), "127.0.0.1 is not node \"?[2Jse?cond??|?x\": event rejected"), 1) << Log();
    EXPECT_EQ(CountOf(Log(), "127.0.0.1 is not node \"" + std::string(79, 'n') + "\": event rejected"), 1) << Log();
    EXPECT_EQ(Refusals(), 2);
    EXPECT_EQ(syslog.Records().size(), 2u);
}

TEST_F(RelaydPeersTest, ALookUpKeepsNobodyElseWaiting)
{
    WriteFile(directory.File("resolver"), "nameserver 127.0.0.53\noptions timeout:2 attempts:1\n");
    const RawSocket nameServer(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); // which does not answer
    const struct sockaddr_in address = SocketAddress("127.0.0.53", 53);
    ASSERT_EQ(bind(nameServer.fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(system(("mount --bind " + directory.File("resolver") + " /etc/resolv.conf").c_str()), 0);
    StartRelay();
    RawConnection slow;
    TliMsgStruct record = Record(End);
    NameNode(record, "nowhere.example");
    EXPECT_TRUE(slow.Send(record));
    usleep(50000); // for the look-up to begin
    EXPECT_TRUE(Works());
    char byte;
    EXPECT_EQ(recv(slow.fd, &byte, 1, MSG_DONTWAIT), -1) << "it is still being looked up";
    EXPECT_TRUE(slow.IsClosedByPeer());
    EXPECT_EQ(Refusals(), 1);
    EXPECT_EQ(system("umount /etc/resolv.conf"), 0);
}

TEST_F(RelaydPeersTest, TrustsNodeNamesWhenTold)
{
    StartRelay({"--trust-node-names"});
    for (const std::string& node : {std::string("the node"), std::string("second"), std::string()})
        EXPECT_TRUE(IsPassedOn(node)) << node;
    EXPECT_EQ(Refusals(), 0);
}

} // namespace
