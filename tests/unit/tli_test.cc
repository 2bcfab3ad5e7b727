// SPDX-License-Identifier: BSD-2-Clause
// Endpoints: texts, opening, states, addresses and structures.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <arpa/inet.h>

#include "tests/unit/tli_testing.h"

using namespace tli_testing;

namespace {

// ---- Texts ----

TEST_F(Tli, EveryCodeHasItsText)
{
    std::string texts;
    for (int code = 0; code <= svr4::TPROTO; code++)
        texts += std::to_string(code) + " " + svr4::t_strerror(code) + "\n";
    EXPECT_EQ(texts, "0 No Error\n"
                     "1 Incorrect address format\n"
                     "2 Incorrect options format\n"
                     "3 Illegal permissions\n"
                     "4 Illegal file descriptor\n"
                     "5 Couldn't allocate address\n"
                     "6 Routine will place interface out of state\n"
                     "7 Illegal called/calling sequence number\n"
                     "8 System error\n"
                     "9 An event requires attention\n"
                     "10 Illegal amount of data\n"
                     "11 Buffer not large enough\n"
                     "12 Can't send message - (blocked)\n"
                     "13 No message currently available\n"
                     "14 Disconnect message not found\n"
                     "15 Unitdata error message not found\n"
                     "16 Incorrect flags specified\n"
                     "17 Orderly release message not found\n"
                     "18 Primitive not supported by provider\n"
                     "19 State is in process of changing\n"
                     "20 Unsupported structure type requested\n"
                     "21 Invalid transport provider name\n"
                     "22 Listener queue length limit is zero\n"
                     "23 Transport address is in use\n"
                     "24 Outstanding connection indications exist\n"
                     "25 Listener-acceptor transport provider mismatch\n"
                     "26 Connection acceptor has listen queue length limit greater than zero\n"
                     "27 Connection acceptor-listener addresses not same but required by transport\n"
                     "28 Incoming connection queue is full\n"
                     "29 Protocol error on transport primitive\n");
    EXPECT_STREQ(svr4::t_strerror(30), "30: error unknown");
    EXPECT_STREQ(svr4::t_strerror(-1), "-1: error unknown");
}

TEST_F(Tli, ErrorsGoToStandardErrorOnALine)
{
    svr4::t_errno = svr4::TLOOK;
    errno = ENOENT;
    EXPECT_EQ(CaptureStderr([] { svr4::t_error("t_listen failed:"); }),
              "t_listen failed:: An event requires attention\n");
    EXPECT_EQ(CaptureStderr([] { svr4::t_error(nullptr); }), "An event requires attention\n");
    EXPECT_EQ(CaptureStderr([] { svr4::t_error(""); }), "An event requires attention\n");
    EXPECT_EQ(CaptureStdout([] { CaptureStderr([] { svr4::t_error("x"); }); }), "");
    svr4::t_errno = svr4::TSYSERR;
    EXPECT_EQ(CaptureStderr([] {
                  errno = EINTR;
                  svr4::t_error("100%s");
                  EXPECT_EQ(errno, EINTR);
              }),
              "100%s: System error: Interrupted system call\n");
}

// ---- Opening ----

TEST_F(Tli, OpensTheTransportsOfThisHost)
{
    EXPECT_TLI_ERROR(svr4::TBADNAME, svr4::t_open("/dev/udp", O_RDWR, nullptr));
    EXPECT_TLI_ERROR(svr4::TBADNAME, svr4::t_open("/dev/tcp7", O_RDWR, nullptr));
    EXPECT_TLI_ERROR(svr4::TBADNAME, svr4::t_open("", O_RDWR, nullptr));
    EXPECT_TLI_ERROR(svr4::TBADNAME, svr4::t_open(nullptr, O_RDWR, nullptr));
    EXPECT_TLI_ERROR(svr4::TBADFLAG, svr4::t_open("/dev/tcp", O_RDONLY, nullptr));
    EXPECT_TLI_ERROR(svr4::TBADFLAG, svr4::t_open("/dev/tcp", O_RDWR | O_APPEND, nullptr));

    struct svr4::t_info info;
    memset(&info, 77, sizeof info);
    const int fd = svr4::t_open("/dev/tcp", O_RDWR, &info);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(info.addr, static_cast<long>(sizeof(struct sockaddr_in)));
    EXPECT_EQ(info.options, -2);
    EXPECT_EQ(info.tsdu, 0);
    EXPECT_EQ(info.etsdu, -2);
    EXPECT_EQ(info.connect, -2);
    EXPECT_EQ(info.discon, -2);
    EXPECT_EQ(info.servtype, svr4::T_COTS_ORD);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_UNBND);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(svr4::t_close(fd), 0);
    EXPECT_TLI_ERROR(svr4::TBADF, svr4::t_close(fd));
}

