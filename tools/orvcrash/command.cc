// SPDX-License-Identifier: BSD-2-Clause
#include "command.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace orvcrash {

static const time_t Patience = 60; // seconds
static const time_t TimeToEnd = 5; // seconds, of a program that has closed its output
static const size_t MostOutput = 256 * 1024 * 1024;

bool HasProgram(const char* name)
{
    const char* const path = getenv("PATH");
    std::string rest = path != nullptr ? path : "/usr/bin:/bin";
    while (!rest.empty()) {
        const size_t end = rest.find(':');
        const std::string file = rest.substr(0, end) + "/" + name;
        if (end != 0 && access(file.c_str(), X_OK) == 0)
            return true;
        rest.erase(0, end == std::string::npos ? rest.size() : end + 1);
    }
    return false;
}

static time_t Seconds()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

// Reads to the end of the program's output. False when it is not for that long, or not to be had.
static bool Collect(int fd, std::string* output)
{
    const time_t until = Seconds() + Patience;
    static char block[65536];
    for (;;) {
        struct pollfd ready = {fd, POLLIN, 0};
        const time_t left = until - Seconds();
        const int found = left > 0 ? poll(&ready, 1, static_cast<int>(left * 1000)) : 0;
        if (found < 0 && errno == EINTR)
            continue;
        if (found <= 0)
            return false;
        const ssize_t n = read(fd, block, sizeof block);
        if (n <= 0)
            return n == 0;
        if (output->size() + static_cast<size_t>(n) > MostOutput)
            return false;
        output->append(block, static_cast<size_t>(n));
    }
}

// Starts the program with its output in the pipe; its process id, or -1.
static pid_t Start(const std::vector<std::string>& arguments, int output)
{
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t pid;
    const int failure = posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    return failure == 0 ? pid : -1;
}

// Waits for a program, and kills one that gives no more output that is wanted and goes on. Whether it has succeeded.
static bool HasSucceeded(pid_t pid, bool isWanted)
{
    const time_t until = isWanted ? Seconds() + TimeToEnd : 0;
    const struct timespec moment = {0, 1000000};
    int status;
    pid_t ended;
    while ((ended = waitpid(pid, &status, WNOHANG)) == 0) {
        if (Seconds() >= until)
            kill(pid, SIGKILL);
        nanosleep(&moment, nullptr);
    }
    return ended == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool Run(const std::vector<std::string>& arguments, std::string* output)
{
    output->clear();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const pid_t pid = Start(arguments, ends[1]);
    close(ends[1]);
    const bool isWhole = pid > 0 && Collect(ends[0], output);
    close(ends[0]);
    return pid > 0 && HasSucceeded(pid, isWhole) && isWhole;
}

} // namespace orvcrash
