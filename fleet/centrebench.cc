// SPDX-License-Identifier: BSD-2-Clause
// Measures the centre: fills the bucket, and applies changes. The engine runs and was set up.
#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include "Misc/Dates.h"
#include "Misc/ipcq.h"
#include "Misc/proginfo.h"

#include "applier.h"
#include "benchline.h"
#include "message.h"

using namespace fleet;

static const char Usage[] =
    "usage: centrebench [--engine URL[,URL...]] fill FAULTS HOSTS    puts so many faults into the bucket\n"
    "       centrebench [--engine URL[,URL...]] apply CHANGES HOSTS CHANGES-A-MESSAGE\n"
    "                                                                stores changes, then applies them\n"
    "       centrebench latency RAISES                               from a raise here to its place in the list\n";

typedef std::chrono::steady_clock Clock;

static double Since(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

static int Fail(const std::string& what)
{
    std::cerr << "centrebench: " << what << std::endl;
    return 1;
}

static FaultSummary Fault(long number)
{
    FaultSummary fault;
    fault.hdr.myId = FaultId(number, "array.example");
    fault.raised = Dates::CurrentTime();
    fault.state = FirstFaultState;
    fault.text = ("disk " + std::to_string(number) + ": read error at sector 123456789").c_str();
    return fault;
}

static int Fill(Engine& engine, long faults, long hosts)
{
    BulkWriter writer(engine);
    std::vector<std::string> values;
    std::vector<Write> writes;
    const Clock::time_point begin = Clock::now();
    for (long i = 0; i < faults; i++) {
        const std::string node = "host" + std::to_string(i % hosts);
        const FleetFault fault = {{1, static_cast<uint64_t>(i + 1), 1},
                                  "journal-1-1",
                                  i + 1,
                                  {node.c_str(), FaultChange::Raised, Dates::CurrentTime(), Fault(i)}};
        Buffer data;
        Pack(fault, data);
        values.emplace_back(static_cast<const char*>(static_cast<const void*>(data)), data.Size());
        writes.emplace_back();
        writes.back().subject =
            KeySubject(FaultBucket, FaultKey(node, static_cast<const char*>(fault.last.fault.hdr.myId)));
        if (values.size() < 4000 && i + 1 < faults)
            continue;
        for (std::size_t n = 0; n < values.size(); n++) {
            writes[n].bytes = values[n].data();
            writes[n].size = values[n].size();
        }
        if (writer.Store(writes) != Outcome::Done)
            return Fail(engine.Problem());
        values.clear();
        writes.clear();
    }
    std::cout << faults << " values stored in " << Since(begin) << " s" << std::endl;
    return 0;
}

static int Apply(Engine& engine, long changes, long hosts, long perMessage)
{
    std::vector<Position> positions(static_cast<std::size_t>(hosts));
    long messages = 0;
    for (long done = 0; done < changes; messages++) {
        const long host = messages % hosts;
        Position& position = positions[static_cast<std::size_t>(host)];
        const std::string node = "bench" + std::to_string(host);
        if (position.journal.empty()) {
            Buffer stored;
            engine.Last(node, &position, &stored);
            position.journal = "journal";
        }
        Buffer data;
        for (long i = 0; i < perMessage; i++, done++) {
            FaultChange change;
            change.number = ++position.number;
            change.time = Dates::CurrentTime();
            change.kind = FaultChange::Raised;
            change.fault.summary.hdr.myId = FaultId(change.number % 1000, "array.example");
            change.fault.summary.state = FirstFaultState;
            change.fault.summary.text = "disk 3: read error at sector 123456789";
            PackChange(change, data);
        }
        if (engine.Publish(node, data, &position) != Outcome::Done)
            return Fail(engine.Problem());
    }
    Applier applier(engine, "centrebench", 3600);
    Clock::time_point begin;
    for (bool hasBegun = false;;) {
        const Clock::time_point now = Clock::now();
        const Applier::Step step = applier.Run(1);
        if (step == Applier::Stuck)
            return Fail(applier.Problem());
        if ((step == Applier::Applied || step == Applier::Looked) && !hasBegun) {
            begin = now;
            hasBegun = true;
        }
        if (step == Applier::Idle && hasBegun)
            break;
        if (step == Applier::Idle)
            usleep(10000);
    }
    applier.Release();
    const double seconds = Since(begin);
    std::cout << changes << " changes in " << messages << " messages of " << hosts << " hosts applied in " << seconds
              << " s: " << static_cast<double>(changes) / seconds << " a second" << std::endl;
    return 0;
}

static int Latency(long raises)
{
    IPCQClient daemon(0, FaultServerName), centre(0, CentreServerName);
    std::vector<double> times;
    for (long i = 0; i < raises; i++) {
        FaultRecord fault;
        fault.summary.hdr.myId = FaultId(i % 100, "latency");
        fault.summary.text = ("raise " + std::to_string(i)).c_str();
        Buffer data, answer;
        Pack(fault, data);
        short event = 0;
        const Clock::time_point begin = Clock::now();
        daemon.send_event_with_response(RaiseEvent, data, static_cast<long>(data.Size()));
        if (daemon.receive_response(event, answer) != 0)
            return Fail("the daemon refuses");
        CentreListRequest request;
        Buffer question;
        Pack(request, question);
        for (bool isThere = false; !isThere;) {
            centre.send_event_with_response(CentreListEvent, question, static_cast<long>(question.Size()));
            if (centre.receive_response(event, answer) != 0)
                return Fail("the centre refuses");
            const std::string text(static_cast<const char*>(static_cast<const void*>(answer)), answer.Size());
            isThere = text.find(std::string(fault.summary.text) + "|") != std::string::npos ||
                      text.find(std::string(fault.summary.text)) != std::string::npos;
            if (!isThere)
                usleep(1000);
        }
        times.push_back(Since(begin));
        usleep(static_cast<useconds_t>(i * 7919 % 50000)); // at any time of the gate's interval
    }
    std::sort(times.begin(), times.end());
    std::cout << raises << " raises: median " << times[times.size() / 2] * 1000 << " ms, 99th percentile "
              << times[times.size() * 99 / 100] * 1000 << " ms" << std::endl;
    return 0;
}

int main(int argc, char** argv, char** envp)
{
    ProgInfo::Initialize(argc, argv, envp, FaultVersion);
    BenchLine line;
    if (!ReadBenchLine(argc, argv, &line))
        return Fail(Usage);
    const std::vector<long>& numbers = line.numbers;
    if (line.Is("latency", 1))
        return Latency(numbers[0]);
    Engine engine(line.engine);
    if (!engine.Connect())
        return Fail(engine.Problem());
    if (line.Is("fill", 2))
        return Fill(engine, numbers[0], numbers[1]);
    if (line.Is("apply", 3))
        return Apply(engine, numbers[0], numbers[1], numbers[2]);
    return Fail(Usage);
}