TEST_F(Tli, OpenFailsWhenDescriptorsRunOut)
{
    const ChildResult result = RunInChild([] {
        while (dup(0) >= 0) {
        }
        if (svr4::t_open("/dev/tcp", O_RDWR, nullptr) != -1 || svr4::t_errno != svr4::TSYSERR || errno != EMFILE)
            _exit(1);
    });
    EXPECT_EQ(result.exitCode, 0);
}

// ---- Descriptors ----

// All calls on one descriptor, by name.
std::map<std::string, std::function<int(int)>> Calls()
{
    static Call call(1);
    static char byte;
    return {
        {"bind", [](int fd) { return svr4::t_bind(fd, nullptr, nullptr); }},
        {"unbind", [](int fd) { return svr4::t_unbind(fd); }},
        {"connect", [](int fd) { return svr4::t_connect(fd, &call, nullptr); }},
        {"rcvconnect", [](int fd) { return svr4::t_rcvconnect(fd, nullptr); }},
        {"listen", [](int fd) { return svr4::t_listen(fd, &call); }},
        {"accept", [](int fd) { return svr4::t_accept(fd, fd, &call); }},
        {"snd", [](int fd) { return svr4::t_snd(fd, "x", 1, 0); }},
        {"rcv", [](int fd) { return svr4::t_rcv(fd, &byte, 1, nullptr); }},
        {"rcvdis", [](int fd) { return svr4::t_rcvdis(fd, nullptr); }},
        {"snddis", [](int fd) { return svr4::t_snddis(fd, nullptr); }},
        {"sndrel", [](int fd) { return svr4::t_sndrel(fd); }},
        {"rcvrel", [](int fd) { return svr4::t_rcvrel(fd); }},
    };
}

void ExpectNoEndpoint(int fd)
{
    for (const auto& call : Calls()) {
        SCOPED_TRACE(call.first);
        EXPECT_TLI_ERROR(svr4::TBADF, call.second(fd));
    }
    EXPECT_TLI_ERROR(svr4::TBADF, svr4::t_look(fd));
    EXPECT_TLI_ERROR(svr4::TBADF, svr4::t_getstate(fd));
    EXPECT_TLI_ERROR(svr4::TBADF, svr4::t_close(fd));
    svr4::t_errno = 0;
    EXPECT_EQ(svr4::t_alloc(fd, svr4::T_CALL, svr4::T_ALL), nullptr);
    EXPECT_EQ(svr4::t_errno, svr4::TBADF);
}

TEST_F(Tli, OnlyEndpointsAreEndpoints)
{
    ExpectNoEndpoint(-1);
    ExpectNoEndpoint(0);
    ExpectNoEndpoint(1000000);
    const int raw = socket(AF_INET, SOCK_STREAM, 0);
    ExpectNoEndpoint(raw);
    EXPECT_EQ(fcntl(raw, F_GETFD), 0) << "must still be open";
    close(raw);
    ExpectNoEndpoint(raw);
}

TEST_F(Tli, AnEndpointClosedBehindItsBackIsNoneAnyMore)
{
    const int fd = Bound();
    close(fd);
    ExpectNoEndpoint(fd);

    const int second = Bound();
    ASSERT_EQ(second, fd);
    close(second);
    const int raw = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(raw, fd) << "the number is used again";
    ExpectNoEndpoint(raw);
    EXPECT_EQ(fcntl(raw, F_GETFD), 0);
    close(raw);

    const int third = Bound();
    close(third);
    const int fourth = Open();
    ASSERT_EQ(fourth, third);
    EXPECT_EQ(svr4::t_getstate(fourth), svr4::T_UNBND);
    svr4::t_close(fourth);
}

