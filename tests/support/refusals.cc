// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/refusals.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <vector>

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/coverage.h"
#include "tests/support/hostcalls.h"
#include "tests/support/testing.h"

namespace testing_support {

void ChildNeeds(bool possible)
{
    if (!possible)
        _exit(NotPossibleHere);
}

void MakeForksFail()
{
    // The first child in a new process id namespace is its init; when that is gone there can be no others.
    ChildNeeds(unshare(CLONE_NEWPID) == 0);
    waitpid(StartChild([] {}), nullptr, 0); // until it has ended, even where the process ignores SIGCLD
}

void MakeCallsFail(std::initializer_list<long> numbers, int error)
{
    if (zeloo_keep_counts != nullptr)
        zeloo_keep_counts();
    std::vector<sock_filter> rules = BeginRules();
    for (const long number : numbers)
        AppendRule(rules, number, SECCOMP_RET_ERRNO | static_cast<unsigned>(error));
    rules.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter = {static_cast<unsigned short>(rules.size()), rules.data()};
    ChildNeeds(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0);
}

void DropPrivileges() { ChildNeeds(unshare(CLONE_NEWUSER) == 0 && geteuid() != 0); }

// What may be raised again, by the process itself (see coverage.h), since hosts differ in who may raise the other.
static void Limit(__rlimit_resource_t resource, unsigned long most)
{
    struct rlimit limit;
    getrlimit(resource, &limit);
    limit.rlim_cur = most;
    ChildNeeds(setrlimit(resource, &limit) == 0);
}

void LimitDescriptors(unsigned long limit)
{
    // The undefined-behaviour checker needs a descriptor when it first meets a type: it must know that of std::cerr.
    ChildNeeds(std::cerr.good());
    Limit(RLIMIT_NOFILE, limit);
}

void LimitFileSize(unsigned long limit) { Limit(RLIMIT_FSIZE, limit); }

long VirtualSize() { return std::atol(ReadFile("/proc/self/statm").c_str()) * sysconf(_SC_PAGESIZE); }

static unsigned long LimitVirtualSize(unsigned long bytes)
{
    struct rlimit limit;
    getrlimit(RLIMIT_AS, &limit);
    const unsigned long earlier = limit.rlim_cur;
    limit.rlim_cur = bytes;
    if (setrlimit(RLIMIT_AS, &limit) != 0) {
        std::perror("setrlimit");
        std::abort();
    }
    return earlier;
}

MemoryLimit::MemoryLimit(long more) : earlier(LimitVirtualSize(static_cast<unsigned long>(VirtualSize() + more))) {}

MemoryLimit::~MemoryLimit() { LimitVirtualSize(earlier); }

} // namespace testing_support
