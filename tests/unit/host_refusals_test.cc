// SPDX-License-Identifier: BSD-2-Clause
// What the host layer gives when the host refuses a call: the result that it states, the host's error, and nothing kept.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <iostream>
#include <thread>

#include <sys/syscall.h>

#include "svr4/context.h"
#include "svr4/copy.h"
#include "svr4/deadline.h"
#include "svr4/filelock.h"
#include "svr4/ipc.h"
#include "svr4/netconfig.h"
#include "svr4/process.h"
#include "svr4/systeminfo.h"
#include "tests/support/failing_memory.h"
#include "tests/unit/tli_testing.h"

using namespace tli_testing;

namespace {

/// Runs `body` in a child that has been through `before`, and whose calls `numbers` fail with `error` from then on.
template <class Body>
void ExpectWithout(
    std::initializer_list<long> numbers, int error, const Body& body, const std::function<void()>& before = [] {})
{
    SCOPED_TRACE(strerror(error));
    const ChildResult child = RunInChild([&] {
        before();
        MakeCallsFail(numbers, error);
        errno = 0;
        body();
    });
    if (child.exitCode == NotPossibleHere)
        GTEST_SKIP() << "no way to make system calls fail here";
    EXPECT_EQ(child.exitCode, 0) << child.err;
    EXPECT_EQ(child.signal, 0) << child.err;
}

// ---- Memory ----

#ifndef __SANITIZE_ADDRESS__ // which ends the process where it is the one that needs memory or asks for the stack

TEST(WithoutMappings, ThereIsNoAlternateStackAndNoSharedMemory)
{
    ExpectWithout({SYS_mmap}, ENOMEM, [] {
        CHILD_CHECK(svr4::use_alternate_stack() == -1 && errno == ENOMEM);
        CHILD_CHECK(svr4::share_memory(4096) == nullptr);
    });
}

TEST(WithoutMappings, AHalfMadeAlternateStackIsGivenBack)
{
    ExpectWithout({SYS_mprotect}, ENOMEM, [] {
        const long before = VirtualSize();
        for (int i = 0; i < 10; i++)
            CHILD_CHECK(svr4::use_alternate_stack() == -1 && errno == ENOMEM);
        CHILD_CHECK(VirtualSize() - before < 1024 * 1024);
    });
}

TEST(WithoutMemory, AnAddressHasNoText)
{
    Call call(1);
    const struct svr4::netbuf address = {sizeof call.address, sizeof call.address, call.addr.buf};
    void* handle = svr4::setnetpath();
    const struct svr4::netconfig* config = svr4::getnetpath(handle);
    ASSERT_NE(config, nullptr);
    {
        const MemoryFailure failure = MemoryFailure::Of(Malloc | Realloc);
        EXPECT_EQ(svr4::taddr2uaddr(config, &address), nullptr);
    }
    EXPECT_EQ(svr4::_nderror, svr4::ND_NOMEM);
    svr4::endnetpath(handle);
}

TEST(WithoutMemory, ATextHasNoAddressAndAnAddressNoNames)
{
    const struct svr4::netconfig* config = svr4::getnetconfigent("tcp");
    struct svr4::netbuf* address = svr4::uaddr2taddr(config, "127.0.0.1.0.25");
    ASSERT_NE(address, nullptr);
    struct svr4::nd_hostservlist* names = nullptr;
    {
        const MemoryFailure failure = MemoryFailure::OfNext(Malloc | Calloc);
        EXPECT_EQ(svr4::netdir_getbyaddr(config, &names, address), svr4::ND_NOMEM);
    }
    EXPECT_EQ(names, nullptr);
    EXPECT_STREQ(svr4::netdir_sperror(), "out of memory");
    svr4::_nderror = svr4::ND_OK;
    {
        const MemoryFailure failure = MemoryFailure::OfNext(Malloc | Calloc);
        EXPECT_EQ(svr4::uaddr2taddr(config, "127.0.0.1.0.25"), nullptr);
    }
    EXPECT_EQ(svr4::_nderror, svr4::ND_NOMEM);
    svr4::netdir_free(address, svr4::ND_ADDR);
}

TEST_F(Tli, WithoutMemoryThereIsNoEndpoint)
{
    ASSERT_EQ(RunInChild([] { // the first endpoint, for which there is no table yet
                  for (const int calls : {int(Realloc), int(NewObject)}) {
                      const MemoryFailure failure = MemoryFailure::OfNext(calls);
                      const int before = OpenDescriptors();
                      CHILD_CHECK(svr4::t_open("/dev/tcp", O_RDWR, nullptr) == -1);
                      CHILD_CHECK(svr4::t_errno == svr4::TSYSERR && errno == ENOMEM);
                      CHILD_CHECK(OpenDescriptors() == before);
                  }
                  CHILD_CHECK(svr4::t_open("/dev/tcp", O_RDWR, nullptr) >= 0);
              })
                  .exitCode,
              0);
}

TEST(WithoutSignalStacks, ThereIsNoAlternateStack)
{
    ExpectWithout({SYS_sigaltstack}, EPERM, [] { CHILD_CHECK(svr4::use_alternate_stack() == -1 && errno == EPERM); });
}

#endif

// ---- Signals and time ----

TEST(WithoutTimers, ThereIsNoDeadline)
{
    ExpectWithout({SYS_timer_create}, EAGAIN, [] {
        CHILD_CHECK(svr4::set_deadline(1, [](int) { _exit(3); }) == -1 && errno == EAGAIN);
        svr4::set_last_deadline(1);
        usleep(100000); // nothing comes
    });
}

TEST(WithoutHandlers, ThereIsNoDeadline)
{
    ExpectWithout({SYS_rt_sigaction}, EINVAL, [] {
        CHILD_CHECK(svr4::set_deadline(1, [](int) { _exit(3); }) == -1 && errno == EINVAL);
        usleep(100000);
    });
}

// ---- What /proc tells ----

TEST(WithoutProc, AZombieIsNotToldAndTheHeapIsMeasuredFromTheBreakAtLoad)
{
    const pid_t zombie = ZombieProcess();
    ASSERT_TRUE(svr4::has_ended(zombie));
    for (const long call : {SYS_openat, SYS_read})
        ExpectWithout({SYS_pidfd_open, call}, EACCES, [=] {
            CHILD_CHECK(!svr4::has_ended(zombie));
            CHILD_CHECK(!svr4::handles_signal(getpid(), SIGUSR1));
            CHILD_CHECK(errno == EACCES || call == SYS_read);
            const long before = svr4::heap_size();
            CHILD_CHECK(before >= 0);
            CHILD_CHECK(sbrk(1 << 20) != reinterpret_cast<void*>(-1));
            CHILD_CHECK(svr4::heap_size() == before + (1 << 20));
            errno = EXDEV;
            svr4::heap_size();
            CHILD_CHECK(errno == EXDEV);
        });
    EndChild(zombie);
}

TEST(WithoutUname, TheHostHasNoTexts)
{
    ExpectWithout({SYS_uname}, EFAULT, [] {
        char text[8] = "same";
        CHILD_CHECK(svr4::sysinfo(svr4::SI_SYSNAME, text, sizeof text) == -1 && errno == EFAULT);
        CHILD_CHECK(strcmp(text, "same") == 0);
    });
}

// ---- Locks ----

TEST(WithoutLocks, AFileIsNotWaitedForInVain)
{
    TemporaryDirectory directory;
    const std::string path = directory.File("file");
    WriteFile(path, "");
    ExpectWithout({SYS_flock}, ENOLCK, [&] {
        const int before = OpenDescriptors();
        const int64_t start = svr4::steady_milliseconds();
        CHILD_CHECK(!svr4::FileLock(path.c_str(), 60000).Locked());
        CHILD_CHECK(svr4::steady_milliseconds() - start < 30000);
        CHILD_CHECK(OpenDescriptors() == before && errno == 0);
    });
    ExpectWithout({SYS_flock}, EINTR, [&] { // it may be free now
        const int64_t start = svr4::steady_milliseconds();
        CHILD_CHECK(!svr4::FileLock(path.c_str(), 50).Locked());
        CHILD_CHECK(svr4::steady_milliseconds() - start >= 50);
    });
}

// ---- Endpoints ----

#define CHILD_TLI_ERROR(code, call) CHILD_CHECK((call) == -1 && svr4::t_errno == (code))

TEST_F(Tli, ABindThatFailsHalfWayLeavesTheEndpointUnbound)
{
    static int fd;
    const auto open = [] { fd = Open(); };
    const auto listening = [](int code, int error) {
        struct svr4::t_bind request = {};
        request.qlen = 1;
        CHILD_TLI_ERROR(code, svr4::t_bind(fd, &request, nullptr));
        CHILD_CHECK((code != svr4::TSYSERR || errno == error) && svr4::t_getstate(fd) == svr4::T_UNBND);
    };
    ExpectWithout(
        {SYS_getsockname}, ENOBUFS, [&] { listening(svr4::TSYSERR, ENOBUFS); }, open);
    ExpectWithout(
        {SYS_listen}, ENOBUFS, [&] { listening(svr4::TSYSERR, ENOBUFS); }, open);
    ExpectWithout(
        {SYS_bind}, EADDRINUSE, [&] { listening(svr4::TNOADDR, 0); }, open); // of any port: none is free
    ExpectWithout(
        {SYS_bind}, EADDRNOTAVAIL, [&] { listening(svr4::TNOADDR, 0); }, open);
}

TEST_F(Tli, AnAddressThatNobodyHasRoomForIsNotPut)
{
    const int fd = Open();
    struct svr4::t_bind bound = {};
    EXPECT_EQ(svr4::t_bind(fd, nullptr, &bound), 0);
    const int listener = RawListener();
    Call call(PortOf(listener)), peer;
    peer.addr.maxlen = 0;
    EXPECT_EQ(svr4::t_connect(fd, &call, &peer), 0);
    EXPECT_EQ(bound.addr.len, 0u);
    svr4::t_close(fd);
    close(listener);
}

TEST_F(Tli, AnAddressIsNotPutNowhere)
{
    const int fd = Open();
    struct svr4::t_bind bound = {};
    bound.addr.maxlen = 100;
    EXPECT_TLI_ERROR(svr4::TSYSERR, svr4::t_bind(fd, nullptr, &bound));
    EXPECT_EQ(errno, EFAULT);
    svr4::t_close(fd);
}

TEST_F(Tli, AnUnbindWithoutANewSocketLeavesTheAddress)
{
    static int fd;
    const auto listen = [] { fd = Listening(); };
    const auto body = [](int error) {
        const int before = OpenDescriptors();
        CHILD_TLI_ERROR(svr4::TSYSERR, svr4::t_unbind(fd));
        CHILD_CHECK(errno == error && OpenDescriptors() == before && svr4::t_getstate(fd) == svr4::T_IDLE);
        close(RawClient(PortOf(fd)));
    };
    ExpectWithout(
        {SYS_dup3}, EBADF, [&] { body(EBADF); }, listen);
    ExpectWithout(
        {SYS_socket}, EMFILE, [&] { CHILD_TLI_ERROR(svr4::TSYSERR, svr4::t_unbind(fd)); }, listen);
}

TEST_F(Tli, AConnectThatTheHostCannotMakeLeavesTheEndpointIdle)
{
    static int fd;
    static Call call(1);
    ExpectWithout(
        {SYS_connect}, ENOMEM,
        [] {
            CHILD_TLI_ERROR(svr4::TSYSERR, svr4::t_connect(fd, &call, nullptr));
            CHILD_CHECK(errno == ENOMEM && svr4::t_getstate(fd) == svr4::T_IDLE);
        },
        [] { fd = Bound(); });
}

TEST_F(Tli, AConnectionWhoseEndsCannotBeAskedForIsOne)
{
    static int fd;
    static const int listener = RawListener();
    static Call call(PortOf(listener)), peer;
    const auto open = [] { fd = Bound(); };
    ExpectWithout(
        {SYS_getsockname}, ENOBUFS, [] { CHILD_CHECK(svr4::t_connect(fd, &call, nullptr) == 0); }, open);
    ExpectWithout(
        {SYS_getpeername}, ENOBUFS,
        [] {
            CHILD_TLI_ERROR(svr4::TSYSERR, svr4::t_connect(fd, &call, &peer));
            CHILD_CHECK(errno == ENOBUFS && svr4::t_getstate(fd) == svr4::T_DATAXFER);
        },
        open);
    ExpectWithout( // it has been broken off meanwhile
        {SYS_getpeername}, ENOTCONN,
        [] {
            CHILD_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &call, &peer));
            CHILD_CHECK(svr4::t_look(fd) == svr4::T_DISCONNECT);
        },
        open);
    ExpectWithout(
        {SYS_getsockopt}, ENOBUFS,
        [] {
            CHILD_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &call, nullptr));
            struct svr4::t_discon discon = {};
            CHILD_CHECK(svr4::t_rcvdis(fd, &discon) == 0 && discon.reason == ENOBUFS);
        },
        open);
    close(listener);
}

TEST_F(Tli, AListenThatTheHostCannotMakeFails)
{
    static int fd;
    ExpectWithout(
        {SYS_accept4, SYS_accept}, ENOMEM,
        [] {
            Call call;
            CHILD_TLI_ERROR(svr4::TSYSERR, svr4::t_listen(fd, &call));
            CHILD_CHECK(errno == ENOMEM && svr4::t_getstate(fd) == svr4::T_IDLE);
        },
        [] { fd = Listening(); });
}

TEST_F(Tli, ANewConnectionNeedsANewSocket)
{
    static int fd;
    static Call call(1);
    ExpectWithout(
        {SYS_socket}, EMFILE,
        [] {
            CHILD_CHECK(svr4::t_rcvdis(fd, nullptr) == 0);
            CHILD_TLI_ERROR(svr4::TSYSERR, svr4::t_connect(fd, &call, nullptr));
            CHILD_CHECK(errno == EMFILE && svr4::t_getstate(fd) == svr4::T_IDLE);
        },
        [] {
            fd = Bound();
            call.address = Loopback(FreePort());
            CHILD_TLI_ERROR(svr4::TLOOK, svr4::t_connect(fd, &call, nullptr));
        });
}

} // namespace
