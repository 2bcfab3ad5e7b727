// SPDX-License-Identifier: BSD-2-Clause
// A fault daemon: keeps the faults of many nodes, with attachments, and runs commands for them. One runs on a host. It
// ends on an exit event and on SIGTERM, and its faults are there again at its next start; SIGUSR1 writes its state to a
// file, and a crash leaves the state in /var/orv/data/faultd.sig.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>
#include <memory>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

#include "Misc/lockedfile.h"
#include "Misc/mobject.h"
#include "Misc/proginfo.h"
#include "Misc/unixproc.h"

#include "commandline.h"
#include "faultjournal.h"
#include "faultserver.h"
#include "faultstore.h"
#include "journaledstore.h"
#include "starter.h"

static const char DataDirectory[] = "/var/orv/data";
static const char StateFile[] = "/var/orv/data/faultd.state";
static const char LockedName[] = "/var/orv/data/faultd"; // the lock file is that name with ".lock"
static const char FaultDirectory[] = "/var/orv/data/faults";
static const char JournalDirectory[] = "/var/orv/data/journal";

static const char Usage[] =
    "usage: faultd [--foreground] [--log FILE] [--debug LEVEL] [--time-limit SECONDS] [--remote-access ACCESS]\n"
    "              [--journal]\n"
    "Keeps faults for faultctl, as a daemon, until `faultctl exit` or SIGTERM.\n"
    "  --foreground            stays with the terminal and writes there instead of the log\n"
    "  --log FILE              what the daemon's messages go to the end of (default /var/orv/data/faultd.log)\n"
    "  --debug LEVEL           0 (the default) to 5; from 1 on every event is logged\n"
    "  --time-limit SECONDS    how long a command may run that a client waits for (default 30)\n"
    "  --remote-access ACCESS  what nodes may do that /var/orv/data/orvnodes.dat does not list: none (the default),\n"
    "                          read, full; or global: every node may do everything, the list does not matter\n"
    "  --journal               keeps all changes of the faults in /var/orv/data/journal until `faultctl "
    "changes-done`;\n"
    "                          a change that cannot be kept is refused\n"
    "Environment: FAULT_MESSAGE is the template of the messages, CFTIME the format of the times in them.\n"
    "Exit codes: 0 ended as asked, or serves in the background; 1 could not start; 2 wrong usage.\n";

struct Settings {
    bool foreground = false;
    const char* log = "/var/orv/data/faultd.log";
    short debug = 0;
    long seconds = 30;
    const char* remoteAccess = "none";
    bool journal = false;
};

static bool ReadOption(const char* option, const char* value, Settings& settings)
{
    if (std::strcmp(option, "--log") == 0) {
        settings.log = value;
        return *value != '\0';
    }
    if (std::strcmp(option, "--debug") == 0)
        return ReadNumber(value, &settings.debug) && settings.debug >= 0;
    if (std::strcmp(option, "--time-limit") == 0)
        return ReadNumber(value, &settings.seconds) && settings.seconds > 0;
    if (std::strcmp(option, "--remote-access") == 0) {
        settings.remoteAccess = value;
        return IsAccessOption(value);
    }
    return false;
}

// False when the command line is wrong.
static bool ReadOptions(int argc, char** argv, Settings& settings)
{
    return ReadCommandLine(
        argc, argv,
        [&](const char* word) {
            return TakesFlag(word, "--foreground", &settings.foreground) ||
                   TakesFlag(word, "--journal", &settings.journal);
        },
        [&](const char* option, const char* value) { return ReadOption(option, value, settings); });
}

// Serves until it is told to end.
static int Serve(const Settings& settings, Starter& starter)
{
    CString name(LockedName);
    LockFile lock(name, 0);
    if (!lock.Locked())
        return starter.RefuseUnlocked(lock.Error(), LockedName);
    FaultJournal journal(JournalDirectory);
    if (!settings.journal && journal.LoseStep() != ErrorReporter::NO_ERRORS)
        return starter.Refuse("an earlier journal in /var/orv/data/journal would not know of this start without it");
    const std::unique_ptr<FaultStore> store = settings.journal
                                                  ? std::make_unique<JournaledStore>(FaultDirectory, journal)
                                                  : std::make_unique<FaultStore>(FaultDirectory);
    if (store->Load() != ErrorReporter::NO_ERRORS)
        return starter.Refuse(settings.journal
                                  ? "the faults cannot be kept in /var/orv/data/faults and /var/orv/data/journal"
                                  : "the faults cannot be kept in /var/orv/data/faults");
    FaultServer server(*store, settings.seconds, settings.remoteAccess, settings.journal ? &journal : nullptr);
    if (!server.InBasket().Created())
        return starter.Refuse("no message queue: another server has it, or the host refuses one");
    starter.Serves();
    server.main();
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
    if (!ReadOptions(argc, argv, settings)) {
        std::cerr << Usage;
        return 2;
    }
    Starter starter("faultd");
    if (access(FaultKeyFile, F_OK) != 0)
        return starter.Refuse(std::string("the key file ") + FaultKeyFile + " is missing; create it with `touch`");
    if (access(DataDirectory, W_OK) != 0)
        return starter.Refuse(std::string("no way to write into ") + DataDirectory + ": " + std::strerror(errno));
    if (!settings.foreground && starter.Daemonize(settings.log) != 0)
        return 1;
    umask(022);
    std::signal(SIGCHLD, SIG_IGN); // ProcMgr's commands are not waited for
    UnixProcess::SetGlobalMaxOutput(64 << 20);
    MonitoredObject::SetDebugLevel(settings.debug);
    MonitoredObject::SetDumpStateFileName(StateFile);
    return Serve(settings, starter);
}
