// SPDX-License-Identifier: BSD-2-Clause
#include "tests/support/failing_calls.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <string>

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/support/coverage.h"

#ifndef SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV
#define SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV (1UL << 5)
#endif

namespace testing_support {

FailingCalls::FailingCalls(std::vector<long> numbers, const Rule& rule) : numbers(std::move(numbers)), rule(rule)
{
    void* page = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (page == MAP_FAILED || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, handover) != 0) {
        std::perror("FailingCalls");
        std::abort();
    }
    shared = new (page) Shared();
}

FailingCalls::~FailingCalls()
{
    close(handover[0]);
    close(handover[1]);
    munmap(shared, sizeof *shared);
}

// Asks the one who listens about each call of `numbers`. Returns the descriptor to listen at, or -1.
static int Listener(const std::vector<long>& numbers)
{
    std::vector<sock_filter> steps = BeginRules();
    for (const long number : numbers)
        AppendRule(steps, number, SECCOMP_RET_USER_NOTIF);
    steps.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter = {static_cast<unsigned short>(steps.size()), steps.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return -1;
    // A signal would make a call that is being asked about begin anew, and count twice, where the host can't prevent it.
    for (const unsigned long flags : {SECCOMP_FILTER_FLAG_WAIT_KILLABLE_RECV, 0UL}) {
        const long fd =
            syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER | flags, &filter);
        if (fd >= 0 || errno != EINVAL)
            return static_cast<int>(fd);
    }
    return -1;
}

namespace {

// A message of one byte that carries a descriptor.
struct Parcel {
    char byte = 0;
    struct iovec data = {&byte, 1};
    alignas(struct cmsghdr) char room[CMSG_SPACE(sizeof(int))] = {};
    struct msghdr message = {nullptr, 0, &data, 1, room, sizeof room, 0};
    struct cmsghdr* Header() { return CMSG_FIRSTHDR(&message); }
};

} // namespace

static bool SendDescriptor(int socket, int fd)
{
    Parcel parcel;
    *parcel.Header() = {CMSG_LEN(sizeof fd), SOL_SOCKET, SCM_RIGHTS};
    std::memcpy(CMSG_DATA(parcel.Header()), &fd, sizeof fd);
    return sendmsg(socket, &parcel.message, 0) == 1;
}

static int ReceiveDescriptor(int socket)
{
    Parcel parcel;
    int fd = -1;
    if (recvmsg(socket, &parcel.message, MSG_DONTWAIT | MSG_CMSG_CLOEXEC) == 1 && parcel.Header() != nullptr)
        std::memcpy(&fd, CMSG_DATA(parcel.Header()), sizeof fd);
    return fd;
}

void FailingCalls::Begin()
{
    const int listener = Listener(numbers);
    ChildNeeds(listener >= 0 && SendDescriptor(handover[1], listener));
    close(listener);
    shared->isOn = true;
}

ChildResult FailingCalls::Run(const std::function<void()>& body, int seconds)
{
    return RunInChild(body, seconds, [&](pid_t pid) { Serve(pid, seconds); });
}

long FailingCalls::Made(long number) const
{
    const auto at = made.find(number);
    return at != made.end() ? at->second : 0;
}

// Whether the process has ended, and leaves its counts: a failure would damage them.
static bool LeavesCounts(long id)
{
    if (zeloo_keep_counts == nullptr)
        return false;
    std::ifstream file("/proc/" + std::to_string(id) + "/comm");
    std::string name;
    return std::getline(file, name) && name == NameOfLeaving;
}

// Whether the call is one of the program under test: not of one that a child became.
bool FailingCalls::Counts(const struct seccomp_notif& call) const
{
    if (!shared->isOn || LeavesCounts(call.pid))
        return false;
    if (static_cast<pid_t>(call.pid) == child)
        return true;
    char theirs[4096], ours[4096];
    const std::string link = "/proc/" + std::to_string(call.pid) + "/exe";
    const ssize_t n = readlink(link.c_str(), theirs, sizeof theirs);
    return n > 0 && n == readlink("/proc/self/exe", ours, sizeof ours) &&
           std::memcmp(theirs, ours, static_cast<size_t>(n)) == 0;
}

// Lets one call happen or fail. False when there can be no more.
bool FailingCalls::Answer(int listener)
{
    struct seccomp_notif call = {};
    if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &call) != 0)
        return errno == EINTR || errno == ENOENT; // the caller has been killed
    struct seccomp_notif_resp answer = {};
    answer.id = call.id;
    answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    const auto number =
        std::find_if(numbers.begin(), numbers.end(), [&](long asked) { return IsCall(call.data, asked); });
    if (number != numbers.end() && Counts(call)) {
        const long earlier = total++;
        made[*number]++;
        if (rule.error != 0 && earlier >= rule.before && earlier - rule.before < rule.count) {
            answer.flags = 0;
            answer.error = -rule.error;
            failed++;
        }
    }
    ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer); // to nobody when the caller has been killed
    return true;
}

// Answers until the child has ended or its time is over.
void FailingCalls::Serve(pid_t pid, int seconds)
{
    child = pid;
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    const int process = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    struct pollfd watched[] = {{handover[0], POLLIN, 0}, {process, POLLIN, 0}};
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0 || poll(watched, 2, static_cast<int>(left.count())) <= 0)
            break;
        if ((watched[0].revents & POLLIN) == 0) // the child has ended: what it left behind goes on, and fails
            break;
        if (watched[0].fd != handover[0])
            watched[0].fd = Answer(watched[0].fd) ? watched[0].fd : -1;
        else
            watched[0].fd = ReceiveDescriptor(handover[0]);
    }
    if (watched[0].fd != handover[0] && watched[0].fd >= 0)
        close(watched[0].fd);
    close(process);
}

} // namespace testing_support
