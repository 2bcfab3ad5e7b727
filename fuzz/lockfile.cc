// SPDX-License-Identifier: BSD-2-Clause
// A lock file with any content: it is held by a live process, or stale and replaced.
#include <cerrno>
#include <csignal>
#include <cstdlib>

#include <sys/stat.h>
#include <unistd.h>

#include "Misc/lockedfile.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

// Whether the content names a process that may hold the lock.
static bool IsHeld(const std::string& content)
{
    const long number = std::strtol(content.substr(0, 64).c_str(), nullptr, 10);
    return number > 2 && number <= INT32_MAX && (kill(static_cast<pid_t>(number), 0) == 0 || errno == EPERM);
}

static std::string Owner()
{
    std::string content = std::to_string(getpid()) + "l";
    content.resize(64, '\0');
    return content;
}

static std::string ReadFile(const char* name)
{
    std::string content;
    if (FILE* file = std::fopen(name, "r")) {
        char bytes[4096];
        content.assign(bytes, std::fread(bytes, 1, sizeof bytes, file));
        std::fclose(file);
    }
    return content;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    static const std::string resource = fuzzing::Directory() + "/resource";
    static const std::string lockFile = resource + ".lock";
    static const int live = fuzzing::IdleProcess();
    Input in(data, size);
    const unsigned choice = in.Below(4);
    std::string content = in.Rest();
    if (choice == 1)
        content = std::to_string(live) + content;
    else if (choice == 2)
        unlink(resource.c_str());
    content.resize(std::min<std::size_t>(content.size(), 4000));
    fuzzing::WriteFile(lockFile.c_str(), content);

    CString name(resource.c_str());
    const bool held = IsHeld(content);
    {
        LockedFileDesc lock(name, 0, 0640);
        FUZZ_CHECK(lock.Locked() == !held);
        FUZZ_CHECK((lock.fd() == -1) == held);
        FUZZ_CHECK(ReadFile(lockFile.c_str()) == (held ? content : Owner()));
        if (!held) {
            LockFile second(name, 0);
            FUZZ_CHECK(!second.Locked()); // its owner lives: it is this process
        }
    }
    struct stat status;
    FUZZ_CHECK((stat(lockFile.c_str(), &status) == 0) == held);
    unlink(lockFile.c_str());
    return 0;
}
