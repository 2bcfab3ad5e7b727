// SPDX-License-Identifier: BSD-2-Clause
// Transfer, and every way in which a connection ends.
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "tests/unit/tli_testing.h"

using namespace tli_testing;

namespace {

// ---- Transfer ----

TEST_F(Tli, ReceiveGivesWhatIsThere)
{
    int peer;
    const int fd = Connected(&peer);
    char buf[10] = "";
    int flags = 77;
    EXPECT_EQ(svr4::t_rcv(fd, buf, 0, &flags), 0);
    EXPECT_EQ(flags, 0);
    ASSERT_EQ(write(peer, "abcdef", 6), 6);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_DATA));
    EXPECT_EQ(svr4::t_rcv(fd, buf, 0, nullptr), 0);
    flags = 77;
    EXPECT_EQ(svr4::t_rcv(fd, buf, 4, &flags), 4);
    EXPECT_EQ(flags, 0);
    EXPECT_EQ(svr4::t_rcv(fd, buf + 4, 6, nullptr), 2);
    EXPECT_STREQ(buf, "abcdef");
    EXPECT_TLI_ERROR(svr4::TSYSERR, (write(peer, "x", 1), svr4::t_rcv(fd, nullptr, 1, nullptr)));
    EXPECT_EQ(errno, EFAULT);
    svr4::t_close(fd);
    close(peer);
}

TEST_F(Tli, ReceiveIsInterruptedByASignal)
{
    int peer;
    const int fd = Connected(&peer);
    {
        const Interrupting interrupting;
        char byte;
        EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_rcv(fd, &byte, 1, nullptr));
        EXPECT_EQ(errno, EINTR);
    }
    ASSERT_EQ(write(peer, "later", 5), 5);
    EXPECT_EQ(Receive(fd), "later");
    svr4::t_close(fd);
    close(peer);
}

TEST_F(Tli, SendChecksItsArguments)
{
    int peer;
    const int fd = Connected(&peer);
    EXPECT_TLI_ERROR(svr4::TBADDATA, svr4::t_snd(fd, "x", 0, 0));
    EXPECT_TLI_ERROR(svr4::TBADDATA, svr4::t_snd(fd, "x", 0x80000000u, 0));
    EXPECT_TLI_ERROR(svr4::TNOTSUPPORT, svr4::t_snd(fd, "x", 1, svr4::T_EXPEDITED));
    EXPECT_TLI_ERROR(svr4::TBADFLAG, svr4::t_snd(fd, "x", 1, 0x100));
    EXPECT_EQ(svr4::t_snd(fd, "more", 4, svr4::T_MORE), 4);
    EXPECT_EQ(RawRead(peer), "more");
    EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_snd(fd, nullptr, 1, 0));
    EXPECT_EQ(errno, EFAULT);
    svr4::t_close(fd);
    close(peer);
}

const unsigned Much = 20 * 1024 * 1024;

TEST_F(Tli, SendWaitsUntilAllIsOnItsWay)
{
    int peer;
    const int fd = Connected(&peer);
    const pid_t reader = StartChild([&] {
        svr4::t_close(fd);
        std::vector<char> buf(1 << 16);
        size_t total = 0;
        ssize_t count;
        usleep(200000);
        while ((count = read(peer, buf.data(), buf.size())) > 0) {
            for (ssize_t i = 0; i < count; i++, total++)
                if (buf[static_cast<size_t>(i)] != static_cast<char>(total % 251))
                    _exit(1);
        }
        _exit(total == Much && count == 0 ? 0 : 2);
    });
    close(peer);
    std::string data(Much, ' ');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(i % 251);
    EXPECT_EQ(svr4::t_snd(fd, data.data(), Much, 0), static_cast<int>(Much));
    EXPECT_EQ(svr4::t_close(fd), 0);
    EXPECT_EQ(WaitForExit(reader), 0);
}

// Sends what a connection that nobody reads from holds: a part of much, and more until nothing at all fits.
void FillConnection(int fd)
{
    const std::string data(Much, 'x');
    const int sent = svr4::t_snd(fd, data.data(), Much, 0);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(Much));
    while (svr4::t_snd(fd, data.data(), Much, 0) > 0) {
    }
}

