// SPDX-License-Identifier: BSD-2-Clause
// Connecting, listening and accepting.
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include <arpa/inet.h>
#include <netinet/tcp.h>

#include "tests/unit/tli_testing.h"

using namespace tli_testing;

namespace {

// ---- Connecting ----

TEST_F(Tli, ConnectReachesTheServer)
{
    const int listener = RawListener();
    const int fd = Bound();
    Call call(PortOf(listener)), peer;
    peer.addr.len = 0;
    ASSERT_EQ(svr4::t_connect(fd, &call, &peer), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_DATAXFER);
    EXPECT_EQ(peer.addr.len, sizeof peer.address);
    EXPECT_EQ(memcmp(&peer.address, &call.address, sizeof call.address), 0);
    int noDelay = 0;
    socklen_t length = sizeof noDelay;
    getsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &noDelay, &length);
    EXPECT_EQ(noDelay, 1);
    const int server = accept(listener, nullptr, nullptr);
    EXPECT_EQ(svr4::t_snd(fd, "hello", 5, 0), 5);
    EXPECT_EQ(RawRead(server), "hello");
    EXPECT_EQ(write(server, "back", 4), 4);
    EXPECT_EQ(Receive(fd), "back");
    EXPECT_EQ(svr4::t_close(fd), 0);
    EXPECT_EQ(RawRead(server), "") << "closed in order";
    close(server);
    close(listener);
}

TEST_F(Tli, TheWildcardAddressIsThisHost)
{
    const int listener = RawListener();
    const int fd = Bound();
    Call call(PortOf(listener));
    call.address.sin_addr.s_addr = htonl(INADDR_ANY);
    EXPECT_EQ(svr4::t_connect(fd, &call, nullptr), 0);
    svr4::t_close(fd);
    close(listener);
}

TEST_F(Tli, APeerAddressThatDoesNotFitLeavesTheConnection)
{
    const int listener = RawListener();
    const int fd = Bound();
    Call call(PortOf(listener)), peer;
    peer.addr.maxlen = 3;
    EXPECT_TLI_ERROR(svr4::TBUFOVFLW, svr4::t_connect(fd, &call, &peer));
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_DATAXFER);
    svr4::t_close(fd);
    close(listener);
}

TEST_F(Tli, ARefusedConnectIsADisconnect)
{
    const int fd = Bound();
    Call call(FreePort());
    for (int i = 0; i < 2; i++) {
        EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &call, nullptr));
        EXPECT_EQ(svr4::t_getstate(fd), svr4::T_OUTCON);
        EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
        EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT) << "until it is taken";
        EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_rcvconnect(fd, nullptr));
        EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_snddis(fd, nullptr));
        struct svr4::t_discon discon = {};
        EXPECT_EQ(svr4::t_rcvdis(fd, &discon), 0);
        EXPECT_EQ(discon.reason, ECONNREFUSED);
        EXPECT_EQ(discon.sequence, -1);
        EXPECT_EQ(svr4::t_look(fd), 0);
        EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    }
    ExpectConnects(fd); // it is as good as before
}

TEST_F(Tli, AnUnreachableHostIsADisconnect)
{
    if (!InSandbox())
        GTEST_SKIP() << "needs a network without routes";
    const int fd = Bound();
    Call call(80);
    call.address.sin_addr.s_addr = inet_addr("192.0.2.1");
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &call, nullptr));
    struct svr4::t_discon discon = {};
    EXPECT_EQ(svr4::t_rcvdis(fd, &discon), 0);
    EXPECT_EQ(discon.reason, ENETUNREACH);
    svr4::t_close(fd);
}

TEST_F(Tli, ConnectRefusesCallsThatAreNone)
{
    const int fd = Bound();
    EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_connect(fd, nullptr, nullptr));
    EXPECT_EQ(errno, EFAULT);
    Call call(80);
    call.addr.len = 0;
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_connect(fd, &call, nullptr));
    call.addr.len = sizeof call.address;
    call.address.sin_family = AF_UNIX;
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_connect(fd, &call, nullptr));
    call.address.sin_family = AF_INET;
    call.opt.len = 1;
    EXPECT_TLI_ERROR(svr4::TBADOPT, svr4::t_connect(fd, &call, nullptr));
    call.opt.len = 0;
    call.udata.len = 1;
    EXPECT_TLI_ERROR(svr4::TBADDATA, svr4::t_connect(fd, &call, nullptr));
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    svr4::t_close(fd);

    const int server = Listening();
    Call other(PortOf(server));
    EXPECT_TLI_ERROR(svr4::TNOTSUPPORT, svr4::t_connect(server, &other, nullptr));
    svr4::t_close(server);
}

