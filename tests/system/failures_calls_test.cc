// System calls that fail, one of them and one `errno` at a time, in every scenario: each run ends with a stated result,
// keeps no descriptor and does not hang.
#include <cerrno>
#include <cstring>
#include <iostream>

#include <sys/syscall.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/testing.h"
#include "tests/system/failures_testing.h"

using namespace testing_support;
using namespace failures_testing;

namespace {

struct Call {
    const char* name;
    std::vector<long> numbers; // it and what the host calls in its place
    std::vector<int> errors;
};

const std::vector<Call> Calls = {
    {"msgget", {SYS_msgget}, {EACCES, ENOENT, ENOMEM, ENOSPC}},
    {"msgsnd", {SYS_msgsnd}, {EACCES, EIDRM, EINVAL, ENOMEM}},
    {"msgrcv", {SYS_msgrcv}, {EACCES, EIDRM, EINVAL}},
    {"msgctl", {SYS_msgctl}, {EACCES, EIDRM, EINVAL, EPERM}},
    {"semget", {SYS_semget}, {EACCES, ENOENT, ENOMEM, ENOSPC}},
    {"semctl", {SYS_semctl}, {EACCES, EIDRM, EINVAL, EPERM, ERANGE}},
    {"shmget", {SYS_shmget}, {EINVAL, ENOMEM, ENOSPC}},
    {"fork", {SYS_clone, SYS_clone3, SYS_fork, SYS_vfork}, {EAGAIN, ENOMEM}},
    {"pipe", {SYS_pipe, SYS_pipe2}, {EMFILE, ENFILE}},
    {"open", {SYS_open, SYS_openat}, {EACCES, EINTR, EIO, EMFILE, ENFILE, ENOENT, ENOMEM, ENOSPC, EROFS}},
    {"write", {SYS_writev}, {EDQUOT, EFBIG, EIO, ENOSPC}}, // write itself is how a run says what happened
    {"pwrite", {SYS_pwrite64}, {EDQUOT, EIO, ENOSPC}},
    {"fsync", {SYS_fsync, SYS_fdatasync}, {EDQUOT, EIO, ENOSPC}},
    {"rename", {SYS_rename, SYS_renameat, SYS_renameat2}, {EACCES, EIO, ENOENT, ENOSPC, EROFS}},
    {"unlink", {SYS_unlink, SYS_unlinkat}, {EACCES, EBUSY, EIO, EPERM, EROFS}},
    {"lseek", {SYS_lseek}, {EINVAL, ESPIPE}},
    {"fcntl", {SYS_fcntl}, {EACCES, EAGAIN, EINTR, ENOLCK}},
    {"access", {SYS_access, SYS_faccessat}, {EACCES, EIO, ENOENT}},
    {"mkdir", {SYS_mkdir, SYS_mkdirat}, {EACCES, ENOSPC, EROFS}},
    {"dup", {SYS_dup, SYS_dup2, SYS_dup3}, {EBADF, EMFILE}},
    {"getdents", {SYS_getdents64}, {EIO, ENOENT}},
    {"wait", {SYS_wait4, SYS_waitid}, {ECHILD}},
    {"kill", {SYS_kill}, {EPERM, ESRCH}},
    {"setsid", {SYS_setsid}, {EPERM}},
    {"setitimer", {SYS_setitimer}, {EINVAL}},
    {"socket", {SYS_socket}, {EACCES, EAFNOSUPPORT, EMFILE, ENFILE, ENOBUFS}},
    {"bind", {SYS_bind}, {EACCES, EADDRINUSE, EADDRNOTAVAIL}},
    {"listen", {SYS_listen}, {EADDRINUSE, EOPNOTSUPP}},
    {"accept", {SYS_accept, SYS_accept4}, {EINTR, EMFILE, ENFILE, ENOBUFS}},
    {"connect", {SYS_connect}, {ECONNREFUSED, EHOSTUNREACH, EINTR, ENETUNREACH, ETIMEDOUT}},
    {"setsockopt", {SYS_setsockopt}, {ENOMEM, ENOPROTOOPT}},
    {"getsockname", {SYS_getsockname, SYS_getpeername}, {ENOBUFS, ENOTCONN}},
    {"receive", {SYS_recvfrom, SYS_recvmsg}, {ECONNRESET, EIO, ENOMEM}},
    {"poll", {SYS_poll, SYS_ppoll, SYS_select, SYS_pselect6}, {EINVAL, ENOMEM}},
#ifndef __SANITIZE_ADDRESS__ // which ends the process where it is the one that needs memory
    {"map", {SYS_mmap}, {ENOMEM}},
#endif
};

void RunWithout(const Scenario& scenario, const std::string& directory, const Call& call, int error)
{
    scenario.run(directory); // what is kept for good is there from now on
    const int descriptors = OpenDescriptors();
    for (const long number : call.numbers)
        MakeCallsFail({number}, error);
    scenario.run(directory);
    int left = 0; // counted without a call that may fail now
    for (int fd = 0; fd < 256; fd++)
        left += dup2(fd, fd) == fd;
    CHILD_CHECK(left <= descriptors || call.numbers[0] == SYS_dup);
}

class FailingCalls : public testing::TestWithParam<Scenario> {};

TEST_P(FailingCalls, LeaveAStatedResultWithEachError)
{
    const Scenario& scenario = GetParam();
    MakeHostReady();
    int count = 0;
    for (const Call& call : Calls)
        for (const int error : call.errors) {
            TemporaryDirectory directory;
            const ChildResult result = RunInChild([&] { RunWithout(scenario, directory.Path(), call, error); }, 30);
            if (result.exitCode == NotPossibleHere)
                GTEST_SKIP() << "no way to make system calls fail here";
            EXPECT_TRUE(EndedAsStated(result)) << call.name << " with " << std::strerror(error) << ": exit code "
                                               << result.exitCode << ", signal " << result.signal << "\n"
                                               << result.err;
            count++;
        }
    std::cout << "failures injected: " << count << std::endl;
}

INSTANTIATE_TEST_SUITE_P(Scenarios, FailingCalls, testing::ValuesIn(Scenarios),
                         [](const testing::TestParamInfo<Scenario>& each) { return each.param.name; });

} // namespace
