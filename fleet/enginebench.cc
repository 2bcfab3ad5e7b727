// SPDX-License-Identifier: BSD-2-Clause
// Measures the engine, which runs and was set up, as the gates of many hosts load it.
#include <atomic>
#include <chrono>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/proginfo.h"

#include "benchline.h"
#include "message.h"

using namespace fleet;

static const char Usage[] =
    "usage: enginebench [--engine URL[,URL...]] publish SECONDS HOSTS CHANGES-A-MESSAGE\n"
    "           stores changes, each host's messages one after the other; then, as the floor, the same bytes in a "
    "stream\n"
    "           as a plain client stores them, without the condition on the last message\n"
    "       enginebench [--engine URL[,URL...]] connect HOSTS\n"
    "           opens the connections of so many gates, and keeps them until its standard input ends\n";

typedef std::chrono::steady_clock Clock;

static int Fail(const std::string& what)
{
    std::cerr << "enginebench: " << what << std::endl;
    return 1;
}

static Buffer Changes(const std::string& node, long first, long count)
{
    Buffer packed;
    for (long number = first; number < first + count; number++) {
        FaultChange change;
        change.number = number;
        change.time = Dates::CurrentTime();
        change.kind = FaultChange::Raised;
        change.fault.summary.hdr.myId = FaultId(number % 1000, node.c_str());
        change.fault.summary.state = FirstFaultState;
        change.fault.summary.text = "disk 3: read error at sector 123456789";
        PackChange(change, packed);
    }
    return packed;
}

// What the processes share that load the engine, one for each host.
struct Load {
    std::atomic<bool> ends{false};
    std::atomic<long> messages{0};
};

static bool StorePlainly(Engine& engine, const std::string& node, const Buffer& changes)
{
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status =
        js_Publish(nullptr, engine.Streams(), ChangeSubject(node).c_str(), static_cast<const void*>(changes),
                   static_cast<int>(changes.Size()), nullptr, &code);
    return engine.Note("a plain message", status, code) == Outcome::Done;
}

// Stores the changes of a host until it is told to end. The exit code of its process.
static int StoreChanges(const EngineAddress& address, Load& load, const std::string& node, long perMessage,
                        bool isFloor)
{
    Engine engine(address);
    Position position;
    Buffer stored;
    if (!engine.Connect())
        return Fail(engine.Problem());
    if (engine.Last(node, &position, &stored) == Outcome::Nothing)
        position.journal = "journal";
    const Buffer changes = Changes(node, 1, perMessage); // nobody reads them
    while (!load.ends) {
        position.number += perMessage;
        if (isFloor ? !StorePlainly(engine, node, changes) : engine.Publish(node, changes, &position) != Outcome::Done)
            return Fail(engine.Problem());
        load.messages++;
    }
    return 0;
}

// Messages a second, or 0 when it failed.
static double Measure(const EngineAddress& address, long seconds, long hosts, long perMessage, bool isFloor)
{
    void* shared = mmap(nullptr, sizeof(Load), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        return 0;
    Load& load = *new (shared) Load;
    for (long host = 0; host < hosts; host++)
        if (fork() == 0)
            _exit(
                StoreChanges(address, load, (isFloor ? "floor" : "bench") + std::to_string(host), perMessage, isFloor));
    sleep(1); // until all are connected
    const long before = load.messages;
    const Clock::time_point begin = Clock::now();
    sleep(static_cast<unsigned>(seconds));
    const double messages = static_cast<double>(load.messages - before);
    const double duration = std::chrono::duration<double>(Clock::now() - begin).count();
    load.ends = true;
    bool works = true;
    for (int status = 0; wait(&status) > 0;)
        works = works && status == 0;
    munmap(shared, sizeof(Load));
    return works ? messages / duration : 0;
}

static int Publish(const EngineAddress& address, long seconds, long hosts, long perMessage)
{
    const double messages = Measure(address, seconds, hosts, perMessage, false);
    const double floor = Measure(address, seconds, hosts, perMessage, true);
    if (messages == 0 || floor == 0)
        return 1;
    std::cout << hosts << " hosts, " << perMessage << " changes a message: " << static_cast<long>(messages)
              << " messages, " << static_cast<long>(messages * static_cast<double>(perMessage))
              << " changes a second; plain messages " << static_cast<long>(floor) << " a second" << std::endl;
    return 0;
}

static void IgnoreRequest(natsConnection*, natsSubscription*, natsMsg* message, void*) { natsMsg_Destroy(message); }

// A gate has two: for its changes and for requests.
static int Connect(const EngineAddress& address, long hosts)
{
    std::vector<std::unique_ptr<Engine>> engines;
    std::vector<natsSubscription*> requests;
    for (long host = 0; host < 2 * hosts; host++) {
        engines.push_back(std::make_unique<Engine>(address));
        Engine& engine = *engines.back();
        if (!engine.Connect())
            return Fail(engine.Problem());
        if (host % 2 == 0)
            continue;
        requests.push_back(nullptr);
        const natsStatus status =
            natsConnection_Subscribe(&requests.back(), engine.Connection(),
                                     RequestSubject("bench" + std::to_string(host)).c_str(), IgnoreRequest, nullptr);
        if (engine.Note("requests", status) != Outcome::Done)
            return Fail(engine.Problem());
    }
    std::cout << engines.size() << " connections" << std::endl;
    std::string line;
    while (std::getline(std::cin, line))
        ;
    for (natsSubscription* each : requests)
        natsSubscription_Destroy(each);
    return 0;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, FaultVersion);
    BenchLine line;
    if (!ReadBenchLine(argc, argv, &line))
        return Fail(Usage);
    line.engine.name = "enginebench";
    const std::vector<long>& numbers = line.numbers;
    if (line.Is("publish", 3))
        return Publish(line.engine, numbers[0], numbers[1], numbers[2]);
    if (line.Is("connect", 1))
        return Connect(line.engine, numbers[0]);
    return Fail(Usage);
}