TEST_F(Tli, AnEndpointIsNotConnectedToItself)
{
    Call self(FreePort());
    struct svr4::t_bind request = {self.addr, 0};
    const int fd = Open();
    ASSERT_EQ(svr4::t_bind(fd, &request, nullptr), 0);
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &self, nullptr));
    struct svr4::t_discon discon = {};
    EXPECT_EQ(svr4::t_rcvdis(fd, &discon), 0);
    EXPECT_EQ(discon.reason, ECONNREFUSED);
    svr4::t_close(fd);
}

// A listener whose queue is full, so that a connect waits.
struct FullListener {
    FullListener() : fd(RawListener(0))
    {
        for (RawSocket& client : clients)
            EXPECT_TRUE(client.BeginToConnect(PortOf(fd)));
        usleep(100000);
    }
    ~FullListener() { close(fd); }
    int fd;
    RawSocket clients[4];
};

TEST_F(Tli, AnInterruptedConnectCanBeGivenUpOrGoneOnWith)
{
    FullListener full;
    Call call(PortOf(full.fd));
    const int fd = Bound(), second = Bound(), third = Bound();
    {
        const Interrupting interrupting;
        for (const int endpoint : {fd, second, third}) {
            EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_connect(endpoint, &call, nullptr));
            EXPECT_EQ(errno, EINTR);
            EXPECT_EQ(svr4::t_getstate(endpoint), svr4::T_OUTCON);
            EXPECT_EQ(svr4::t_look(endpoint), 0);
        }
        EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_rcvconnect(fd, nullptr));
        EXPECT_EQ(errno, EINTR);
        EXPECT_TLI_ERROR(svr4::TNODIS, svr4::t_rcvdis(fd, nullptr));
    }
    EXPECT_EQ(svr4::t_close(second), 0);
    EXPECT_EQ(svr4::t_snddis(third, nullptr), 0);
    EXPECT_EQ(svr4::t_getstate(third), svr4::T_IDLE);
    EXPECT_EQ(svr4::t_look(third), 0);

    for (RawSocket& client : full.clients)
        client.Close();
    fcntl(full.fd, F_SETFL, O_NONBLOCK);
    int accepted;
    EXPECT_TRUE(WaitUntil([&] {
        while ((accepted = accept(full.fd, nullptr, nullptr)) >= 0)
            close(accepted);
        return svr4::t_look(fd) == svr4::T_CONNECT;
    }));
    Call peer;
    EXPECT_EQ(svr4::t_rcvconnect(fd, &peer), 0);
    EXPECT_EQ(memcmp(&peer.address, &call.address, sizeof call.address), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_DATAXFER);
    EXPECT_EQ(svr4::t_connect(third, &call, nullptr), 0) << "given up, and used again";
    svr4::t_close(fd);
    svr4::t_close(third);
}

TEST_F(Tli, AnEndpointThatDoesNotWaitConnectsInTwoSteps)
{
    FullListener full;
    const int waiting = Bound(O_NONBLOCK);
    Call call(PortOf(full.fd));
    EXPECT_TLI_ERROR(svr4::TNODATA, svr4::t_connect(waiting, &call, nullptr));
    EXPECT_EQ(svr4::t_getstate(waiting), svr4::T_OUTCON);
    EXPECT_TLI_ERROR(svr4::TNODATA, svr4::t_rcvconnect(waiting, nullptr));
    svr4::t_close(waiting);

    const int refused = Bound(O_NONBLOCK);
    Call nobody(FreePort());
    svr4::t_connect(refused, &nobody, nullptr); // the host's own refusal may come at once
    EXPECT_TRUE(WaitForEvent(refused, svr4::T_DISCONNECT));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_rcvconnect(refused, nullptr));
    svr4::t_close(refused);
}

// ---- Listening ----

