// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the child processes share: their ends, signals with all they have, and reports.
#ifndef TESTS_UNIT_UNIXPROC_TESTING_H
#define TESTS_UNIT_UNIXPROC_TESTING_H

#include <csignal>
#include <cstdint>
#include <sstream>
#include <string>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Misc/unixproc.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

namespace unixproc_testing {

using namespace testing_support;

/// How a child that nobody has waited for ends: its exit code, or minus the signal that ended it. -1000 when it is no
/// child, or no more.
inline int Reap(long pid)
{
    int status = 0;
    if (waitpid(static_cast<pid_t>(pid), &status, 0) != pid)
        return -1000;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

inline void KillAndReap(long pid)
{
    kill(static_cast<pid_t>(pid), SIGKILL);
    Reap(pid);
}

inline bool Running(long pid)
{
    return kill(static_cast<pid_t>(pid), 0) == 0 && waitpid(static_cast<pid_t>(pid), nullptr, WNOHANG) == 0;
}

/// `output` is one report and nothing else.
inline void ExpectReport(const std::string& output, const std::string& type, int error, const std::string& description)
{
    EXPECT_EQ(WithoutVariables(output), WarningReport("unixproc", type, error, description));
}

inline volatile sig_atomic_t seen = 0;
inline void Count(int) { seen = seen + 1; }

inline void Handle(int sig, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaddset(&action.sa_mask, SIGUSR1);
    ASSERT_EQ(sigaction(sig, &action, nullptr), 0);
}

/// The whole disposition of a signal, as text.
inline std::string Disposition(int sig)
{
    struct sigaction action;
    sigaction(sig, nullptr, &action);
    std::ostringstream out;
    out << reinterpret_cast<uintptr_t>(action.sa_handler) << " flags " << (action.sa_flags & 0xf8ffffff) << " mask";
    for (int other = 1; other < 65; other++)
        if (sigismember(&action.sa_mask, other) == 1)
            out << " " << other;
    return out.str();
}

inline const char* Sleeper[] = {"sleep", "60", nullptr};

} // namespace unixproc_testing

#endif
