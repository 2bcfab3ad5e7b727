// SPDX-License-Identifier: BSD-2-Clause
// What the operator of the engine does for the fleet: makes what the other programs find there.
#include <cstring>
#include <iostream>
#include <string>

#include "bucket.h"
#include "examples/commandline.h"
#include "options.h"

using namespace fleet;

static const char Usage[] =
    "usage: faultfleet [--engine URL[,URL...]] [--credentials DIRECTORY] setup [--replicas NUMBER] [--bytes NUMBER]\n"
    "                  [--lease SECONDS]\n"
    "Makes the stream that takes the changes of all hosts, and the buckets with their faults, or gives them other\n"
    "settings.\n" FLEET_ENGINE_USAGE
    "  --replicas NUMBER         servers that have a copy, 1 (the default), 3 or 5, of which none, one or two may "
    "fail\n"
    "  --bytes NUMBER            what the stream may take of their disks (default: no limit); a full one refuses\n"
    "                            changes, which then wait on their hosts\n"
    "  --lease SECONDS           after which another centre goes on in the place of one that is silent (default 10)\n"
    "Exit codes: 0 done; 1 failed; 2 wrong usage.\n";

struct Settings {
    EngineAddress engine;
    StreamSettings stream;
    BucketSettings buckets;
};

static bool ReadOption(const char* option, const char* value, Settings* settings)
{
    if (std::strcmp(option, "--replicas") == 0)
        return ReadCount(value, &settings->stream.replicas);
    if (std::strcmp(option, "--bytes") == 0)
        return ReadCount(value, &settings->stream.bytes);
    if (std::strcmp(option, "--lease") == 0)
        return ReadCount(value, &settings->buckets.lease);
    return ReadEngineOption(option, value, &settings->engine);
}

// False when the command line is wrong.
static bool ReadWords(int argc, char** argv, Settings* settings)
{
    bool hasCommand = false;
    return ReadCommandLine(
               argc, argv, [&](const char* word) { return !hasCommand && TakesFlag(word, "setup", &hasCommand); },
               [&](const char* option, const char* value) { return ReadOption(option, value, settings); }) &&
           hasCommand;
}

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        std::cout << Usage;
        return 0;
    }
    Settings settings;
    if (!ReadWords(argc, argv, &settings)) {
        std::cerr << Usage;
        return 2;
    }
    HoldBrokenPipes();
    settings.engine.name = "faultfleet";
    settings.buckets.replicas = settings.stream.replicas;
    Engine engine(settings.engine);
    if (engine.Connect() && engine.SetUp(settings.stream) == Outcome::Done &&
        SetUpBuckets(engine, settings.buckets) == Outcome::Done)
        return 0;
    std::cerr << "faultfleet: " << engine.Problem() << std::endl;
    return 1;
}
