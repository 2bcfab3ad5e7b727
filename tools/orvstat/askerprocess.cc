// SPDX-License-Identifier: BSD-2-Clause
#include "askerprocess.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <thread>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/mobject.h"
#include "processes.h"

namespace orvstat {

static const std::chrono::milliseconds TimeToEndOfItself(50); // for one that has said all
static const std::chrono::milliseconds TimeToEnd(250);
static const std::chrono::milliseconds Step(2);

// What the library prints on the way is said by the parent in other words.
static void Hush()
{
    const int nowhere = open("/dev/null", O_RDWR);
    for (const int stream : {0, 1, 2})
        dup2(nowhere, stream);
}

AskerProcess::AskerProcess(const Target& target) : words(-1), pid(-1)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    const pid_t parent = getpid();
    pid = fork();
    if (pid == 0) {
        EndWith(parent);
        close(ends[0]);
        Hush();
        Ask(target, ends[1]);
        MonitoredObject::
            UnMonitor(); // a signal that found it in exit would call exit there once more, and wait for itself
        exit(0);
    }
    close(ends[1]);
    words = ends[0];
}

static bool HasEnded(pid_t pid, AskerProcess::Clock::time_point end)
{
    while (waitpid(pid, nullptr, WNOHANG) == 0) {
        if (AskerProcess::Clock::now() >= end)
            return false;
        std::this_thread::sleep_for(Step);
    }
    return true;
}

AskerProcess::~AskerProcess()
{
    if (words >= 0)
        close(words);
    if (pid <= 0)
        return;
    if (HasEnded(pid, Clock::now() + TimeToEndOfItself))
        return;
    kill(pid, SIGTERM);
    if (HasEnded(pid, Clock::now() + TimeToEnd))
        return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

std::optional<Word> AskerProcess::Listen(Clock::time_point end) const
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    struct pollfd descriptor = {words, POLLIN, 0};
    const int ready = poll(&descriptor, 1, static_cast<int>(std::max<int64_t>(left, 0)));
    Word word;
    if (ready <= 0 || read(words, &word, sizeof word) != sizeof word) // a word is written whole
        return std::nullopt;
    return word;
}

} // namespace orvstat
