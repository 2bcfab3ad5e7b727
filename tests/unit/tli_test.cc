#include "svr4/tli.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/raw_tcp_peer.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// -- Raw sockets: the other side --

int PortOf(int fd)
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

int RawListener(int backlog = 64)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in address = Loopback(0);
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0 || listen(fd, backlog) != 0) {
        ADD_FAILURE() << strerror(errno);
    }
    return fd;
}

int RawClient(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in address = Loopback(port);
    if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0) {
        ADD_FAILURE() << strerror(errno);
    }
    return fd;
}

// A port on which nobody listens.
int FreePort()
{
    const int fd = RawListener();
    const int port = PortOf(fd);
    close(fd);
    return port;
}

void Reset(int fd)
{
    const struct linger abort = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(fd);
}

// What a raw socket reads next; "" at the end, "reset" after a reset, "nothing" when nothing comes within a second.
std::string RawRead(int fd)
{
    struct pollfd readable = {fd, POLLIN, 0};
    if (poll(&readable, 1, 1000) == 0) {
        return "nothing";
    }
    char buf[100];
    const ssize_t count = read(fd, buf, sizeof buf);
    return count < 0 ? (errno == ECONNRESET ? "reset" : strerror(errno)) : std::string(buf, static_cast<size_t>(count));
}

// -- Endpoints --

// A block for a call that names an address.
struct Call : svr4::t_call {
    explicit Call(int port = 0) : svr4::t_call(), address(Loopback(port))
    {
        addr = {sizeof address, sizeof address, reinterpret_cast<char*>(&address)};
    }
    struct sockaddr_in address;
};

int Open(int flags = 0)
{
    const int fd = svr4::t_open("/dev/tcp", O_RDWR | flags, nullptr);
    EXPECT_GE(fd, 0) << svr4::t_strerror(svr4::t_errno);
    return fd;
}

int Bound(int flags = 0)
{
    const int fd = Open(flags);
    EXPECT_EQ(svr4::t_bind(fd, nullptr, nullptr), 0);
    return fd;
}

int Listening(unsigned qlen = 5, int flags = 0)
{
    const int fd = Open(flags);
    struct svr4::t_bind request = {};
    request.qlen = qlen;
    EXPECT_EQ(svr4::t_bind(fd, &request, nullptr), 0);
    return fd;
}

// An endpoint connected to the raw socket `*peer`.
int Connected(int* peer, int flags = 0)
{
    const int listener = RawListener();
    const int fd = Bound();
    Call call(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &call, nullptr), 0);
    *peer = accept(listener, nullptr, nullptr);
    close(listener);
    if (flags == 0) {
        return fd;
    }
    // The same, accepted on an endpoint that does not wait.
    svr4::t_close(fd);
    close(*peer);
    const int server = Listening();
    *peer = RawClient(PortOf(server));
    EXPECT_EQ(svr4::t_listen(server, &call), 0);
    const int accepted = Bound(flags);
    EXPECT_EQ(svr4::t_accept(server, accepted, &call), 0);
    svr4::t_close(server);
    return accepted;
}

std::string Receive(int fd)
{
    char buf[100];
    const int count = svr4::t_rcv(fd, buf, sizeof buf, nullptr);
    return count < 0 ? svr4::t_strerror(svr4::t_errno) : std::string(buf, static_cast<size_t>(count));
}

const char kLook[] = "An event requires attention";

bool WaitForEvent(int fd, int event)
{
    return WaitUntil([=] { return svr4::t_look(fd) == event; }, 5);
}

// Waits until a reset has come, without taking it.
bool WaitForReset(int fd)
{
    return WaitUntil(
        [=] {
            struct pollfd broken = {fd, 0, 0};
            return poll(&broken, 1, 0) == 1 && (broken.revents & POLLERR) != 0;
        },
        5);
}

#define EXPECT_TLI_ERROR(code, call)                                                                                   \
    do {                                                                                                               \
        svr4::t_errno = 0;                                                                                             \
        EXPECT_EQ((call), -1);                                                                                         \
        EXPECT_EQ(svr4::t_errno, code) << svr4::t_strerror(svr4::t_errno);                                             \
    } while (0)

// Every test ends with the descriptors with which it began.
class Tli : public testing::Test {
protected:
    void SetUp() override { descriptors = OpenDescriptors(); }
    void TearDown() override { EXPECT_EQ(OpenDescriptors(), descriptors); }
    int descriptors;
};