TEST_F(Tli, AnInterruptedSendTellsWhatItHasSent)
{
    int peer;
    const int fd = Connected(&peer);
    const Interrupting interrupting;
    FillConnection(fd);
    EXPECT_EQ(svr4::t_errno, svr4::TSYSERR);
    EXPECT_EQ(errno, EINTR);
    svr4::t_close(fd);
    close(peer);
}

TEST_F(Tli, AnEndpointThatDoesNotWaitSaysSo)
{
    int peer;
    const int fd = Connected(&peer, O_NONBLOCK);
    char byte;
    EXPECT_TLI_ERROR(svr4::TNODATA, svr4::t_rcv(fd, &byte, 1, nullptr));
    FillConnection(fd);
    EXPECT_EQ(svr4::t_errno, svr4::TFLOW);
    svr4::t_close(fd);
    close(peer);
}

// ---- The end of a connection ----

TEST_F(Tli, AnOrderlyCloseComesBehindTheData)
{
    int peer;
    const int fd = Connected(&peer);
    EXPECT_TLI_ERROR(svr4::TNOREL, svr4::t_rcvrel(fd));
    EXPECT_TLI_ERROR(svr4::TNODIS, svr4::t_rcvdis(fd, nullptr));
    ASSERT_EQ(write(peer, "bye", 3), 3);
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_DATA));
    EXPECT_TLI_ERROR(svr4::TNOREL, svr4::t_rcvrel(fd));
    EXPECT_EQ(Receive(fd), "bye");
    EXPECT_EQ(Receive(fd), Attention);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_ORDREL);
    EXPECT_EQ(Receive(fd), Attention) << "until it is taken";
    EXPECT_TLI_ERROR(svr4::TNODIS, svr4::t_rcvdis(fd, nullptr));
    EXPECT_EQ(svr4::t_snd(fd, "still", 5, 0), 5);
    EXPECT_EQ(RawRead(peer), "still");
    EXPECT_EQ(svr4::t_rcvrel(fd), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_INREL);
    EXPECT_EQ(svr4::t_look(fd), 0);
    EXPECT_EQ(svr4::t_snd(fd, "more", 4, 0), 4);
    EXPECT_EQ(svr4::t_sndrel(fd), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    EXPECT_EQ(RawRead(peer), "more");
    EXPECT_EQ(RawRead(peer), "");
    svr4::t_close(fd);
    close(peer);
}

TEST_F(Tli, ThisSideMayReleaseFirst)
{
    int peer;
    const int fd = Connected(&peer);
    ASSERT_EQ(svr4::t_sndrel(fd), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_OUTREL);
    EXPECT_EQ(RawRead(peer), "");
    ASSERT_EQ(write(peer, "answer", 6), 6);
    EXPECT_EQ(Receive(fd), "answer");
    close(peer);
    EXPECT_EQ(Receive(fd), Attention);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_ORDREL);
    EXPECT_EQ(svr4::t_rcvrel(fd), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);

    ExpectConnects(fd);
}

TEST_F(Tli, AnEndpointKeepsItsAddressForTheNextConnection)
{
    Call own(FreePort());
    struct svr4::t_bind request = {own.addr, 0};
    const int fd = Open();
    ASSERT_EQ(svr4::t_bind(fd, &request, nullptr), 0);
    for (int i = 0; i < 2; i++) {
        const int other = RawListener(); // another server each time: the same two ends would have to wait
        Call to(PortOf(other));
        ASSERT_EQ(svr4::t_connect(fd, &to, nullptr), 0) << strerror(errno);
        EXPECT_EQ(PortOf(fd), ntohs(own.address.sin_port));
        ASSERT_EQ(svr4::t_sndrel(fd), 0);
        const int peer = accept(other, nullptr, nullptr);
        close(peer);
        EXPECT_EQ(Receive(fd), Attention);
        ASSERT_EQ(svr4::t_rcvrel(fd), 0);
        close(other);
    }
    svr4::t_close(fd);
}

