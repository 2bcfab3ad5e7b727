// SPDX-License-Identifier: BSD-2-Clause
// A server and its clients under load, while they are killed, stopped and succeeded. See Usage.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include <getopt.h>
#include <unistd.h>

#include "Misc/proginfo.h"
#include "tests/support/testing.h"
#include "tests/system/storm/controller.h"

using namespace storm;

static const char Usage[] =
    "usage: storm [--seconds N] [--clients N] [--seed N] [--haste N] [--full] [--log FILE] MODE[:QUEUEBYTES]...\n"
    "Runs each mode for N seconds (180) and prints a line about it. Needs scripts/sandbox.\n"
    "  a        calm\n"
    "  b        clients are killed\n"
    "  c        the server is killed and succeeded\n"
    "  d        both, and somebody is stopped for a second now and then\n"
    "  e        the ids of the processes collide, events of several blocks only\n"
    "  e-kills  the same, and clients are killed\n"
    "  f        over TCP through the relay; clients are killed, and the server now and then\n"
    "  --clients N  that many clients (16), an even number\n"
    "  --seed N     chooses whom it hits and when\n"
    "  --haste N    hits N times as often (1)\n"
    "  --full       asks for the numbers that three minutes must bring\n"
    "  --log FILE   where the reports of the processes go (nowhere)\n"
    "Exit codes: 0 all is well, 1 something is not, 2 wrong usage, 77 not in a sandbox.\n";

static const Mode Modes[] = {
    {"a", 0, 0, 0, false, {false, false, 1}, 50000, 0, 0},
    {"b", 300, 0, 0, false, {false, false, 1}, 1, 300, 0},
    {"c", 0, 800, 0, false, {false, false, 1}, 1, 0, 100},
    {"d", 400, 1500, 4000, false, {false, false, 3}, 1, 100, 50}, // a stop must not outlast the patience of the server
    {"e", 0, 0, 0, true, {false, true, 1}, 1, 0, 0},
    {"e-kills", 600, 0, 0, true, {false, true, 1}, 1, 100, 0},
    {"f", 400, 5000, 0, false, {true, false, 1}, 1, 100, 10},
};

static const char QueueLimit[] = "/proc/sys/kernel/msgmnb"; // of new queues
static const int64_t MostNanoseconds = 2000000000;          // for an answer

static const Mode* FindMode(const std::string& name)
{
    for (const Mode& mode : Modes)
        if (name == mode.name)
            return &mode;
    return nullptr;
}

// Runs a mode and prints its line. Whether all is well.
static bool RunMode(const Mode& mode, const Settings& settings, bool isFull)
{
    ResetShared();
    const Losses losses = Controller(mode, settings).Run();
    const Shared& s = *shared;
    std::printf("%-8s %7lu %5ld %8lu %8lu %8lu %6lu %6lu %8lu %8lu %8lu %9.3f %5lu\n", mode.name,
                (unsigned long)s.queueBytes, settings.seconds, (unsigned long)s.answers,
                (unsigned long)losses.clientKills, (unsigned long)losses.serverKills, (unsigned long)losses.stops,
                (unsigned long)s.lost, (unsigned long)s.doubled, (unsigned long)s.damaged, (unsigned long)s.misordered,
                double(s.slowest) / 1e9, (unsigned long)losses.left);
    std::fflush(stdout);
    if (s.failedStarts > 0)
        std::fprintf(stderr, "storm: %lu times a server did not get its queue at once\n",
                     (unsigned long)s.failedStarts);
    const bool isEnough = isFull ? s.answers >= mode.leastAnswers && losses.clientKills >= mode.leastClientKills &&
                                       losses.serverKills >= mode.leastServerKills
                                 : s.answers > 0 && (mode.clientKills == 0 || losses.clientKills > 0) &&
                                       (mode.serverKills == 0 || losses.serverKills > 0) &&
                                       (mode.stops == 0 || losses.stops > 0);
    if (!isEnough)
        std::fprintf(stderr, "storm: mode %s: too few answers, kills or stops\n", mode.name);
    return isEnough && s.lost + s.doubled + s.damaged + s.misordered + losses.left == 0 && s.slowest <= MostNanoseconds;
}

static int WrongUsage()
{
    std::cerr << Usage;
    return 2;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, "1.0");
    Settings settings;
    settings.seed = static_cast<unsigned long>(Now());
    bool isFull = false;
    const char* log = "/dev/null";
    static const struct option options[] = {{"seconds", required_argument, nullptr, 's'},
                                            {"clients", required_argument, nullptr, 'c'},
                                            {"seed", required_argument, nullptr, 'r'},
                                            {"haste", required_argument, nullptr, 'h'},
                                            {"full", no_argument, nullptr, 'f'},
                                            {"log", required_argument, nullptr, 'l'},
                                            {nullptr, 0, nullptr, 0}};
    for (int option; (option = getopt_long(argc, argv, "", options, nullptr)) != -1;)
        switch (option) {
        case 's': settings.seconds = std::atol(optarg); break;
        case 'c': settings.clients = std::atoi(optarg); break;
        case 'r': settings.seed = std::strtoul(optarg, nullptr, 10); break;
        case 'h': settings.haste = std::atol(optarg); break;
        case 'f': isFull = true; break;
        case 'l': log = optarg; break;
        default: return WrongUsage();
        }
    if (optind == argc || settings.seconds <= 0 || settings.haste <= 0 || settings.clients <= 0 ||
        settings.clients > MostClients || settings.clients % 2 != 0)
        return WrongUsage();
    if (!testing_support::InSandbox()) {
        std::cerr << "storm: not in a sandbox\n";
        return 77;
    }
    std::ofstream("/etc/services", std::ios::app) << "\n" << ServerName << " 4711/tcp\n";
    std::ofstream("/etc/hosts", std::ios::app)
        << "\n127.0.0.2 " << FarHost << "\n127.0.0.1 " << ProgInfo::GetNodeName() << "\n";
    MakeShared();
    SendReportsTo(log);
    std::printf("seed %lu, %d clients\n%-8s %7s %5s %8s %8s %8s %6s %6s %8s %8s %8s %9s %5s\n", settings.seed,
                settings.clients, "mode", "queue", "secs", "answers", "killed", "servers", "stops", "lost", "doubled",
                "damaged", "order", "slowest", "left");
    std::fflush(stdout);
    bool isWell = true;
    for (int i = optind; i < argc; i++) {
        const std::string argument = argv[i];
        const size_t colon = argument.find(':');
        const Mode* mode = FindMode(argument.substr(0, colon));
        if (mode == nullptr)
            return WrongUsage();
        settings.queueBytes =
            colon == std::string::npos ? 16384 : std::strtoul(argument.c_str() + colon + 1, nullptr, 10);
        testing_support::WriteFile(QueueLimit, std::to_string(settings.queueBytes));
        if (std::strtoul(testing_support::ReadFile(QueueLimit).c_str(), nullptr, 10) != settings.queueBytes) {
            std::printf("%-8s %7lu: not allowed here\n", mode->name, settings.queueBytes);
            continue;
        }
        isWell &= RunMode(*mode, settings, isFull);
    }
    return isWell ? 0 : 1;
}
