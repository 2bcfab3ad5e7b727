// SPDX-License-Identifier: BSD-2-Clause
#include "fuzz/fuzzing.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "Misc/proginfo.h"

// The crash handlers of the library must not hide a finding from the sanitizers, whose report names the input's path;
// and where there is no memory the library is to see it.
extern "C" __attribute__((used)) const char* __asan_default_options()
{
    return "allocator_may_return_null=1:handle_segv=2:handle_abort=2:handle_sigbus=2:handle_sigfpe=2:handle_sigill=2";
}

extern "C" __attribute__((used)) const char* __ubsan_default_options() { return "print_stacktrace=1"; }

namespace fuzzing {

void Found(const char* what, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: does not hold: %s\n", file, line, what);
    std::abort();
}

void NameProgram()
{
    static char program[] = "/opt/orv/bin/fuzz";
    static char* arguments[] = {program, nullptr};
    static const bool named = (ProgInfo::Initialize(1, arguments, arguments + 1, "3.4"), true);
    static_cast<void>(named);
}

void WriteFile(const char* name, const std::string& content)
{
    const int fd = open(name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    FUZZ_CHECK(fd >= 0);
    FUZZ_CHECK(write(fd, content.data(), content.size()) == static_cast<ssize_t>(content.size()));
    close(fd);
}

namespace {

struct OwnDirectory {
    OwnDirectory() : path("/dev/shm/fuzz.XXXXXX") { FUZZ_CHECK(mkdtemp(path.data()) != nullptr); }
    ~OwnDirectory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
    std::string path;
};

} // namespace

const std::string& Directory()
{
    static const OwnDirectory own;
    return own.path;
}

static pid_t idle = -1;

int IdleProcess()
{
    const pid_t parent = getpid();
    idle = fork();
    FUZZ_CHECK(idle >= 0);
    if (idle > 0) {
        std::atexit([] { kill(idle, SIGKILL); });
        return idle;
    }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (int fd = 0; fd < 64; fd++)
        close(fd);
    while (getppid() == parent)
        pause();
    _exit(0);
}

} // namespace fuzzing
