// SPDX-License-Identifier: BSD-2-Clause
// A centre: makes the current faults of all hosts of their changes, and shows them. It is two processes, the server and
// the applier, a child of it; each ends when the other does.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iostream>
#include <string>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/lockedfile.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"

#include "applier.h"
#include "centreserver.h"
#include "complaints.h"
#include "examples/commandline.h"
#include "examples/starter.h"
#include "options.h"

using namespace fleet;

static const char DataDirectory[] = "/var/orv/data";
static const char StateFile[] = "/var/orv/data/faultcentre.state";
static const char LockedName[] = "/var/orv/data/faultcentre"; // the lock file is that name with ".lock"

static const char Usage[] =
    "usage: faultcentre [--engine URL[,URL...]] [--credentials DIRECTORY] [--foreground] [--log FILE]\n"
    "                   [--remote-access ACCESS] [--keep-cleared SECONDS]\n"
    "Shows the faults of all hosts to `faultctl --centre`, as a daemon, until SIGTERM.\n" FLEET_ENGINE_USAGE
    "  --foreground              stays with the terminal and writes there instead of the log\n"
    "  --log FILE                what its messages go to the end of (default /var/orv/data/faultcentre.log)\n"
    "  --remote-access ACCESS    what nodes may do that /var/orv/data/orvnodes.dat does not list: none (the default),\n"
    "                            read, full; or global: every node may do everything, the list does not matter\n"
    "  --keep-cleared SECONDS    how long the engine keeps a fault that was cleared (default 3600): a centre that was\n"
    "                            stopped for longer than that, in the midst of its work, could bring it back\n"
    "Exit codes: 0 ended as asked, or serves in the background; 1 could not start, or go on; 2 wrong usage.\n";

struct Settings {
    EngineAddress engine;
    bool foreground = false;
    const char* log = "/var/orv/data/faultcentre.log";
    const char* remoteAccess = "none";
    long keepCleared = 3600;
};

static bool ReadOption(const char* option, const char* value, Settings* settings)
{
    if (std::strcmp(option, "--log") == 0) {
        settings->log = value;
        return *value != '\0';
    }
    if (std::strcmp(option, "--keep-cleared") == 0)
        return ReadCount(value, &settings->keepCleared);
    if (std::strcmp(option, "--remote-access") == 0) {
        settings->remoteAccess = value;
        return IsAccessOption(value);
    }
    return ReadEngineOption(option, value, &settings->engine);
}

// False when the command line is wrong.
static bool ReadOptions(int argc, char** argv, Settings* settings)
{
    return ReadCommandLine(
        argc, argv, [&](const char* word) { return TakesFlag(word, "--foreground", &settings->foreground); },
        [&](const char* option, const char* value) { return ReadOption(option, value, settings); });
}

// Applies changes until SIGTERM. When the server is gone it is killed, as it may be at any time.
static int ApplyChanges(const Settings& settings, pid_t server)
{
    sigset_t ends; // blocked in the engine's threads, too
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != server)
        return 0;
    const std::string node(ProgInfo::GetNodeName());
    Engine engine(settings.engine);
    Applier applier(engine, node + " " + std::to_string(getpid()), settings.keepCleared);
    Complaints complaints("faultcentre");
    for (;;) {
        const Applier::Step step = applier.Run(500);
        complaints.Note(step == Applier::Stuck ? applier.Problem() : "");
        const long wait = step == Applier::Stuck ? 500 : applier.IsActive() ? 0 : 200;
        const struct timespec limit = {0, wait * 1000000};
        if (sigtimedwait(&ends, nullptr, &limit) > 0)
            break;
    }
    applier.Release();
    return 0;
}

// The applier ends after what it is at, unless the engine lets it wait.
static void EndApplier(pid_t applier)
{
    kill(applier, SIGTERM);
    for (int i = 0; i < 100; i++, usleep(20000))
        if (waitpid(applier, nullptr, WNOHANG) != 0)
            return;
    kill(applier, SIGKILL);
    waitpid(applier, nullptr, 0);
}

static int Serve(const Settings& settings, Starter& starter)
{
    CString name(LockedName);
    LockFile lock(name, 0);
    if (!lock.Locked())
        return starter.RefuseUnlocked(lock.Error(), LockedName);
    const pid_t server = getpid();
    const pid_t applier = fork();
    if (applier < 0)
        return starter.Refuse(std::string("no second process: ") + std::strerror(errno));
    if (applier == 0)
        _exit(ApplyChanges(settings, server));
    Engine engine(settings.engine);
    FleetView view(engine);
    Asker asker(engine, std::string(ProgInfo::GetNodeName()), settings.engine.inbox);
    Complaints complaints("faultcentre");
    while (!view.Refresh()) {
        complaints.Note(engine.Problem());
        if (waitpid(applier, nullptr, WNOHANG) != 0)
            return starter.Refuse("the applier ended");
        sleep(1);
    }
    complaints.Note("");
    CentreServer centre(view, asker, settings.remoteAccess, applier);
    if (!centre.InBasket().Created())
        return starter.Refuse("no message queue: another server has it, or the host refuses one");
    starter.Serves();
    centre.main();
    if (!centre.HasApplier())
        return starter.Refuse("the applier ended");
    EndApplier(applier);
    return 0;
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
    settings.engine.name = "faultcentre " + node;
    settings.engine.inbox = "_INBOX_" + Token(node);
    Starter starter("faultcentre");
    if (access(CentreKeyFile, F_OK) != 0)
        return starter.Refuse(std::string("the key file ") + CentreKeyFile + " is missing; create it with `touch`");
    if (access(DataDirectory, W_OK) != 0)
        return starter.Refuse(std::string("no way to write into ") + DataDirectory + ": " + std::strerror(errno));
    if (!settings.foreground && starter.Daemonize(settings.log) != 0)
        return 1;
    umask(022);
    HoldBrokenPipes();
    MonitoredObject::SetDumpStateFileName(StateFile);
    return Serve(settings, starter);
}