TEST_F(Tli, FiveRequestsAreKeptApartAndHandedOutInOrder)
{
    const int server = Listening(5);
    std::vector<int> clients, ports;
    for (int i = 0; i < 5; i++) {
        clients.push_back(RawClient(PortOf(server)));
        ports.push_back(PortOf(clients.back()));
        ASSERT_EQ(write(clients.back(), std::to_string(i).c_str(), 1), 1);
    }
    Call calls[5];
    for (int i = 0; i < 5; i++) {
        ASSERT_EQ(svr4::t_listen(server, &calls[i]), 0);
        EXPECT_EQ(svr4::t_getstate(server), svr4::T_INCON);
        EXPECT_EQ(ntohs(calls[i].address.sin_port), ports[i]);
        EXPECT_EQ(calls[i].addr.len, sizeof(struct sockaddr_in));
        EXPECT_GT(calls[i].sequence, 0);
    }
    clients.push_back(RawClient(PortOf(server)));
    EXPECT_TRUE(WaitForEvent(server, svr4::T_LISTEN));
    Call sixth;
    EXPECT_TLI_ERROR(svr4::TQFULL, svr4::t_listen(server, &sixth));
    EXPECT_TLI_ERROR(svr4::TINDOUT, svr4::t_accept(server, server, &calls[0]));

    for (const int i : {3, 0, 4, 1, 2}) { // in any order
        const int acceptor = Bound();
        EXPECT_EQ(svr4::t_accept(server, acceptor, &calls[i]), 0);
        EXPECT_EQ(svr4::t_getstate(acceptor), svr4::T_DATAXFER);
        EXPECT_EQ(fcntl(acceptor, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(Receive(acceptor), std::to_string(i));
        EXPECT_EQ(svr4::t_snd(acceptor, "yes", 3, 0), 3);
        EXPECT_EQ(RawRead(clients[i]), "yes");
        svr4::t_close(acceptor);
        const int another = Bound();
        const int expected = i == 2 ? svr4::TOUTSTATE : svr4::TBADSEQ; // answered already; 2 was the last one
        EXPECT_TLI_ERROR(expected, svr4::t_accept(server, another, &calls[i]));
        svr4::t_close(another);
    }
    EXPECT_EQ(svr4::t_getstate(server), svr4::T_IDLE);
    EXPECT_EQ(svr4::t_listen(server, &sixth), 0);
    svr4::t_close(server); // with one request handed out and not answered
    EXPECT_EQ(RawRead(clients[5]), "");
    for (const int client : clients)
        close(client);
}

TEST_F(Tli, AcceptWorksWhileOtherRequestsWait)
{
    const int server = Listening();
    const int first = RawClient(PortOf(server)), second = RawClient(PortOf(server));
    for (const int client : {first, second}) {
        Call call;
        ASSERT_EQ(svr4::t_listen(server, &call), 0);
        const int acceptor = Bound();
        EXPECT_EQ(svr4::t_accept(server, acceptor, &call), 0);
        EXPECT_EQ(svr4::t_snd(acceptor, "ok", 2, 0), 2);
        EXPECT_EQ(RawRead(client), "ok");
        svr4::t_close(acceptor);
    }
    svr4::t_close(server);
    close(first);
    close(second);
}

TEST_F(Tli, ClientsThatConnectAtOnceNeedNotTryAgain)
{
    const int server = Listening(5);
    const struct sockaddr_in address = Loopback(PortOf(server));
    const auto start = std::chrono::steady_clock::now();
    std::vector<int> clients;
    for (int i = 0; i < 64; i++) {
        clients.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        EXPECT_TRUE(connect(clients.back(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0 ||
                    errno == EINPROGRESS);
    }
    for (const int client : clients) {
        Call call;
        ASSERT_EQ(svr4::t_listen(server, &call), 0);
        const int acceptor = Bound();
        EXPECT_EQ(svr4::t_accept(server, acceptor, &call), 0);
        struct pollfd connected = {client, POLLOUT, 0};
        EXPECT_EQ(poll(&connected, 1, 5000), 1);
        svr4::t_close(acceptor);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        ASSERT_LT(taken.count(), 0.9) << "what the host refuses comes again after a second";
    }
    for (const int client : clients)
        close(client);
    svr4::t_close(server);
}

TEST_F(Tli, ListenIsInterruptedByASignal)
{
    const int server = Listening();
    Call call;
    {
        const Interrupting interrupting;
        EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_listen(server, &call));
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_EQ(svr4::t_getstate(server), svr4::T_IDLE);
    const pid_t client = StartChild([&] {
        usleep(200000);
        close(RawClient(PortOf(server)));
    });
    EXPECT_EQ(svr4::t_listen(server, &call), 0) << "and waits for the next";
    EXPECT_EQ(WaitForExit(client), 0);
    svr4::t_close(server);
}

TEST_F(Tli, ListenRefusesWhatCannotListen)
{
    Call call;
    const int bound = Bound();
    EXPECT_TLI_ERROR(svr4::TBADQLEN, svr4::t_listen(bound, &call));
    svr4::t_close(bound);
    const int server = Listening(5, O_NONBLOCK);
    EXPECT_TLI_ERROR(svr4::TNODATA, svr4::t_listen(server, &call));
    EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_listen(server, nullptr));
    EXPECT_EQ(errno, EFAULT);
    const int client = RawClient(PortOf(server));
    call.addr.maxlen = 3;
    EXPECT_TLI_ERROR(svr4::TBUFOVFLW, svr4::t_listen(server, &call));
    EXPECT_EQ(svr4::t_look(server), svr4::T_LISTEN) << "nothing was taken";
    call.addr.maxlen = 0;
    EXPECT_EQ(svr4::t_listen(server, &call), 0) << "who does not want the address need not have it";
    EXPECT_EQ(call.addr.len, 0u);
    svr4::t_close(server);
    close(client);
}

TEST_F(Tli, AClientThatHasGoneIsADisconnectOfItsRequest)
{
    const int server = Listening();
    const int gone = RawClient(PortOf(server)), stays = RawClient(PortOf(server));
    Call first, second, third;
    ASSERT_EQ(svr4::t_listen(server, &first), 0);
    ASSERT_EQ(svr4::t_listen(server, &second), 0);
    Reset(gone);
    ASSERT_TRUE(WaitForEvent(server, svr4::T_DISCONNECT));
    const int acceptor = Bound();
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_accept(server, acceptor, &first));
    EXPECT_EQ(svr4::t_getstate(acceptor), svr4::T_IDLE);
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_listen(server, &third));
    EXPECT_EQ(svr4::t_look(server), svr4::T_DISCONNECT);
    EXPECT_EQ(svr4::t_accept(server, acceptor, &second), 0) << "the other one is not touched";
    struct svr4::t_discon discon = {};
    EXPECT_EQ(svr4::t_rcvdis(server, &discon), 0);
    EXPECT_EQ(discon.reason, ECONNRESET);
    EXPECT_EQ(discon.sequence, first.sequence);
    EXPECT_EQ(svr4::t_getstate(server), svr4::T_IDLE);
    EXPECT_EQ(svr4::t_look(server), 0);
    svr4::t_close(acceptor);
    close(stays);
    const int next = RawClient(PortOf(server));
    EXPECT_EQ(svr4::t_listen(server, &third), 0);
    EXPECT_TLI_ERROR(svr4::TNODIS, svr4::t_rcvdis(server, &discon));
    svr4::t_close(server);
    close(next);
}

TEST_F(Tli, AClientThatWentBeforeItWasHandedOutIsNoticedByAccept)
{
    const int server = Listening();
    Reset(RawClient(PortOf(server)));
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    const int acceptor = Bound();
    usleep(100000); // the reset is here, and no call has seen it yet
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_accept(server, acceptor, &call));
    EXPECT_EQ(svr4::t_look(server), svr4::T_DISCONNECT);
    EXPECT_EQ(svr4::t_rcvdis(server, nullptr), 0);
    svr4::t_close(acceptor);
    svr4::t_close(server);
}