// -- Signals --

volatile sig_atomic_t alarms = 0;
void CountAlarm(int)
{
    alarms = alarms + 1;
}

// Lets SIGALRM come again and again, to a handler that asks for a restart.
class Interrupting {
public:
    Interrupting()
    {
        struct sigaction action = {};
        action.sa_handler = CountAlarm;
        action.sa_flags = SA_RESTART;
        sigaction(SIGALRM, &action, &earlier);
        const struct itimerval soon = {{0, 50000}, {0, 50000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
    }
    ~Interrupting()
    {
        const struct itimerval never = {};
        setitimer(ITIMER_REAL, &never, nullptr);
        sigaction(SIGALRM, &earlier, nullptr);
    }

private:
    struct sigaction earlier;
};

// -- Texts --

TEST_F(Tli, EveryCodeHasItsText)
{
    std::string texts;
    for (int code = 0; code <= svr4::TPROTO; code++) {
        texts += std::to_string(code) + " " + svr4::t_strerror(code) + "\n";
    }
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

// -- Opening --

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
        if (svr4::t_open("/dev/tcp", O_RDWR, nullptr) != -1 || svr4::t_errno != svr4::TSYSERR || errno != EMFILE) {
            _exit(1);
        }
    });
    EXPECT_EQ(result.exitCode, 0);
}

// -- Descriptors --

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

// -- States --

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
            if (std::find(states.begin(), states.end(), endpoint.first) != states.end()) {
                continue;
            }
            SCOPED_TRACE(call.first + " in state " + std::to_string(endpoint.first));
            EXPECT_TLI_ERROR(svr4::TOUTSTATE, call.second(endpoint.second));
            EXPECT_EQ(svr4::t_getstate(endpoint.second), endpoint.first);
            refused++;
        }
    }
    EXPECT_EQ(refused, 12 * 7 - 25);
    // An endpoint that accepts must be in T_IDLE.
    for (const int state : {T_UNBND, T_OUTCON, T_DATAXFER, T_OUTREL, T_INREL}) {
        EXPECT_TLI_ERROR(svr4::TOUTSTATE, svr4::t_accept(endpoints[T_INCON], endpoints[state], &request));
    }
    for (const auto& endpoint : endpoints) {
        EXPECT_EQ(svr4::t_close(endpoint.second), 0);
    }
    for (const int peer : peers) {
        close(peer);
    }
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

// -- Binding --

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

// -- Structures --

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

// -- Connecting --

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
    const int listener = RawListener();
    Call good(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &good, nullptr), 0) << "the endpoint is as good as before";
    svr4::t_close(fd);
    close(listener);
}