TEST_F(Tli, TheRequestsOfAnEndpointClosedBehindItsBackGoWithIt)
{
    const int spare = dup(0); // a low number for the listening endpoint, to be the next one again
    close(spare);
    const int server = Listening();
    ASSERT_EQ(server, spare);
    const int client = RawClient(PortOf(server));
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    close(server);
    const int next = Open();
    ASSERT_EQ(next, server);
    EXPECT_EQ(svr4::t_getstate(next), svr4::T_UNBND);
    EXPECT_EQ(RawRead(client), "");
    svr4::t_close(next);
    close(client);
}

TEST_F(Tli, RequestsClosedBehindTheirBackAreLeftAlone)
{
    const int listener = RawListener();
    const int other = RawClient(PortOf(listener));
    const int server = Listening();
    const int client = RawClient(PortOf(server));
    const int before = dup(0);
    close(before);
    Call call;
    ASSERT_EQ(svr4::t_listen(server, &call), 0);
    close(before); // the request's own descriptor
    ASSERT_EQ(dup2(other, before), before);
    EXPECT_EQ(svr4::t_look(server), svr4::T_DISCONNECT);
    const int acceptor = Bound();
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_accept(server, acceptor, &call));
    EXPECT_EQ(svr4::t_snddis(server, &call), 0);
    struct sockaddr_in peer;
    socklen_t length = sizeof peer;
    EXPECT_EQ(getpeername(before, reinterpret_cast<struct sockaddr*>(&peer), &length), 0) << "not ours to break off";
    svr4::t_close(acceptor);
    svr4::t_close(server);
    EXPECT_GE(fcntl(before, F_GETFD), 0) << "nor to close";
    close(before);
    close(other);
    close(listener);
    close(client);
}

// ---- States ----

TEST_F(Tli, CallsInAWrongStateAreRefusedAndChangeNothing)
{
    int peers[4];
    std::map<int, int> endpoints;
    endpoints[svr4::T_UNBND] = Open();
    endpoints[svr4::T_IDLE] = Bound();
    endpoints[svr4::T_OUTCON] = Bound();
    Call nobody(FreePort());
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_connect(endpoints[svr4::T_OUTCON], &nobody, nullptr));
    endpoints[svr4::T_INCON] = Listening();
    peers[0] = RawClient(PortOf(endpoints[svr4::T_INCON]));
    Call request;
    ASSERT_EQ(svr4::t_listen(endpoints[svr4::T_INCON], &request), 0);
    endpoints[svr4::T_DATAXFER] = Connected(&peers[1]);
    endpoints[svr4::T_OUTREL] = Connected(&peers[2]);
    ASSERT_EQ(svr4::t_sndrel(endpoints[svr4::T_OUTREL]), 0);
    endpoints[svr4::T_INREL] = Connected(&peers[3]);
    shutdown(peers[3], SHUT_WR);
    ASSERT_TRUE(WaitForEvent(endpoints[svr4::T_INREL], svr4::T_ORDREL));
    ASSERT_EQ(svr4::t_rcvrel(endpoints[svr4::T_INREL]), 0);

    using svr4::T_DATAXFER, svr4::T_IDLE, svr4::T_INCON, svr4::T_INREL, svr4::T_OUTCON, svr4::T_OUTREL, svr4::T_UNBND;
    const std::map<std::string, std::vector<int>> allowed = {
        {"bind", {T_UNBND}},
        {"unbind", {T_IDLE}},
        {"connect", {T_IDLE}},
        {"rcvconnect", {T_OUTCON}},
        {"listen", {T_IDLE, T_INCON}},
        {"accept", {T_INCON}},
        {"snd", {T_DATAXFER, T_INREL}},
        {"rcv", {T_DATAXFER, T_OUTREL}},
        {"rcvdis", {T_OUTCON, T_INCON, T_DATAXFER, T_OUTREL, T_INREL}},
        {"snddis", {T_OUTCON, T_INCON, T_DATAXFER, T_OUTREL, T_INREL}},
        {"sndrel", {T_DATAXFER, T_INREL}},
        {"rcvrel", {T_DATAXFER, T_OUTREL}},
    };
    int refused = 0;
    for (const auto& call : Calls()) {
        const std::vector<int>& states = allowed.at(call.first);
        for (const auto& endpoint : endpoints) {
            if (std::find(states.begin(), states.end(), endpoint.first) != states.end())
                continue;
            SCOPED_TRACE(call.first + " in state " + std::to_string(endpoint.first));
            EXPECT_TLI_ERROR(svr4::TOUTSTATE, call.second(endpoint.second));
            EXPECT_EQ(svr4::t_getstate(endpoint.second), endpoint.first);
            refused++;
        }
    }
    EXPECT_EQ(refused, 12 * 7 - 25);
    // An endpoint that accepts must be in T_IDLE.
    for (const int state : {T_UNBND, T_OUTCON, T_DATAXFER, T_OUTREL, T_INREL})
        EXPECT_TLI_ERROR(svr4::TOUTSTATE, svr4::t_accept(endpoints[T_INCON], endpoints[state], &request));
    for (const auto& endpoint : endpoints)
        EXPECT_EQ(svr4::t_close(endpoint.second), 0);
    for (const int peer : peers)
        close(peer);
}

