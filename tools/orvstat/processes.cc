// SPDX-License-Identifier: BSD-2-Clause
#include "processes.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <set>
#include <sstream>
#include <string_view>
#include <utility>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "files.h"

namespace orvstat {

static const size_t Arguments = 6; // of any call of the host

static std::string Of(long pid, const char* file) { return "/proc/" + std::to_string(pid) + "/" + file; }

static std::string FirstLine(const std::string& path)
{
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

Life LifeOf(long pid)
{
    if (kill(static_cast<pid_t>(pid), 0) < 0 && errno == ESRCH)
        return Life::Gone;
    const std::string status = FirstLine(Of(pid, "stat")); // the program's name in it may hold blanks and parentheses
    const size_t name = status.rfind(") ");
    const char state = name != std::string::npos ? status[name + 2] : '?';
    const auto isOneOf = [state](std::string_view states) { return states.find(state) != std::string_view::npos; };
    if (isOneOf("ZX"))
        return Life::Gone;
    return isOneOf("Tt") ? Life::Stopped : Life::Runs;
}

std::string ProgramOf(long pid) { return FirstLine(Of(pid, "comm")); }

void EndWith(long parent)
{
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent)
        raise(SIGTERM);
}

// The numbers among the names in a directory of /proc, where no other name begins with a digit, in their order.
static std::vector<long> NumbersIn(const std::string& directory)
{
    std::vector<long> numbers;
    for (const std::string& name : NamesIn(directory)) {
        long number = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), number).ec == std::errc())
            numbers.push_back(number);
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// What the numbers of calls mean here. Where all calls on queues are one call of the host, its first argument tells which.
static bool IsQueueCall(long number, [[maybe_unused]] std::vector<uint64_t>& arguments, bool* sends)
{
#ifdef SYS_ipc
    const uint64_t sendOfIpc = 11;
    const uint64_t receiveOfIpc = 12;
    if (number == SYS_ipc) {
        const uint64_t call = arguments[0] & 0xFFFF;
        arguments.erase(arguments.begin());
        *sends = call == sendOfIpc;
        return call == sendOfIpc || call == receiveOfIpc;
    }
#endif
#ifdef SYS_msgsnd
    *sends = number == SYS_msgsnd;
    return number == SYS_msgsnd || number == SYS_msgrcv;
#else
    return false;
#endif
}

std::optional<BlockedCall> ReadCall(long pid, const std::string& line)
{
    std::istringstream in(line);
    long number = -1;
    if (!(in >> number)) // "running"
        return std::nullopt;
    std::vector<uint64_t> arguments;
    for (uint64_t argument; in >> std::hex >> argument;)
        arguments.push_back(argument);
    bool sends = false;
    arguments.resize(Arguments);
    if (!IsQueueCall(number, arguments, &sends))
        return std::nullopt;
    return BlockedCall{pid, static_cast<int>(arguments[0]), sends}; // what stands in the upper half means nothing
}

// Reads a file of /proc, which is made when it is read. 0, or the host's error number.
static int Read(const std::string& path, std::string& text)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    char bytes[512];
    const ssize_t length = read(fd, bytes, sizeof bytes);
    const int error = length < 0 ? errno : 0;
    close(fd);
    text.assign(bytes, length > 0 ? static_cast<size_t>(length) : 0);
    return error;
}

static bool IsRefusal(int error) { return error == EACCES || error == EPERM; }

Blocked AllBlocked()
{
    Blocked blocked;
    for (const long pid : NumbersIn("/proc")) {
        if (pid == getpid())
            continue;
        bool isSeen = true;
        std::set<std::pair<int, bool>> named;
        for (const long thread : NumbersIn(Of(pid, "task"))) {
            std::string line;
            const int error = Read(Of(pid, ("task/" + std::to_string(thread) + "/syscall").c_str()), line);
            isSeen &= !IsRefusal(error);
            const std::optional<BlockedCall> call = error == 0 ? ReadCall(pid, line) : std::nullopt;
            if (call && named.emplace(call->queue, call->sends).second)
                blocked.calls.push_back(*call);
        }
        blocked.unseen += !isSeen;
    }
    return blocked;
}

} // namespace orvstat