TEST_F(Tli, AClientThatSaidAllAndLeftInOrderIsStillServed)
{
    const int server = Listening();
    const int client = RawClient(PortOf(server));
    ASSERT_EQ(write(client, "last", 4), 4);
    close(client);
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    const int acceptor = Bound();
    ASSERT_EQ(svr4::t_accept(server, acceptor, &call), 0);
    EXPECT_EQ(Receive(acceptor), "last");
    EXPECT_EQ(Receive(acceptor), Attention);
    EXPECT_EQ(svr4::t_look(acceptor), svr4::T_ORDREL);
    svr4::t_close(acceptor);
    svr4::t_close(server);
}

TEST_F(Tli, ARequestCanBeRefused)
{
    const int server = Listening();
    const int client = RawClient(PortOf(server)), other = RawClient(PortOf(server));
    Call first, second;
    ASSERT_EQ(svr4::t_listen(server, &first), 0);
    ASSERT_EQ(svr4::t_listen(server, &second), 0);
    Call wrong;
    for (const int sequence : {0, -1, second.sequence + 1}) {
        wrong.sequence = sequence;
        EXPECT_TLI_ERROR(svr4::TBADSEQ, svr4::t_snddis(server, &wrong));
        EXPECT_TLI_ERROR(svr4::TINDOUT, svr4::t_accept(server, server, &wrong));
    }
    EXPECT_TLI_ERROR(svr4::TBADSEQ, svr4::t_snddis(server, nullptr));
    first.udata.len = 1;
    EXPECT_TLI_ERROR(svr4::TBADDATA, svr4::t_snddis(server, &first));
    first.udata.len = 0;
    EXPECT_EQ(svr4::t_snddis(server, &first), 0);
    EXPECT_EQ(RawRead(client), "reset");
    EXPECT_TLI_ERROR(svr4::TBADSEQ, svr4::t_snddis(server, &first));
    EXPECT_EQ(svr4::t_getstate(server), svr4::T_INCON);
    EXPECT_EQ(svr4::t_snddis(server, &second), 0);
    EXPECT_EQ(svr4::t_getstate(server), svr4::T_IDLE);
    svr4::t_close(server);
    close(client);
    close(other);
}