TEST_F(Tli, LookFindsNothingWhereNothingHappens)
{
    int peer;
    const int open = Open(), bound = Bound(), server = Listening(), connected = Connected(&peer);
    for (const int fd : {open, bound, server, connected}) {
        EXPECT_EQ(svr4::t_look(fd), 0);
        svr4::t_close(fd);
    }
    close(peer);
}

// ---- Binding ----

TEST_F(Tli, BindGivesTheAddressItChose)
{
    const int fd = Open();
    struct svr4::t_bind* ret = static_cast<struct svr4::t_bind*>(svr4::t_alloc(fd, svr4::T_BIND, svr4::T_ALL));
    ASSERT_NE(ret, nullptr);
    ASSERT_EQ(svr4::t_bind(fd, nullptr, ret), 0);
    ASSERT_EQ(ret->addr.len, sizeof(struct sockaddr_in));
    struct sockaddr_in address;
    memcpy(&address, ret->addr.buf, sizeof address);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_NE(address.sin_port, 0);
    EXPECT_EQ(ntohs(address.sin_port), PortOf(fd));
    EXPECT_EQ(ret->qlen, 0u);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);
    EXPECT_EQ(svr4::t_free(ret, svr4::T_BIND), 0);
    svr4::t_close(fd);
}

TEST_F(Tli, BindTakesTheAddressThatIsAskedFor)
{
    const int port = FreePort();
    Call want(port);
    struct svr4::t_bind request = {want.addr, 5};
    Call got;
    struct svr4::t_bind ret = {got.addr, 0};
    const int fd = Open();
    ASSERT_EQ(svr4::t_bind(fd, &request, &ret), 0);
    EXPECT_EQ(memcmp(&got.address, &want.address, sizeof want.address), 0);
    EXPECT_EQ(ret.qlen, 5u);
    const int client = RawClient(port);
    EXPECT_TRUE(WaitForEvent(fd, svr4::T_LISTEN));

    const int second = Open();
    EXPECT_TLI_ERROR(svr4::TADDRBUSY, svr4::t_bind(second, &request, nullptr));
    EXPECT_EQ(svr4::t_getstate(second), svr4::T_UNBND);
    svr4::t_close(fd);
    close(client);
    EXPECT_EQ(svr4::t_bind(second, &request, nullptr), 0) << "after the failure, and though a connection lingers";
    svr4::t_close(second);
}

TEST_F(Tli, TwoEndpointsThatDoNotListenCannotShareAnAddress)
{
    Call want(FreePort());
    struct svr4::t_bind request = {want.addr, 0};
    const int first = Open(), second = Open();
    EXPECT_EQ(svr4::t_bind(first, &request, nullptr), 0);
    EXPECT_TLI_ERROR(svr4::TADDRBUSY, svr4::t_bind(second, &request, nullptr));
    svr4::t_close(first);
    svr4::t_close(second);
}

TEST_F(Tli, AServerThatClosedFirstCanListenAgainAtOnce)
{
    Call want(FreePort());
    struct svr4::t_bind request = {want.addr, 5};
    for (int i = 0; i < 3; i++) {
        const int server = Open();
        ASSERT_EQ(svr4::t_bind(server, &request, nullptr), 0) << i;
        const int client = RawClient(PortOf(server));
        Call call;
        ASSERT_EQ(svr4::t_listen(server, &call), 0);
        const int acceptor = Bound();
        ASSERT_EQ(svr4::t_accept(server, acceptor, &call), 0);
        svr4::t_close(acceptor); // first: this side lingers
        EXPECT_EQ(RawRead(client), "");
        close(client);
        svr4::t_close(server);
    }
}