TEST_F(Tli, AnUnreachableHostIsADisconnect)
{
    if (!InSandbox()) {
        GTEST_SKIP() << "needs a network without routes";
    }
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
        for (int i = 0; i < 4; i++) {
            const int client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
            const struct sockaddr_in address = Loopback(PortOf(fd));
            connect(client, reinterpret_cast<const struct sockaddr*>(&address), sizeof address);
            clients.push_back(client);
        }
        usleep(100000);
    }
    ~FullListener()
    {
        for (const int client : clients) {
            close(client);
        }
        close(fd);
    }
    int fd;
    std::vector<int> clients;
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

    for (const int client : full.clients) {
        close(client);
    }
    full.clients.clear();
    fcntl(full.fd, F_SETFL, O_NONBLOCK);
    int accepted;
    EXPECT_TRUE(WaitUntil([&] {
        while ((accepted = accept(full.fd, nullptr, nullptr)) >= 0) {
            close(accepted);
        }
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

// -- Listening --

TEST_F(Tli, FiveRequestsAreKeptApartAndHandedOutInOrder)
{
    const int server = Listening(5);
    std::vector<int> clients, ports;
    for (int i = 0; i < 5; i++) {
        clients.push_back(RawClient(PortOf(server)));
        ports.push_back(PortOf(clients.back()));
        ASSERT_EQ(write(clients.back(), std::to_string(i).c_str(), 1), 1);
    }
    std::vector<Call> calls(5);
    for (int i = 0; i < 5; i++) {
        calls[i].addr.buf = reinterpret_cast<char*>(&calls[i].address);
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
    for (const int client : clients) {
        close(client);
    }
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
    EXPECT_EQ(Receive(acceptor), kLook);
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
    for (const int fd : {server, other, acceptor}) {
        svr4::t_close(fd);
    }
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

// -- Transfer --

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

const unsigned kMuch = 20 * 1024 * 1024;

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
            for (ssize_t i = 0; i < count; i++, total++) {
                if (buf[static_cast<size_t>(i)] != static_cast<char>(total % 251)) {
                    _exit(1);
                }
            }
        }
        _exit(total == kMuch && count == 0 ? 0 : 2);
    });
    close(peer);
    std::string data(kMuch, ' ');
    for (size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<char>(i % 251);
    }
    EXPECT_EQ(svr4::t_snd(fd, data.data(), kMuch, 0), static_cast<int>(kMuch));
    EXPECT_EQ(svr4::t_close(fd), 0);
    EXPECT_EQ(WaitForExit(reader), 0);
}

TEST_F(Tli, AnInterruptedSendTellsWhatItHasSent)
{
    int peer;
    const int fd = Connected(&peer);
    const std::string data(kMuch, 'x');
    const Interrupting interrupting;
    const int sent = svr4::t_snd(fd, data.data(), kMuch, 0);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(kMuch));
    while (svr4::t_snd(fd, data.data(), kMuch, 0) > 0) { // until nothing at all fits
    }
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
    const std::string data(kMuch, 'x');
    const int sent = svr4::t_snd(fd, data.data(), kMuch, 0);
    EXPECT_GT(sent, 0);
    EXPECT_LT(sent, static_cast<int>(kMuch));
    while (svr4::t_snd(fd, data.data(), kMuch, 0) > 0) {
    }
    EXPECT_EQ(svr4::t_errno, svr4::TFLOW);
    svr4::t_close(fd);
    close(peer);
}

// -- The end of a connection --

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
    EXPECT_EQ(Receive(fd), kLook);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_ORDREL);
    EXPECT_EQ(Receive(fd), kLook) << "until it is taken";
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
    EXPECT_EQ(Receive(fd), kLook);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_ORDREL);
    EXPECT_EQ(svr4::t_rcvrel(fd), 0);
    EXPECT_EQ(svr4::t_getstate(fd), svr4::T_IDLE);

    const int listener = RawListener();
    Call call(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &call, nullptr), 0) << "the endpoint connects again";
    const int second = accept(listener, nullptr, nullptr);
    EXPECT_EQ(svr4::t_snd(fd, "new", 3, 0), 3);
    EXPECT_EQ(RawRead(second), "new");
    svr4::t_close(fd);
    close(second);
    close(listener);
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
        EXPECT_EQ(Receive(fd), kLook);
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

TEST_F(Tli, AResetComesBehindTheData)
{
    int peer;
    const int fd = Connected(&peer);
    ASSERT_EQ(write(peer, "bye", 3), 3);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_DATA));
    Reset(peer);
    ASSERT_TRUE(WaitForReset(fd));
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DATA);
    EXPECT_EQ(Receive(fd), "bye");
    EXPECT_EQ(Receive(fd), kLook);
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    EXPECT_EQ(Receive(fd), kLook) << "until it is taken";
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

    const int listener = RawListener();
    Call call(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &call, nullptr), 0);
    svr4::t_close(fd);
    close(listener);
}

TEST_F(Tli, AResetThatASendNoticesLeavesTheDataBeforeItToReceive)
{
    int peer;
    const int fd = Connected(&peer);
    ASSERT_EQ(write(peer, "bye", 3), 3);
    ASSERT_TRUE(WaitForEvent(fd, svr4::T_DATA));
    Reset(peer);
    ASSERT_TRUE(WaitForReset(fd));
    EXPECT_TLI_ERROR(svr4::TLOOK, svr4::t_snd(fd, "x", 1, 0));
    EXPECT_EQ(svr4::t_look(fd), svr4::T_DISCONNECT);
    EXPECT_EQ(Receive(fd), "bye");
    EXPECT_EQ(Receive(fd), kLook);
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
    EXPECT_EQ(Receive(fd), kLook);
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
        const bool receives = Receive(fd) == kLook && svr4::t_look(fd) == svr4::T_DISCONNECT;
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

// -- The other family --

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
