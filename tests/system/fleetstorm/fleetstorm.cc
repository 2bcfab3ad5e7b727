// SPDX-License-Identifier: BSD-2-Clause
// A fleet of hosts, with an engine of three servers and two centres, in which everything is killed at random. See Usage.
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <vector>

#include <getopt.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/proginfo.h"
#include "tests/support/testing.h"
#include "tests/system/fleetstorm/breaker.h"
#include "tests/system/fleetstorm/engines.h"
#include "tests/system/fleetstorm/hosts.h"
#include "tests/system/fleetstorm/verdict.h"

using namespace fleetstorm;

static const char Usage[] =
    "usage: fleetstorm [--seconds N] [--hosts N] [--seed N] [--rate N] [--spare-leaders] [--calm]\n"
    "                  [--logs DIRECTORY]\n"
    "Runs a fleet of N hosts (200) with an engine of three servers and two centres for N seconds (600), kills, stops "
    "and\n"
    "cuts everything off at random, and holds what the hosts were asked for against the engine's stream and the "
    "centres.\n"
    "Needs scripts/sandbox.\n"
    "  --seed N          chooses whom it hits and when\n"
    "  --rate N          changes a second, of all hosts (half of one a host, 20 at least)\n"
    "  --spare-leaders   neither kills nor stops servers of the engine that lead\n"
    "  --calm            kills nothing\n"
    "  --logs DIRECTORY  where the programs write to, and the engine (a new one in memory, which is removed)\n"
    "Exit codes: 0 nothing was lost, doubled or out of order; 1 something was; 2 wrong usage; 77 not in a sandbox, or "
    "no\n"
    "nats-server.\n";

static const long TickMilliseconds = 20;
static const long LongestRest = 60; // seconds without any progress, once nothing is broken any more

static volatile sig_atomic_t interrupted = 0;

static void Interrupt(int) { interrupted = 1; }

// What runs beside the programs of the fleet. Children have no threads of their own yet, as the engine's client wants it.
static void StartHelpers(const Settings& settings, const Hosts& hosts, Breaker& breaker)
{
    const pid_t self = getpid();
    for (const auto body : {RunObserver, RunDoorkeeper, RunLookout})
        breaker.Adopt(testing_support::StartChild([&] {
            EndWithParent(self);
            body(settings);
        }));
    for (int i = 0; i < Centres; i++)
        breaker.Adopt(hosts.Start(settings.hosts + i, [&] { RunWatcher(settings, i); }));
    for (int i = 0; i < settings.hosts; i++)
        breaker.Adopt(hosts.Start(i, [&] { RunDriver(settings, i); }));
}

static double Seconds(int64_t since) { return static_cast<double>(Now() - since) / 1e9; }

// ---- The end ----

// Waits until the hosts' last changes are where they should be, for as long as something still happens.
static Verdict Settle(const Settings& settings, Breaker& breaker)
{
    Verdict verdict;
    uint64_t before = 0;
    for (int64_t moved = Now(); Seconds(moved) < static_cast<double>(LongestRest) && interrupted == 0;) {
        breaker.Turn(true);
        SleepMilliseconds(200);
        verdict = Judge(settings, false);
        bool isKnown = shared->piecesKnown == shared->pieceRound;
        for (const CentreLook& look : shared->looks)
            isKnown = isKnown && look.round == shared->round;
        const uint64_t progress = shared->done + verdict.seen - verdict.wrong;
        if (progress != before)
            moved = Now();
        before = progress;
        if (!isKnown)
            continue;
        if (verdict.seen == verdict.changes && verdict.wrong == 0 && shared->piecesLost == 0)
            break;
        shared->round++;
        shared->pieceRound++;
    }
    return verdict;
}

// Waits until the drivers have what they asked for, however long the daemons need.
static bool EndDrivers(const Settings& settings, Breaker& breaker)
{
    shared->driversAreToEnd = true;
    for (const int64_t since = Now(); Seconds(since) < 60 && interrupted == 0;) {
        breaker.Turn(true);
        SleepMilliseconds(TickMilliseconds);
        if (shared->driversEnded == static_cast<uint32_t>(settings.hosts))
            return true;
    }
    Note("%u of %d drivers have no answer", settings.hosts - shared->driversEnded.load(), settings.hosts);
    return false;
}

static std::string Delays()
{
    static const char* const limits[] = {"0.25 s", "0.5 s", "1 s", "2 s", "5 s", "15 s", "more"};
    std::string text;
    for (int i = 0; i < 7; i++)
        text += (i > 0 ? ", " : "") + std::string(limits[i]) + " " + std::to_string(shared->delays[i].load());
    return text;
}