TEST_F(Tli, BindRefusesWhatIsNoAddressOfThisHost)
{
    const int fd = Open();
    Call want(4711);
    struct svr4::t_bind request = {want.addr, 0};
    request.addr.len = sizeof(struct sockaddr_in) - 1;
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_bind(fd, &request, nullptr));
    request.addr.len = sizeof(struct sockaddr_storage) + 1;
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_bind(fd, &request, nullptr));
    request.addr.len = sizeof(struct sockaddr_in);
    want.address.sin_family = AF_INET6;
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_bind(fd, &request, nullptr));
    want.address.sin_family = AF_INET;
    request.addr.buf = nullptr;
    EXPECT_TLI_ERROR(svr4::TBADADDR, svr4::t_bind(fd, &request, nullptr));
    request.addr.buf = want.addr.buf;
    want.address.sin_addr.s_addr = inet_addr("192.0.2.1");
    EXPECT_TLI_ERROR(svr4::TNOADDR, svr4::t_bind(fd, &request, nullptr));
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_UNBND);

    char small[4];
    struct svr4::t_bind ret = {{sizeof small, 0, small}, 0};
    EXPECT_TLI_ERROR(svr4::TBUFOVFLW, svr4::t_bind(fd, nullptr, &ret));
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE) << "it is bound all the same";
    svr4::t_close(fd);
}

TEST_F(Tli, UnbindGivesTheAddressFree)
{
    Call want(FreePort());
    struct svr4::t_bind request = {want.addr, 5};
    const int first = Open(), second = Open();
    ASSERT_EQ(svr4::t_bind(first, &request, nullptr), 0);
    const int client = RawClient(PortOf(first));
    ASSERT_EQ(svr4::t_unbind(first), 0);
    EXPECT_EQ(svr4::t_getstate(first), svr4::T_UNBND);
    EXPECT_EQ(RawRead(client), "reset");
    EXPECT_EQ(svr4::t_bind(second, &request, nullptr), 0);
    EXPECT_EQ(svr4::t_bind(first, nullptr, nullptr), 0);
    Call call;
    EXPECT_TLI_ERROR(svr4::TBADQLEN, svr4::t_listen(first, &call));
    close(client);
    svr4::t_close(first);
    svr4::t_close(second);
}

// ---- Structures ----

TEST_F(Tli, AllocGivesWhatItIsAskedFor)
{
    const int fd = Open();
    struct svr4::t_call* call = static_cast<struct svr4::t_call*>(svr4::t_alloc(fd, svr4::T_CALL, svr4::T_ALL));
    ASSERT_NE(call, nullptr);
    EXPECT_GE(call->addr.maxlen, sizeof(struct sockaddr_storage));
    EXPECT_EQ(call->addr.len, 0u);
    EXPECT_NE(call->addr.buf, nullptr);
    EXPECT_EQ(call->opt.maxlen, 0u);
    EXPECT_EQ(call->udata.maxlen, 0u);
    memset(call->addr.buf, 1, call->addr.maxlen);
    EXPECT_EQ(svr4::t_free(call, svr4::T_CALL), 0);

    call = static_cast<struct svr4::t_call*>(svr4::t_alloc(fd, svr4::T_CALL, svr4::T_OPT | svr4::T_UDATA));
    EXPECT_EQ(call->addr.buf, nullptr);
    EXPECT_EQ(call->addr.maxlen, 0u);
    EXPECT_EQ(svr4::t_free(call, svr4::T_CALL), 0);

    for (const int type : {svr4::T_BIND, svr4::T_DIS, svr4::T_INFO}) {
        void* const ptr = svr4::t_alloc(fd, type, svr4::T_ALL);
        EXPECT_NE(ptr, nullptr);
        EXPECT_EQ(svr4::t_free(ptr, type), 0);
        EXPECT_EQ(svr4::t_free(nullptr, type), 0);
    }
    for (const int type : {0, int(svr4::T_OPTMGMT), int(svr4::T_UNITDATA), int(svr4::T_UDERROR), 8, -1}) {
        svr4::t_errno = 0;
        EXPECT_EQ(svr4::t_alloc(fd, type, svr4::T_ALL), nullptr);
        EXPECT_EQ(svr4::t_errno, svr4::TNOSTRUCTYPE);
        EXPECT_TLI_ERROR(svr4::TNOSTRUCTYPE, svr4::t_free(nullptr, type));
    }
    svr4::t_close(fd);
}

} // namespace
