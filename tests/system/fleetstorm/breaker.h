// SPDX-License-Identifier: BSD-2-Clause
// What runs the programs of a fleet, and kills, stops and cuts them off at random.
#ifndef TESTS_SYSTEM_FLEETSTORM_BREAKER_H
#define TESTS_SYSTEM_FLEETSTORM_BREAKER_H

#include <random>
#include <string>
#include <vector>

#include <sys/types.h>

#include "tests/system/fleetstorm/hosts.h"
#include "tests/system/fleetstorm/shared.h"

namespace fleetstorm {

/// How often each happened.
struct Damage {
    long gates = 0, responders = 0, daemons = 0;
    long appliers = 0, servers = 0, centres = 0; // the last: both processes of one
    long engines = 0, leaders = 0;               // servers of the engine; those of them that led the stream
    long cuts = 0, stops = 0;
    long fallen = 0; // programs that ended by themselves
    long hung = 0;   // that did not end when their other process had
};

class Breaker {
public:
    Breaker(const Settings& settings, Hosts& hosts);

    /// Starts the servers of the engine and waits until it can be used. False when it cannot.
    bool StartEngines();
    /// Starts daemons, gates and centres.
    void StartFleet();
    /// What is to be done now: begins what is due, unless `isCalm`, and starts again what has ended.
    void Turn(bool isCalm);
    /// Nobody is stopped or cut off any more, and everything that ended is started at once.
    void Restore();
    /// Takes a child that runs beside the programs, and ends by itself or with them.
    void Adopt(pid_t helper) { helpers.push_back(helper); }
    /// Kills everything.
    void EndAll();
    const Damage& Done() const { return damage; }

private:
    enum Kind { Daemon, Gate, Centre, Engine, Kinds };
    struct Program {
        Kind kind;
        int index; // of the host, the centre or the server
        pid_t process = 0;
        int64_t starts = 0;  // when it is to be started; 0: it runs
        int64_t mustEnd = 0; // when a process whose other one was killed must have ended; 0: nobody killed that
        bool wasKilled = false;
    };
    struct Stop {
        pid_t process;
        int64_t ends;
    };
    struct Cut {
        int host;
        int64_t ends;
    };

    uint32_t Random(uint32_t number) { return static_cast<uint32_t>(random() % number); }
    int64_t After(double seconds);
    bool IsDue(int64_t* next, double seconds);
    Program& Any(Kind kind);
    int HostOf(const Program& program) const;
    std::string Name(const Program& program) const;
    void Start(Program& program);
    void Kill(Program& program, double least, double most);
    bool KillChild(Program& program);
    void KillGate();
    void KillCentre();
    void KillEngine();
    void StopSomebody();
    void CutSomebody();
    void GoOn(int64_t now);
    void Collect();
    void StartEnded(int64_t now);

    const Settings& settings;
    Hosts& hosts;
    std::mt19937 random;
    Damage damage;
    std::vector<Program> programs;
    std::vector<pid_t> helpers;
    std::vector<Stop> stops;
    std::vector<Cut> cuts;
    int64_t nextGate = 0, nextDaemon = 0, nextCentre = 0, nextEngine = 0, nextCut = 0, nextStop = 0;
};

} // namespace fleetstorm

#endif