static void Print(const Settings& settings, const Verdict& verdict, const Damage& damage, double seconds, double rest)
{
    const Shared& s = *shared;
    std::printf("%-28s %10s\n", "what", "number");
    const auto line = [](const char* what, uint64_t number) {
        std::printf("%-28s %10lu\n", what, static_cast<unsigned long>(number));
    };
    line("hosts", static_cast<uint64_t>(settings.hosts));
    line("seconds", static_cast<uint64_t>(seconds));
    line("gates killed", static_cast<uint64_t>(damage.gates));
    line("their responders killed", static_cast<uint64_t>(damage.responders));
    line("daemons killed", static_cast<uint64_t>(damage.daemons));
    line("appliers killed", static_cast<uint64_t>(damage.appliers));
    line("centres' servers killed", static_cast<uint64_t>(damage.servers));
    line("centres killed", static_cast<uint64_t>(damage.centres));
    line("engine servers killed", static_cast<uint64_t>(damage.engines));
    line("  of these the leader", static_cast<uint64_t>(damage.leaders));
    line("hosts cut off", static_cast<uint64_t>(damage.cuts));
    line("processes stopped", static_cast<uint64_t>(damage.stops));
    line("changes asked for", s.asked);
    line("  answer unknown", s.unknown);
    line("  refused", s.refused);
    line("  with more than 1 MB", s.large);
    line("changes raised", verdict.changes);
    line("seen in the stream", verdict.seen);
    line("shown by the centres", s.shown);
    line("faults in the end", verdict.faults);
    line("lost", verdict.lost);
    line("doubled", verdict.doubled);
    line("out of order", verdict.order);
    line("nobody asked for", verdict.strange);
    line("attachments left over", s.piecesLeft);
    line("programs that fell or hung", static_cast<uint64_t>(damage.fallen + damage.hung));
    std::printf("%-28s %10.1f\n", "changes a second", static_cast<double>(verdict.changes) / seconds);
    std::printf("%-28s %10.3f\n", "longest delay, seconds", static_cast<double>(s.slowest) / 1e9);
    std::printf("%-28s %10.1f\n", "seconds until all was there", rest);
    std::printf("delays from raise to centre: %s\n", Delays().c_str());
    std::fflush(stdout);
}

// ---- The storm ----

static int Storm(const Settings& settings)
{
    const int64_t begin = Now();
    Hosts hosts;
    std::vector<std::string> names;
    names.reserve(static_cast<size_t>(settings.hosts + Centres));
    for (int i = 0; i < settings.hosts; i++)
        names.push_back(HostName(i));
    for (int i = 0; i < Centres; i++)
        names.push_back("c" + std::to_string(i + 1));
    if (!hosts.Make(names))
        return 1;
    const double made = Seconds(begin);
    Breaker breaker(settings, hosts);
    int code = 1;
    if (breaker.StartEngines()) {
        breaker.StartFleet();
        StartHelpers(settings, hosts, breaker);
        std::printf("started after %.1f s, the hosts after %.1f s\n", Seconds(begin), made);
        std::fflush(stdout);
        const int64_t since = Now();
        while (Seconds(since) < static_cast<double>(settings.seconds) && interrupted == 0) {
            breaker.Turn(settings.isCalm);
            SleepMilliseconds(TickMilliseconds);
        }
        const double seconds = Seconds(since);
        const int64_t end = Now();
        breaker.Restore();
        shared->round++;
        shared->pieceRound++;
        const bool hasEnded = EndDrivers(settings, breaker);
        Settle(settings, breaker);
        const double rest = Seconds(end);
        const Verdict verdict = Judge(settings, true);
        Print(settings, verdict, breaker.Done(), seconds, rest);
        const Damage& damage = breaker.Done();
        const bool isWell = hasEnded && verdict.changes > 0 && shared->shown > 0 && shared->refused == 0 &&
                            verdict.lost + verdict.doubled + verdict.order + verdict.strange == 0 &&
                            damage.fallen + damage.hung == 0;
        code = interrupted == 0 && isWell ? 0 : 1;
    } else {
        std::cerr << "fleetstorm: the engine does not work\n";
    }
    breaker.EndAll();
    return code;
}

static bool ReadOptions(int argc, char** argv, Settings* settings)
{
    static const struct option options[] = {
        {"seconds", required_argument, nullptr, 's'}, {"hosts", required_argument, nullptr, 'h'},
        {"seed", required_argument, nullptr, 'r'},    {"rate", required_argument, nullptr, 'a'},
        {"calm", no_argument, nullptr, 'c'},          {"spare-leaders", no_argument, nullptr, 'p'},
        {"logs", required_argument, nullptr, 'l'},    {nullptr, 0, nullptr, 0}};
    double rate = 0;
    for (int option; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;)
        switch (option) {
        case 's': settings->seconds = std::atol(optarg); break;
        case 'h': settings->hosts = std::atoi(optarg); break;
        case 'r': settings->seed = std::strtoul(optarg, nullptr, 10); break;
        case 'a': rate = std::atof(optarg); break;
        case 'c': settings->isCalm = true; break;
        case 'p': settings->spares = true; break;
        case 'l': settings->directory = optarg; break;
        default: return false;
        }
    settings->rate = rate > 0 ? rate : std::max(20.0, settings->hosts / 2.0);
    return optind == argc && settings->seconds > 0 && settings->hosts > 0 && settings->hosts <= MostHosts && rate >= 0;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, FaultVersion);
    Settings settings;
    settings.seed = static_cast<unsigned long>(Now()) % 1000000;
    if (!ReadOptions(argc, argv, &settings)) {
        std::cerr << Usage;
        return 2;
    }
    if (!testing_support::InSandbox() || EngineProgram().empty()) {
        std::cerr << "fleetstorm: skipped: "
                  << (EngineProgram().empty() ? "nats-server is not installed" : "not in a sandbox") << "\n";
        return 77;
    }
    const testing_support::TemporaryDirectory directory("/dev/shm");
    if (settings.directory.empty())
        settings.directory = directory.Path();
    settings.engine = EngineUrls();
    struct rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max; // a line to each host
    setrlimit(RLIMIT_NOFILE, &limit);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP})
        std::signal(signal, Interrupt);
    std::signal(SIGPIPE, SIG_IGN);
    MakeShared();
    std::printf("seed %lu, %d hosts, %ld seconds, %.0f changes a second\n", settings.seed, settings.hosts,
                settings.seconds, settings.rate);
    std::fflush(stdout);
    return Storm(settings);
}
