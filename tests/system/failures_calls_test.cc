// SPDX-License-Identifier: BSD-2-Clause
// System calls that fail with each plausible `errno`, one kind and one `errno` at a time, in every scenario: each single
// call alone, and all of its kind. Each run ends with a stated result, keeps no descriptor or kernel object, and does not
// hang; and what is used afterwards works. A failure counts when a call was made that failed.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <set>

#include <sys/msg.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/failing_calls.h"
#include "tests/support/testing.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;
using namespace failures_testing;

namespace {

struct Call {
    const char* name;
    std::vector<long> numbers;  // it and what the host calls in its place
    std::vector<int> lasting;   // errors that a call gives each time
    std::vector<int> once = {}; // errors that it gives once: what is tried again succeeds some time
    bool removes = false;       // a queue or a set: where it fails one may stay for good
};

const std::vector<Call> Calls = {
    {"msgget", {SYS_msgget}, {EACCES, ENOENT, ENOMEM, ENOSPC}, {EEXIST}},
    {"msgsnd", {SYS_msgsnd}, {EACCES, EIDRM, EINVAL, ENOMEM}, {EAGAIN, EINTR}},
    {"msgrcv", {SYS_msgrcv}, {EACCES, EIDRM, EINVAL}, {EINTR, ENOMSG, E2BIG}},
    {"msgctl", {SYS_msgctl}, {EACCES, EIDRM, EINVAL, EPERM}, {}, true},
    {"semget", {SYS_semget}, {EACCES, ENOENT, ENOMEM, ENOSPC}, {EEXIST}},
    {"semctl", {SYS_semctl}, {EACCES, EIDRM, EINVAL, EPERM, ERANGE}},
    {"shmget", {SYS_shmget}, {EINVAL, ENOMEM, ENOSPC}},
    {"fork", {SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, {EAGAIN, ENOMEM}},
    {"exec", {SYS_execve, SYS_execveat}, {E2BIG, EACCES, EIO, ENOENT, ENOMEM}, {ETXTBSY}},
    {"open",
     {SYS_open, SYS_openat},
     {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS},
     {EEXIST, ELOOP, ETXTBSY}},
    {"read", {SYS_read, SYS_readv, SYS_pread64}, {EIO}, {EAGAIN, EINTR, EISDIR}},
    {"write", {SYS_write, SYS_writev, SYS_pwrite64}, {EDQUOT, EFBIG, EIO, ENOSPC}, {EAGAIN, EINTR, EPIPE}},
    {"stat", {SYS_stat, SYS_lstat, SYS_newfstatat}, {EACCES, EIO, ENOENT, ENOMEM}, {ELOOP, EOVERFLOW}},
    {"fstat", {SYS_fstat}, {EIO, ENOMEM}, {EOVERFLOW}},
    {"statfs", {SYS_statfs, SYS_fstatfs}, {EIO, ENOMEM}},
    {"fsync", {SYS_fsync, SYS_fdatasync}, {EDQUOT, EIO, ENOSPC}, {EINTR}},
    {"rename", {SYS_rename, SYS_renameat, SYS_renameat2}, {EACCES, EIO, ENOENT, ENOSPC, EROFS}},
    {"link", {SYS_link, SYS_linkat}, {EEXIST, EIO, EMLINK, ENOSPC}},
    {"unlink", {SYS_unlink, SYS_unlinkat}, {EACCES, EBUSY, EIO, EPERM, EROFS}, {ENOENT}},
    {"lseek", {SYS_lseek}, {EINVAL, ESPIPE}},
    {"fcntl", {SYS_fcntl}, {EACCES, EAGAIN, EINTR, ENOLCK}},
    {"flock", {SYS_flock}, {ENOLCK}, {EINTR, EWOULDBLOCK}},
    {"access", {SYS_access, SYS_faccessat}, {EACCES, EIO, ENOENT}},
    {"mkdir", {SYS_mkdir, SYS_mkdirat}, {EACCES, ENOSPC, EROFS}},
    {"dup", {SYS_dup, SYS_dup2, SYS_dup3}, {EBADF, EMFILE, EINTR}, {EBUSY}},
    {"getdents", {SYS_getdents64}, {EIO, ENOENT}},
    {"wait", {SYS_wait4, SYS_waitid}, {ECHILD}, {EINTR}},
    {"kill", {SYS_kill}, {EPERM, ESRCH}},
    {"setsid", {SYS_setsid}, {EPERM}},
    {"setitimer", {SYS_setitimer}, {EINVAL}},
    {"sleep", {SYS_nanosleep, SYS_clock_nanosleep}, {EINTR}},
    {"socket", {SYS_socket}, {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS}},
    {"bind", {SYS_bind}, {EACCES, EADDRINUSE, EADDRNOTAVAIL}},
    {"listen", {SYS_listen}, {EADDRINUSE, EOPNOTSUPP}},
    {"accept", {SYS_accept, SYS_accept4}, {ECONNABORTED, EINTR, EMFILE, ENFILE, ENOBUFS, EPROTO}},
    {"connect", {SYS_connect}, {ECONNREFUSED, EHOSTUNREACH, EINTR, ENETUNREACH, ETIMEDOUT}},
    {"sockopt", {SYS_setsockopt, SYS_getsockopt}, {ENOMEM, ENOPROTOOPT}, {ENOBUFS}},
    {"getsockname", {SYS_getsockname, SYS_getpeername}, {ENOBUFS, ENOTCONN}},
    {"shutdown", {SYS_shutdown}, {ENOBUFS, ENOTCONN}},
    {"receive", {SYS_recvfrom, SYS_recvmsg}, {ECONNRESET, EIO, ENOMEM}, {EAGAIN, EINTR}},
    {"send", {SYS_sendto}, {ECONNRESET, ENOBUFS, EPIPE}, {EAGAIN, EINTR}},
    {"poll", {SYS_poll, SYS_ppoll, SYS_select, SYS_pselect6}, {EINVAL, ENOMEM}, {EINTR}},
#ifndef __SANITIZE_ADDRESS__ // a sanitizer makes these calls, too, and ends the process when they fail
    {"pipe", {SYS_pipe, SYS_pipe2}, {EMFILE, ENFILE}},
    {"map", {SYS_mmap}, {ENOMEM}},
#endif
};

// Removes what a run may have left. Only the sandbox has no kernel objects of anybody else.
void RemoveKernelObjects()
{
    if (!InSandbox())
        return;
    const std::pair<const char*, std::function<int(int)>> kinds[] = {
        {"/proc/sysvipc/msg", [](int id) { return msgctl(id, IPC_RMID, nullptr); }},
        {"/proc/sysvipc/sem", [](int id) { return semctl(id, 0, IPC_RMID); }},
        {"/proc/sysvipc/shm", [](int id) { return shmctl(id, IPC_RMID, nullptr); }},
    };
    for (const auto& [file, remove] : kinds) {
        std::ifstream table(file);
        std::string line;
        std::getline(table, line);
        for (int key, id; table >> key >> id && std::getline(table, line);)
            remove(id);
    }
}

#ifdef __SANITIZE_ADDRESS__
const long MostAlone = 2; // of a kind
#else
const long MostAlone = 6;
#endif

// Which of so many calls fail alone: all of them, or as many as are tried, at even distances.
std::vector<long> Chosen(long made)
{
    const char* wanted = std::getenv("ZELOO_FAILURES");
    const long most = wanted != nullptr ? std::max(2L, std::atol(wanted)) : MostAlone;
    std::set<long> chosen;
    for (long i = 0; i < std::min(made, most); i++)
        chosen.insert(made <= most ? i : i * (made - 1) / (most - 1));
    return {chosen.begin(), chosen.end()};
}

class FailingCallsTest : public testing::TestWithParam<Scenario> {
protected:
    // How many calls of each kind the scenario makes when none fails.
    std::vector<long> CallsMade()
    {
        std::vector<long> all;
        for (const Call& call : Calls)
            all.insert(all.end(), call.numbers.begin(), call.numbers.end());
        FailingCalls calls(all);
        isPossible = Run(calls, "without a failure", false);
        std::vector<long> made;
        for (const Call& call : Calls) {
            made.push_back(0);
            for (const long number : call.numbers)
                made.back() += calls.Made(number);
        }
        return made;
    }

    void Fail(const Call& call, int error, long before, long count)
    {
        FailingCalls calls(call.numbers, {error, before, count});
        const std::string what = std::string(call.name) + (count == 1 ? " " + std::to_string(before) : " each time") +
                                 " with " + std::strerror(error);
        Run(calls, what, call.removes);
        injected += calls.Failed() > 0;
    }

    bool isPossible = false;
    long injected = 0;
    TemporaryDirectory directory{"/dev/shm"};

private:
    // False where no call can be watched.
    bool Run(FailingCalls& calls, const std::string& what, bool canLeave)
    {
        const Scenario& scenario = GetParam();
        ForgetLogs();
        const ChildResult result = calls.Run(
            [&] {
                const Holdings before = HoldingsNow();
                nothingFails = false;
                calls.Begin();
                scenario.run(directory.Path());
                calls.End();
                nothingFails = true;
                CHILD_CHECK(HoldingsNow().descriptors == before.descriptors);
                if (canLeave)
                    RemoveKernelObjects();
                CHILD_CHECK(scenario.run(directory.Path()));
                CHILD_CHECK(HoldingsNow() == before); // what was left is cleared by the next one
            },
            10);
        RemoveKernelObjects();
        if (result.exitCode == NotPossibleHere)
            return false;
        EXPECT_TRUE(EndedAsStated(result))
            << what << ": exit code " << result.exitCode << ", signal " << result.signal << "\n"
            << result.err;
        return true;
    }
};

TEST_P(FailingCallsTest, LeavesAStatedResultWithEachError)
{
    MakeHostReady();
    ASSERT_TRUE(GetParam().run(directory.Path())); // what is kept for good is there from now on
    const std::vector<long> made = CallsMade();
    if (!isPossible)
        GTEST_SKIP() << "no way to make system calls fail here";
    for (size_t kind = 0; kind < Calls.size(); kind++) {
        const Call& call = Calls[kind];
        if (made[kind] == 0)
            continue;
        for (const int error : call.lasting)
            Fail(call, error, 0, LONG_MAX);
        std::vector<int> errors = call.lasting;
        errors.insert(errors.end(), call.once.begin(), call.once.end());
        for (const long before : Chosen(made[kind]))
            for (const int error : errors)
                Fail(call, error, before, 1);
    }
    std::cout << "failures injected: " << injected << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FailingCallsTest, testing::ValuesIn(Scenarios),
                         [](const testing::TestParamInfo<Scenario>& each) { return each.param.name; });

} // namespace
