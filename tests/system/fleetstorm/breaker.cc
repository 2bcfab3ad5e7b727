// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/fleetstorm/breaker.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sstream>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/testing.h"
#include "tests/system/fleetstorm/engines.h"

using testing_support::Execute;
using testing_support::ProgramUnderTest;
using testing_support::ReadFile;

namespace fleetstorm {

static const double Second = 1e9; // nanoseconds
static const int64_t EndsWithin = 60 * int64_t(Second);
static const uint32_t StepsBeforeKill = 6; // looks at the engine, two a second, that find it whole

Breaker::Breaker(const Settings& settings, Hosts& hosts)
    : settings(settings), hosts(hosts), random(static_cast<unsigned>(settings.seed))
{
    for (int i = 0; i < Engines; i++)
        programs.push_back({Engine, i});
    for (int i = 0; i < settings.hosts; i++) {
        programs.push_back({Daemon, i});
        programs.push_back({Gate, i});
    }
    for (int i = 0; i < Centres; i++)
        programs.push_back({Centre, i});
}

// ---- Programs ----

// Centres stand behind the hosts.
int Breaker::HostOf(const Program& program) const
{
    return program.kind == Centre ? settings.hosts + program.index : program.index;
}

std::string Breaker::Name(const Program& program) const
{
    switch (program.kind) {
    case Daemon: return HostName(program.index) + ".faultd";
    case Gate: return HostName(program.index) + ".faultgate";
    case Centre: return "c" + std::to_string(program.index + 1) + ".faultcentre";
    default: return EngineName(program.index);
    }
}

// What it says goes to the end of its log.
static void RunLogged(const std::string& program, const std::vector<std::string>& arguments, const std::string& log)
{
    const int file = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(file, 1);
    dup2(file, 2);
    close(file);
    Execute(program, arguments);
}

void Breaker::Start(Program& program)
{
    const std::string log = settings.directory + "/" + Name(program) + ".log";
    program.starts = 0;
    program.mustEnd = 0;
    program.wasKilled = false;
    if (program.kind == Engine) {
        const std::string file = ConfigureEngine(settings, program.index);
        const pid_t self = getpid();
        program.process = fork();
        if (program.process == 0) {
            EndWithParent(self);
            RunLogged(EngineProgram(), {"-c", file}, log);
        }
        return;
    }
    program.process = hosts.Start(HostOf(program), [&] {
        switch (program.kind) {
        case Daemon: RunLogged(ProgramUnderTest(FAULTD), {"--foreground", "--journal"}, log); break;
        case Gate:
            RunLogged(ProgramUnderTest(FAULTGATE), {"--engine", settings.engine, "--interval", "250"}, log);
            break;
        default:
            RunLogged(ProgramUnderTest(FAULTCENTRE),
                      {"--engine", settings.engine, "--foreground", "--keep-cleared", "60"}, log);
        }
    });
}

bool Breaker::StartEngines()
{
    for (Program& program : programs)
        if (program.kind == Engine)
            Start(program);
    return testing_support::WaitUntil(
        [&] {
            return testing_support::RunProgram(ProgramUnderTest(FAULTFLEET),
                                               {"--engine", settings.engine, "setup", "--replicas", "3"})
                       .exitCode == 0;
        },
        90);
}

void Breaker::StartFleet()
{
    for (Program& program : programs)
        if (program.kind != Engine)
            Start(program);
}

// ---- Damage ----

int64_t Breaker::After(double seconds)
{
    return Now() + static_cast<int64_t>(seconds * Second * (0.25 + 1.5 * Random(1000) / 1000));
}

// Whether it is time for something that happens every so many seconds on the average.
bool Breaker::IsDue(int64_t* next, double seconds)
{
    const bool isFirst = *next == 0;
    if (!isFirst && Now() < *next)
        return false;
    *next = After(seconds);
    return !isFirst;
}

// One that runs and is not about to end, if there is any.
Breaker::Program& Breaker::Any(Kind kind)
{
    std::vector<Program*> all;
    for (Program& program : programs)
        if (program.kind == kind && program.process > 0 && program.mustEnd == 0)
            all.push_back(&program);
    static Program none = {Kinds, 0};
    return all.empty() ? none : *all[Random(static_cast<uint32_t>(all.size()))];
}

void Breaker::Kill(Program& program, double least, double most)
{
    kill(program.process, SIGKILL);
    program.wasKilled = true;
    program.starts = Now() + static_cast<int64_t>(Second * (least + (most - least) * Random(1000) / 1000));
}

// The process that a gate or a centre has beside it; 0: it has none.
static pid_t ChildOf(pid_t process)
{
    const std::string id = std::to_string(process);
    std::istringstream children(ReadFile("/proc/" + id + "/task/" + id + "/children"));
    pid_t child = 0;
    children >> child;
    return child;
}

// Kills the second process, whereupon the first must end.
bool Breaker::KillChild(Program& program)
{
    const pid_t child = ChildOf(program.process);
    if (child <= 0)
        return false;
    kill(child, SIGKILL);
    program.wasKilled = true;
    program.mustEnd = Now() + EndsWithin;
    return true;
}

void Breaker::KillGate()
{
    Program& gate = Any(Gate);
    if (gate.process == 0)
        return;
    if (Random(3) == 0) {
        damage.responders += KillChild(gate);
    } else {
        Kill(gate, 0.1, 3);
        damage.gates++;
    }
}

void Breaker::KillCentre()
{
    Program& centre = Any(Centre);
    if (centre.process == 0)
        return;
    const uint32_t which = Random(3);
    if (which == 0) {
        damage.appliers += KillChild(centre);
        return;
    }
    const pid_t applier = ChildOf(centre.process);
    if (which == 1 && applier > 0) {
        kill(applier, SIGKILL);
        damage.centres++;
    } else {
        damage.servers++;
    }
    Kill(centre, 0.1, 5);
}

// Two of three that are away are no engine, so the next goes when all are in step.
void Breaker::KillEngine()
{
    const int leader = shared->leader;
    if (shared->looksInStep < StepsBeforeKill || leader < 0)
        return;
    const uint32_t spared = settings.spares ? shared->leaders.load() : 0;
    Program* server = &Any(Engine);
    for (int tries = 0; tries < 20 && (spared >> server->index & 1) != 0; tries++)
        server = &Any(Engine);
    if ((spared >> server->index & 1) != 0)
        return;
    if (!settings.spares && Random(2) == 0)
        server = &*std::find_if(programs.begin(), programs.end(), [&](const Program& program) {
            return program.kind == Engine && program.index == leader;
        });
    if (server->process == 0)
        return;
    shared->looksInStep = 0;
    damage.engines++;
    damage.leaders += server->index == leader;
    Kill(*server, 0.1, 4);
}

void Breaker::StopSomebody()
{
    Program& program = Any(static_cast<Kind>(Random(Kinds)));
    if (program.process == 0 || program.wasKilled || (program.kind == Engine && shared->looksInStep < StepsBeforeKill))
        return;
    if (program.kind == Engine && settings.spares && (shared->leaders >> program.index & 1) != 0)
        return;
    if (program.kind == Engine)
        shared->looksInStep = 0;
    pid_t process = program.process;
    if ((program.kind == Gate || program.kind == Centre) && Random(2) == 0 && ChildOf(process) > 0)
        process = ChildOf(process);
    kill(process, SIGSTOP);
    damage.stops++;
    stops.push_back({process, Now() + static_cast<int64_t>(Second * (0.2 + Random(3000) / 1000.0))});
}

void Breaker::CutSomebody()
{
    const int host = static_cast<int>(Random(static_cast<uint32_t>(settings.hosts + Centres)));
    for (const Cut& cut : cuts)
        if (cut.host == host)
            return;
    hosts.SetLink(host, false);
    damage.cuts++;
    cuts.push_back({host, Now() + static_cast<int64_t>(Second * (0.5 + Random(8000) / 1000.0))});
}

void Breaker::GoOn(int64_t now)
{
    for (size_t i = stops.size(); i-- > 0;)
        if (stops[i].ends <= now) {
            kill(stops[i].process, SIGCONT);
            stops.erase(stops.begin() + static_cast<long>(i));
        }
    for (size_t i = cuts.size(); i-- > 0;)
        if (cuts[i].ends <= now) {
            hosts.SetLink(cuts[i].host, true);
            cuts.erase(cuts.begin() + static_cast<long>(i));
        }
}

// ---- Ends ----

void Breaker::Collect()
{
    int status = 0;
    for (pid_t ended; (ended = waitpid(-1, &status, WNOHANG)) > 0;) {
        stops.erase(std::remove_if(stops.begin(), stops.end(), [&](const Stop& stop) { return stop.process == ended; }),
                    stops.end());
        const auto helper = std::find(helpers.begin(), helpers.end(), ended);
        if (helper != helpers.end()) {
            helpers.erase(helper);
            if (status != 0) {
                Note("a helper ended with status 0x%x", static_cast<unsigned>(status));
                damage.fallen++;
            }
            continue;
        }
        const auto at = std::find_if(programs.begin(), programs.end(),
                                     [&](const Program& program) { return program.process == ended; });
        if (at == programs.end())
            continue;
        at->process = 0;
        if (!at->wasKilled) {
            Note("%s ended by itself, status 0x%x", Name(*at).c_str(), static_cast<unsigned>(status));
            damage.fallen++;
        }
        if (at->starts == 0)
            at->starts = After(1);
    }
}

void Breaker::StartEnded(int64_t now)
{
    for (Program& program : programs) {
        if (program.process == 0 && program.starts <= now)
            Start(program);
        if (program.mustEnd != 0 && program.mustEnd <= now) {
            Note("%s has not ended, though its other process has", Name(program).c_str());
            damage.hung++;
            Kill(program, 0, 0);
            program.mustEnd = 0;
        }
    }
}

void Breaker::Turn(bool isCalm)
{
    const double fewHosts = std::max(1.0, 30.0 / settings.hosts); // few are not hit as often
    if (!isCalm) {
        if (IsDue(&nextGate, 0.7 * fewHosts))
            KillGate();
        if (IsDue(&nextDaemon, 0.8 * fewHosts) && Any(Daemon).process != 0) {
            Kill(Any(Daemon), 0.1, 3);
            damage.daemons++;
        }
        if (IsDue(&nextCentre, 5))
            KillCentre();
        if (IsDue(&nextEngine, 2))
            KillEngine();
        if (IsDue(&nextCut, 0.9 * fewHosts))
            CutSomebody();
        if (IsDue(&nextStop, 1))
            StopSomebody();
    }
    const int64_t now = Now();
    GoOn(now);
    Collect();
    StartEnded(now);
}

void Breaker::Restore()
{
    GoOn(INT64_MAX);
    Collect();
    StartEnded(INT64_MAX);
}

void Breaker::EndAll()
{
    for (Program& program : programs)
        if (program.process > 0) {
            const pid_t child = program.kind == Engine || program.kind == Daemon ? 0 : ChildOf(program.process);
            kill(program.process, SIGKILL);
            if (child > 0)
                kill(child, SIGKILL);
        }
    for (Program& program : programs)
        if (program.process > 0) {
            waitpid(program.process, nullptr, 0);
            program.process = 0;
        }
    for (const pid_t helper : helpers) {
        kill(helper, SIGKILL);
        waitpid(helper, nullptr, 0);
    }
    helpers.clear();
    while (waitpid(-1, nullptr, WNOHANG) > 0) // the second processes, which this one has inherited
        continue;
}

} // namespace fleetstorm