TEST_F(Tli, AnAddressLostBetweenConnectionsIsAskedForAgain)
{
    Call own(FreePort());
    struct svr4::t_bind request = {own.addr, 0};
    const int fd = Open();
    ASSERT_EQ(svr4::t_bind(fd, &request, nullptr), 0);
    Call nobody(FreePort());
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &nobody, nullptr));
    ASSERT_EQ(svr4::t_rcvdis(fd, nullptr), 0);
    const int thief = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(thief, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    ASSERT_EQ(bind(thief, reinterpret_cast<struct sockaddr*>(&own.address), sizeof own.address), 0);
    ASSERT_EQ(listen(thief, 1), 0);
    for (int i = 0; i < 2; i++) {
        EXPECT_TLI_ERROR(svr4::TADDRBUSY, svr4::t_connect(fd, &nobody, nullptr));
        EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    }
    close(thief);
    const int listener = RawListener();
    Call call(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &call, nullptr), 0);
    EXPECT_EQ(PortOf(fd), ntohs(own.address.sin_port));
    svr4::t_close(fd);
    close(listener);
}

// An endpoint that a peer has sent "bye" and then reset.
int ResetBehindData()
{
    int peer;
    const int fd = Connected(&peer);
    EXPECT_EQ(write(peer, "bye", 3), 3);
    EXPECT_TRUE(WaitForEvent(fd, svr4::T_DATA));
    Reset(peer);
    EXPECT_TRUE(WaitForReset(fd));
    return fd;
}

TEST_F(Tli, AResetComesBehindTheData)
{
    const int fd = ResetBehindData();
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DATA);
    EXPECT_EQ(Receive(fd), "bye");
    EXPECT_EQ(Receive(fd), Attention);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    EXPECT_EQ(Receive(fd), Attention) << "until it is taken";
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_snd(fd, "x", 1, 0));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_sndrel(fd));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_rcvrel(fd));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_snddis(fd, nullptr));
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    struct svr4::t_discon discon = {};
    EXPECT_EQ(svr4::t_rcvdis(fd, &discon), 0);
    EXPECT_EQ(discon.reason, ECONNRESET);
    EXPECT_EQ(discon.sequence, -1);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    EXPECT_EQ(svr4::t_look(fd), 0);

    ExpectConnects(fd);
}

TEST_F(Tli, AResetThatASendNoticesLeavesTheDataBeforeItToReceive)
{
    const int fd = ResetBehindData();
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_snd(fd, "x", 1, 0));
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    EXPECT_EQ(Receive(fd), "bye");
    EXPECT_EQ(Receive(fd), Attention);
    EXPECT_EQ(svr4::t_rcvdis(fd, nullptr), 0);
    svr4::t_close(fd);
}

TEST_F(Tli, AResetBehindAnOrderlyCloseIsADisconnect)
{
    int peer;
    const int fd = Connected(&peer);
    ASSERT_EQ(shutdown(peer, SHUT_WR), 0);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_ORDREL));
    Reset(peer);
    ASSERT_TRUE(WaitForReset(fd));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_rcvrel(fd));
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    EXPECT_EQ(svr4::t_rcvdis(fd, nullptr), 0);
    svr4::t_close(fd);
}

TEST_F(Tli, AnAcceptedConnectionLeavesAnEndpointThatCanConnect)
{
    int peer;
    const int fd = Connected(&peer, O_NONBLOCK); // this one was accepted
    close(peer);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_ORDREL));
    ASSERT_EQ(svr4::t_rcvrel(fd), 0);
    ASSERT_EQ(svr4::t_sndrel(fd), 0);
    const int listener = RawListener();
    Call call(PortOf(listener));
    if (svr4::t_connect(fd, &call, nullptr) != 0) {
        ASSERT_EQ(svr4::t_errno, svr4::TNODATA);
        ASSERT_TRUE(WaitForEvent(fd, svr4::T_CONNECT));
        ASSERT_EQ(svr4::t_rcvconnect(fd, nullptr), 0);
    }
    const int second = accept(listener, nullptr, nullptr);
    EXPECT_EQ(svr4::t_snd(fd, "new", 3, 0), 3);
    EXPECT_EQ(RawRead(second), "new");
    svr4::t_close(fd);
    close(second);
    close(listener);
}