TEST_F(Tli, AcceptRefusesEndpointsAndCallsThatDoNotFit)
{
    const int server = Listening(), other = Listening(), acceptor = Bound();
    const int client = RawClient(PortOf(server));
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    EXPECT_TLI_ERROR(svr4::TBADF, svr4::t_accept(server, -1, &call));
    EXPECT_TLI_ERROR(svr4::TRESQLEN, svr4::t_accept(server, other, &call));
    EXPECT_TLI_ERROR(svr4::TOUTSTATE, svr4::t_accept(other, acceptor, &call));
    EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_accept(server, acceptor, nullptr));
    const int six = svr4::t_open("/dev/tcp6", O_RDWR, nullptr);
    if (six >= 0) {
        svr4::t_bind(six, nullptr, nullptr);
        EXPECT_TLI_ERROR(svr4::TPROVMISMATCH, svr4::t_accept(server, six, &call));
        svr4::t_close(six);
    }
    Call bad;
    bad.sequence = call.sequence + 1;
    EXPECT_TLI_ERROR(svr4::TBADSEQ, svr4::t_accept(server, acceptor, &bad));
    call.opt.len = 1;
    EXPECT_TLI_ERROR(svr4::TBADOPT, svr4::t_accept(server, acceptor, &call));
    call.opt.len = 0;
    call.udata.len = 1;
    EXPECT_TLI_ERROR(svr4::TBADDATA, svr4::t_accept(server, acceptor, &call));
    call.udata.len = 0;
    EXPECT_EQ(svr4::t_accept(server, acceptor, &call), 0) << "none of this harmed the request";
    for (const int fd : {server, other, acceptor})
        svr4::t_close(fd);
    close(client);
}

TEST_F(Tli, AListeningEndpointCanAcceptOnItself)
{
    const int server = Listening();
    const int client = RawClient(PortOf(server)), late = RawClient(PortOf(server));
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    ASSERT_EQ(svr4::t_accept(server, server, &call), 0);
    EXPECT_EQ(svr4::t_getstate(server), svr4::T_DATAXFER);
    EXPECT_EQ(RawRead(late), "reset") << "it listens no more";
    EXPECT_EQ(svr4::t_snd(server, "ok", 2, 0), 2);
    EXPECT_EQ(RawRead(client), "ok");
    EXPECT_EQ(svr4::t_snddis(server, nullptr), 0);
    EXPECT_TLI_ERROR(svr4::TBADQLEN, svr4::t_listen(server, &call));
    svr4::t_close(server);
    close(client);
    close(late);
}

} // namespace
