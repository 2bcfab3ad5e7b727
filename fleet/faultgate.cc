// SPDX-License-Identifier: BSD-2-Clause
// The gate of a host: passes the changes of its faults on to the engine, and the requests of the centre to its daemon.
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include "Misc/proginfo.h"

#include "options.h"
#include "publisher.h"

using namespace fleet;

static const char Usage[] =
    "usage: faultgate [--engine URL[,URL...]] [--credentials DIRECTORY] [--interval MILLISECONDS] [--once]\n"
    "Passes the changes that faultd --journal keeps on this host on to the engine, until SIGTERM.\n" FLEET_ENGINE_USAGE
    "  --interval MILLISECONDS   between two looks at the journal (default 100)\n"
    "  --once                    ends when all changes have been passed on; with 1 when that fails\n"
    "Exit codes: 0 ended as asked; 1 failed; 2 wrong usage.\n";

struct Settings {
    EngineAddress engine;
    long interval = 100;
    bool once = false;
};

static bool ReadOption(const char* option, const char* value, Settings* settings)
{
    if (std::strcmp(option, "--interval") == 0)
        return ReadCount(value, &settings->interval);
    return ReadEngineOption(option, value, &settings->engine);
}

// False when the command line is wrong.
static bool ReadOptions(int argc, char** argv, Settings* settings)
{
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--once") == 0)
            settings->once = true;
        else if (i + 1 == argc || !ReadOption(argv[i], argv[i + 1], settings))
            return false;
        else
            i++;
    }
    return true;
}

// Waits for `milliseconds`, or until a signal that ends the program. True when one came.
static bool WaitForEnd(const sigset_t& ends, long milliseconds)
{
    const struct timespec limit = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    return sigtimedwait(&ends, nullptr, &limit) > 0;
}

// Says what does not work, once for as long as it is the same, and that it works again.
class Complaints {
public:
    void Note(const std::string& problem)
    {
        if (problem != current)
            std::cerr << "faultgate: " << (problem.empty() ? "goes on" : problem) << std::endl;
        current = problem;
    }

private:
    std::string current;
};

static int PassOn(const Settings& settings, const sigset_t& ends)
{
    const std::string node(ProgInfo::GetNodeName());
    Engine engine(settings.engine);
    Daemon daemon;
    Publisher publisher(engine, daemon, node);
    Complaints complaints;
    for (;;) {
        const Publisher::Step step = publisher.Run();
        complaints.Note(step == Publisher::Stuck ? publisher.Problem() : "");
        if (settings.once && step != Publisher::PassedOn)
            return step == Publisher::Idle ? 0 : 1;
        const long wait = step == Publisher::PassedOn ? 0 : step == Publisher::Idle ? settings.interval : 1000;
        if (WaitForEnd(ends, wait))
            return 0;
    }
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, FaultVersion);
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << Usage;
        return 0;
    }
    Settings settings;
    if (!ReadOptions(argc, argv, &settings)) {
        std::cerr << Usage;
        return 2;
    }
    const std::string node(ProgInfo::GetNodeName());
    settings.engine.name = "faultgate " + node;
    settings.engine.inbox = "_INBOX_" + Token(node);
    sigset_t ends; // blocked in the engine's threads, too
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    std::signal(SIGPIPE, SIG_IGN);
    return PassOn(settings, ends);
}
