// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the transport interface share: raw sockets as the other side, and endpoints in each state.
#ifndef TESTS_UNIT_TLI_TESTING_H
#define TESTS_UNIT_TLI_TESTING_H

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "svr4/tli.h"
#include "tests/support/raw_tcp_peer.h"
#include "tests/support/testing.h"

namespace tli_testing {

using namespace testing_support;

inline int PortOf(int fd)
{
    struct sockaddr_in address = {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

inline int RawListener(int backlog = 64)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in address = Loopback(0);
    if (bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0 || listen(fd, backlog) != 0)
        ADD_FAILURE() << strerror(errno);
    return fd;
}

inline int RawClient(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const struct sockaddr_in address = Loopback(port);
    if (connect(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) != 0)
        ADD_FAILURE() << strerror(errno);
    return fd;
}

/// A port on which nobody listens.
inline int FreePort()
{
    const int fd = RawListener();
    const int port = PortOf(fd);
    close(fd);
    return port;
}

inline void Reset(int fd)
{
    const struct linger abort = {1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof abort);
    close(fd);
}

/// What a raw socket reads next; "" at the end, "reset" after a reset, "nothing" when nothing comes within a second.
inline std::string RawRead(int fd)
{
    struct pollfd readable = {fd, POLLIN, 0};
    if (poll(&readable, 1, 1000) == 0)
        return "nothing";
    char buf[100];
    const ssize_t count = read(fd, buf, sizeof buf);
    return count < 0 ? (errno == ECONNRESET ? "reset" : strerror(errno)) : std::string(buf, static_cast<size_t>(count));
}

/// A block for a call that names an address.
struct Call : svr4::t_call {
    explicit Call(int port = 0) : svr4::t_call(), address(Loopback(port))
    {
        addr = {sizeof address, sizeof address, reinterpret_cast<char*>(&address)};
    }
    struct sockaddr_in address;
};

inline int Open(int flags = 0)
{
    const int fd = svr4::t_open("/dev/tcp", O_RDWR | flags, nullptr);
    EXPECT_GE(fd, 0) << svr4::t_strerror(svr4::t_errno);
    return fd;
}

inline int Bound(int flags = 0)
{
    const int fd = Open(flags);
    EXPECT_EQ(svr4::t_bind(fd, nullptr, nullptr), 0);
    return fd;
}

inline int Listening(unsigned qlen = 5, int flags = 0)
{
    const int fd = Open(flags);
    struct svr4::t_bind request = {};
    request.qlen = qlen;
    EXPECT_EQ(svr4::t_bind(fd, &request, nullptr), 0);
    return fd;
}

/// An endpoint connected to the raw socket `*peer`.
inline int Connected(int* peer, int flags = 0)
{
    const int listener = RawListener();
    const int fd = Bound();
    Call call(PortOf(listener));
    EXPECT_EQ(svr4::t_connect(fd, &call, nullptr), 0);
    *peer = accept(listener, nullptr, nullptr);
    close(listener);
    if (flags == 0)
        return fd;
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

/// What an endpoint receives next, or the text of its error.
inline std::string Receive(int fd)
{
    char buf[100];
    const int count = svr4::t_rcv(fd, buf, sizeof buf, nullptr);
    return count < 0 ? svr4::t_strerror(svr4::t_errno) : std::string(buf, static_cast<size_t>(count));
}

const char Attention[] = "An event requires attention";

inline bool WaitForEvent(int fd, int event)
{
    return WaitUntil([=] { return svr4::t_look(fd) == event; }, 5);
}

/// Waits until a reset has come, without taking it.
inline bool WaitForReset(int fd)
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

/// Every test ends with the descriptors with which it began.
class Tli : public testing::Test {
protected:
    void SetUp() override { descriptors = OpenDescriptors(); }
    void TearDown() override { EXPECT_EQ(OpenDescriptors(), descriptors); }
    int descriptors;
};

inline volatile sig_atomic_t alarms = 0;
inline void CountAlarm(int) { alarms = alarms + 1; }

/// Lets SIGALRM come again and again, to a handler that asks for a restart.
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

/// An idle endpoint connects, sends, and is closed.
inline void ExpectConnects(int fd)
{
    const int listener = RawListener();
    Call call(PortOf(listener));
    ASSERT_EQ(svr4::t_connect(fd, &call, nullptr), 0);
    const int peer = accept(listener, nullptr, nullptr);
    EXPECT_EQ(svr4::t_snd(fd, "new", 3, 0), 3);
    EXPECT_EQ(RawRead(peer), "new");
    svr4::t_close(fd);
    close(peer);
    close(listener);
}

} // namespace tli_testing

#endif
