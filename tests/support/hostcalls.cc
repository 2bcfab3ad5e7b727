// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/hostcalls.h"

#include <cstddef>
#include <cstdint>

#include <fcntl.h>

namespace testing_support {

namespace {

enum class Test { None, Is, Has, Lacks };

// A way in which a call is made: as the call `made`, where its argument passes the test.
struct Way {
    long call;
    long made;
    Test test = Test::None;
    unsigned argument = 0;
    uint32_t value = 0;
};

const Way Ways[] = {
#ifdef __i386__
    {SYS_fstat, SYS_statx, Test::Has, 2, AT_EMPTY_PATH},
    {SYS_newfstatat, SYS_statx, Test::Lacks, 2, AT_EMPTY_PATH},
    {SYS_newfstatat, SYS_newfstatat},
    {SYS_stat, SYS_stat64},
    {SYS_lstat, SYS_lstat64},
    {SYS_fstat, SYS_fstat64},
    {SYS_statfs, SYS_statfs64},
    {SYS_fstatfs, SYS_fstatfs64},
    {SYS_mmap, SYS_mmap2},
    {SYS_fcntl, SYS_fcntl64},
    {SYS_lseek, SYS__llseek},
    {SYS_select, SYS__newselect},
    {SYS_getuid, SYS_getuid32},
    {SYS_geteuid, SYS_geteuid32},
    {SYS_getgid, SYS_getgid32},
    {SYS_getegid, SYS_getegid32},
    {SYS_clock_nanosleep, SYS_clock_nanosleep_time64},
    {SYS_ppoll, SYS_ppoll_time64},
    {SYS_pselect6, SYS_pselect6_time64},
    {SYS_socket, SYS_socketcall, Test::Is, 0, 1},
    {SYS_bind, SYS_socketcall, Test::Is, 0, 2},
    {SYS_connect, SYS_socketcall, Test::Is, 0, 3},
    {SYS_listen, SYS_socketcall, Test::Is, 0, 4},
    {SYS_accept, SYS_socketcall, Test::Is, 0, 5},
    {SYS_getsockname, SYS_socketcall, Test::Is, 0, 6},
    {SYS_getpeername, SYS_socketcall, Test::Is, 0, 7},
    {SYS_sendto, SYS_socketcall, Test::Is, 0, 9},    // send
    {SYS_recvfrom, SYS_socketcall, Test::Is, 0, 10}, // recv
    {SYS_sendto, SYS_socketcall, Test::Is, 0, 11},
    {SYS_recvfrom, SYS_socketcall, Test::Is, 0, 12},
    {SYS_shutdown, SYS_socketcall, Test::Is, 0, 13},
    {SYS_setsockopt, SYS_socketcall, Test::Is, 0, 14},
    {SYS_getsockopt, SYS_socketcall, Test::Is, 0, 15},
    {SYS_recvmsg, SYS_socketcall, Test::Is, 0, 17},
    {SYS_accept4, SYS_socketcall, Test::Is, 0, 18},
    {SYS_semget, SYS_ipc, Test::Is, 0, 2},
    {SYS_semctl, SYS_ipc, Test::Is, 0, 3},
    {SYS_msgsnd, SYS_ipc, Test::Is, 0, 11},
    {SYS_msgrcv, SYS_ipc, Test::Is, 0, 12},
    {SYS_msgget, SYS_ipc, Test::Is, 0, 13},
    {SYS_msgctl, SYS_ipc, Test::Is, 0, 14},
    {SYS_shmget, SYS_ipc, Test::Is, 0, 23},
#else
    {SYS_fstat, SYS_newfstatat, Test::Has, 3, AT_EMPTY_PATH},
    {SYS_newfstatat, SYS_newfstatat, Test::Lacks, 3, AT_EMPTY_PATH},
#endif
};

std::vector<Way> WaysOf(long number)
{
    std::vector<Way> ways;
    bool isItself = true;
    for (const Way& way : Ways)
        if (way.call == number) {
            ways.push_back(way);
            isItself = isItself && way.made != number;
        }
    if (isItself)
        ways.push_back({number, number});
    return ways;
}

bool Passes(const Way& way, uint32_t value)
{
    switch (way.test) {
    case Test::Is: return value == way.value;
    case Test::Has: return (value & way.value) != 0;
    case Test::Lacks: return (value & way.value) == 0;
    default: return true;
    }
}

sock_filter Load(size_t offset) { return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<uint32_t>(offset)); }

sock_filter LoadNumber() { return Load(offsetof(seccomp_data, nr)); }

// The lower half of an argument.
sock_filter LoadArgument(unsigned argument)
{
    const size_t lower = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4;
    return Load(offsetof(seccomp_data, args) + argument * sizeof(uint64_t) + lower);
}

sock_filter Jump(uint16_t test, uint32_t value, uint8_t isTrue, uint8_t isFalse)
{
    return BPF_JUMP(static_cast<uint16_t>(BPF_JMP | test | BPF_K), value, isTrue, isFalse);
}

} // namespace

std::vector<sock_filter> BeginRules() { return {LoadNumber()}; }

void AppendRule(std::vector<sock_filter>& rules, long number, unsigned result)
{
    for (const Way& way : WaysOf(number)) {
        const bool isTested = way.test != Test::None;
        rules.push_back(Jump(BPF_JEQ, static_cast<uint32_t>(way.made), 0, isTested ? 4 : 1));
        if (isTested) {
            rules.push_back(LoadArgument(way.argument));
            rules.push_back(way.test == Test::Is    ? Jump(BPF_JEQ, way.value, 0, 1)
                            : way.test == Test::Has ? Jump(BPF_JSET, way.value, 0, 1)
                                                    : Jump(BPF_JSET, way.value, 1, 0));
        }
        rules.push_back(BPF_STMT(BPF_RET | BPF_K, result));
        if (isTested)
            rules.push_back(LoadNumber());
    }
}

bool IsCall(const seccomp_data& made, long number)
{
    for (const Way& way : WaysOf(number))
        if (made.nr == way.made && Passes(way, static_cast<uint32_t>(made.args[way.argument])))
            return true;
    return false;
}

} // namespace testing_support