TEST_F(Tli, AResetWakesAReceiveThatWaits)
{
    int peer;
    const int fd = Connected(&peer);
    const pid_t child = StartChild([&] {
        usleep(200000);
        Reset(peer);
    });
    close(peer);
    EXPECT_EQ(Receive(fd), Attention);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    svr4::t_close(fd);
    EXPECT_EQ(WaitForExit(child), 0);
}

TEST_F(Tli, ResetsInTheReleaseStatesAreNoticed)
{
    int peer;
    const int out = Connected(&peer);
    ASSERT_EQ(svr4::t_sndrel(out), 0);
    Reset(peer);
    EXPECT_TRUE(WaitForEvent(out, svr4::T_DISCONNECT));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_rcvrel(out));
    EXPECT_EQ(svr4::t_rcvdis(out, nullptr), 0);
    svr4::t_close(out);

    const int in = Connected(&peer);
    shutdown(peer, SHUT_WR);
    ASSERT_TRUE(WaitForEvent(in, svr4::T_ORDREL));
    ASSERT_EQ(svr4::t_rcvrel(in), 0);
    Reset(peer);
    EXPECT_TRUE(WaitForEvent(in, svr4::T_DISCONNECT));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_sndrel(in));
    EXPECT_EQ(svr4::t_rcvdis(in, nullptr), 0);
    svr4::t_close(in);
}

TEST_F(Tli, SendingToAPeerThatIsGoneRaisesNoSignal)
{
    const ChildResult result = RunInChild([] {
        signal(SIGPIPE, SIG_DFL);
        int peer;
        const int fd = Connected(&peer);
        close(peer);
        int sent = 0;
        while (svr4::t_snd(fd, "x", 1, 0) == 1) {
            sent++;
            usleep(1000);
        }
        const bool isGone = svr4::t_errno == svr4::TLOOK && svr4::t_look(fd) == svr4::T_DISCONNECT;
        // Once more, now that the error has been told.
        const bool isStillGone = svr4::t_snd(fd, "x", 1, 0) == -1 && svr4::t_errno == svr4::TLOOK;
        const bool receives = Receive(fd) == Attention && svr4::t_look(fd) == svr4::T_DISCONNECT;
        CHILD_CHECK(sent > 0 && isGone && isStillGone && receives);
    });
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exitCode, 0);
}

TEST_F(Tli, DisconnectBreaksTheConnectionOff)
{
    int peer;
    const int fd = Connected(&peer);
    ASSERT_EQ(write(peer, "lost", 4), 4);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_DATA));
    Call call;
    call.udata.len = 1;
    EXPECT_TLI_ERROR(svr4::TBADDATA, svr4::t_snddis(fd, &call));
    EXPECT_EQ(svr4::t_snddis(fd, nullptr), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    EXPECT_EQ(svr4::t_look(fd), 0);
    EXPECT_EQ(RawRead(peer), "reset");
    close(peer);

    const int listener = RawListener();
    Call again(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &again, nullptr), 0);
    const int second = accept(listener, nullptr, nullptr);
    ASSERT_EQ(write(second, "kept", 4), 4);
    EXPECT_EQ(Receive(fd), "kept") << "nothing is left of the first connection";
    svr4::t_close(fd);
    close(second);
    close(listener);
}

TEST_F(Tli, AChildServesWhatItsParentAccepted)
{
    const int server = Listening();
    const int client = RawClient(PortOf(server));
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    const int acceptor = Bound();
    ASSERT_EQ(svr4::t_accept(server, acceptor, &call), 0);
    const pid_t child = StartChild([&] {
        svr4::t_close(server);
        const bool works = Receive(acceptor) == "question" && svr4::t_snd(acceptor, "answer", 6, 0) == 6;
        svr4::t_close(acceptor);
        CHILD_CHECK(works);
    });
    svr4::t_close(acceptor);
    ASSERT_EQ(write(client, "question", 8), 8);
    EXPECT_EQ(RawRead(client), "answer");
    EXPECT_EQ(RawRead(client), "");
    EXPECT_EQ(WaitForExit(child), 0);
    const int second = RawClient(PortOf(server));
    EXPECT_EQ(svr4::t_listen(server, &call), 0) << "the parent's endpoint is untouched";
    svr4::t_close(server);
    close(client);
    close(second);
}

