// SPDX-License-Identifier: BSD-2-Clause
// The gate of a host: passes the changes of its faults on to the engine, and the requests of the centre to its daemon.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/proginfo.h"

#include "complaints.h"
#include "examples/commandline.h"
#include "options.h"
#include "publisher.h"
#include "responder.h"

using namespace fleet;

static const char Usage[] =
    "usage: faultgate [--engine URL[,URL...]] [--credentials DIRECTORY] [--interval MILLISECONDS] [--once]\n"
    "Passes the changes that faultd --journal keeps on this host on to the engine, and the requests of centres to\n"
    "faultd, until SIGTERM.\n" FLEET_ENGINE_USAGE
    "  --interval MILLISECONDS   between two looks at the journal (default 100)\n"
    "  --once                    takes no requests and ends when all changes have been passed on; with 1 when that\n"
    "                            fails\n"
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
    return ReadCommandLine(
        argc, argv, [&](const char* word) { return TakesFlag(word, "--once", &settings->once); },
        [&](const char* option, const char* value) { return ReadOption(option, value, settings); });
}

// The process that answers requests: a command for which a centre waits must not hold the changes up. It ends with
// `parent`, at once.
[[noreturn]] static void AnswerRequests(const Settings& settings, const std::string& node, pid_t parent)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(1);
    Engine engine(settings.engine);
    Responder responder(engine, node);
    Complaints complaints("faultgate");
    for (;;) {
        const bool works = responder.Run();
        if (engine.IsConnected()) // else the other process tells
            complaints.Note(works ? "" : responder.Problem());
        if (!works)
            sleep(1);
    }
}

// Waits for `milliseconds`, or until a signal that ends the program. That signal, or 0.
static int WaitForEnd(const sigset_t& ends, long milliseconds)
{
    const struct timespec limit = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    const int signal = sigtimedwait(&ends, nullptr, &limit);
    return signal > 0 ? signal : 0;
}

// The signal that ended it, or, once all changes have been passed on or that failed, 0 with `code`.
static int PassOn(const Settings& settings, const std::string& node, const sigset_t& ends, int* code)
{
    Engine engine(settings.engine);
    Daemon daemon;
    Publisher publisher(engine, daemon, node);
    Complaints complaints("faultgate");
    for (;;) {
        const Publisher::Step step = publisher.Run();
        complaints.Note(step == Publisher::Stuck ? publisher.Problem() : "");
        *code = step == Publisher::Stuck ? 1 : 0;
        if (settings.once && step != Publisher::PassedOn)
            return 0;
        const long wait = step == Publisher::PassedOn ? 0 : step == Publisher::Idle ? settings.interval : 1000;
        if (const int signal = WaitForEnd(ends, wait))
            return signal;
    }
}

static int Run(const Settings& settings, const std::string& node)
{
    sigset_t ends; // blocked in the engine's threads, too
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigaddset(&ends, SIGCHLD);
    sigset_t earlier;
    struct sigaction ended = {};
    ended.sa_handler = SIG_DFL; // an ignored one would not come
    ended.sa_flags = SA_NOCLDSTOP;
    sigaction(SIGCHLD, &ended, nullptr);
    sigprocmask(SIG_BLOCK, &ends, &earlier);
    const pid_t self = getpid();
    const pid_t responder = settings.once ? -1 : fork(); // before there are threads
    if (responder == 0) {
        sigprocmask(SIG_SETMASK, &earlier, nullptr);
        AnswerRequests(settings, node, self);
    }
    if (responder < 0 && !settings.once) {
        std::cerr << "faultgate: no process to answer requests: " << std::strerror(errno) << std::endl;
        return 1;
    }
    int code = 0;
    const int signal = PassOn(settings, node, ends, &code);
    if (responder > 0) {
        kill(responder, SIGKILL); // which ends one that is stopped, too
        waitpid(responder, nullptr, 0);
    }
    if (signal == SIGCHLD)
        std::cerr << "faultgate: the process that answers requests has ended" << std::endl;
    return signal == SIGCHLD ? 1 : signal != 0 ? 0 : code;
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
    HoldBrokenPipes();
    return Run(settings, node);
}