TEST_F(Tli, AChildThatClosesItsCopyLeavesTheRequestsToItsParent)
{
    const int server = Listening();
    const int client = RawClient(PortOf(server));
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    EXPECT_EQ(WaitForExit(StartChild([&] { svr4::t_close(server); })), 0);
    const int acceptor = Bound();
    EXPECT_EQ(svr4::t_accept(server, acceptor, &call), 0);
    EXPECT_EQ(svr4::t_snd(acceptor, "ok", 2, 0), 2);
    EXPECT_EQ(RawRead(client), "ok");
    svr4::t_close(acceptor);
    EXPECT_EQ(RawRead(client), "");
    svr4::t_close(server);
    close(client);
}

TEST_F(Tli, ManyConnectionsLeaveNoDescriptor)
{
    const int server = Listening();
    Call address(PortOf(server));
    const int before = OpenDescriptors();
    for (int i = 0; i < 10000; i++) {
        const int client = Bound();
        ASSERT_EQ(svr4::t_connect(client, &address, nullptr), 0) << i << " " << strerror(errno);
        Call call;
        ASSERT_EQ(svr4::t_listen(server, &call), 0) << i;
        const int acceptor = Bound();
        ASSERT_EQ(svr4::t_accept(server, acceptor, &call), 0) << i;
        ASSERT_EQ(svr4::t_snd(client, "x", 1, 0), 1);
        char byte;
        ASSERT_EQ(svr4::t_rcv(acceptor, &byte, 1, nullptr), 1);
        if (i % 2 == 0) {
            ASSERT_EQ(svr4::t_snddis(client, nullptr), 0);
        }
        ASSERT_EQ(svr4::t_close(client), 0);
        ASSERT_EQ(svr4::t_close(acceptor), 0);
    }
    EXPECT_EQ(OpenDescriptors(), before);
    svr4::t_close(server);
}

// ---- The other family ----

TEST_F(Tli, TheSecondTransportHasItsOwnAddresses)
{
    const int server = svr4::t_open("/dev/tcp6", O_RDWR, nullptr);
    struct sockaddr_in6 address = {};
    struct svr4::t_bind ret = {{sizeof address, 0, reinterpret_cast<char*>(&address)}, 0};
    struct svr4::t_bind request = {};
    request.qlen = 5;
    if (server < 0 || svr4::t_bind(server, &request, &ret) != 0) {
        svr4::t_close(server);
        GTEST_SKIP() << "this host has no IPv6";
    }
    EXPECT_EQ(ret.addr.len, sizeof address);
    EXPECT_EQ(address.sin6_family, AF_INET6);
    Call same(ntohs(address.sin6_port));
    same.address.sin_addr.s_addr = htonl(INADDR_ANY);
    struct svr4::t_bind four = {same.addr, 5};
    const int other = Open();
    EXPECT_EQ(svr4::t_bind(other, &four, nullptr), 0) << "the same port of the other transport is free";
    svr4::t_close(other);

    const int client = svr4::t_open("/dev/tcp6", O_RDWR, nullptr);
    ASSERT_EQ(svr4::t_bind(client, nullptr, nullptr), 0);
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_connect(client, &same, nullptr));
    struct svr4::t_call call = {};
    call.addr = ret.addr;
    EXPECT_EQ(svr4::t_connect(client, &call, nullptr), 0) << "to the wildcard address";
    EXPECT_EQ(svr4::t_listen(server, &call), 0);
    EXPECT_TRUE(IN6_IS_ADDR_LOOPBACK(&address.sin6_addr));
    svr4::t_close(client);
    svr4::t_close(server);
}

} // namespace
