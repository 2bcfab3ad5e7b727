// SPDX-License-Identifier: BSD-2-Clause
// Starts the processes of a storm, kills and stops them, and counts what is left in the end.
#ifndef TESTS_SYSTEM_STORM_CONTROLLER_H
#define TESTS_SYSTEM_STORM_CONTROLLER_H

#include <functional>
#include <random>
#include <string>

#include <sys/types.h>

#include "tests/system/storm/shared.h"

namespace storm {

/// A mode. Times are the mean milliseconds between two such events; 0: never.
struct Mode {
    const char* name;
    long clientKills;
    long serverKills;
    long stops;
    bool inCollision; // the server's id is in the middle between the ids of each two clients
    Orders orders;
    // what three minutes must bring at least
    uint64_t leastAnswers;
    uint64_t leastClientKills;
    uint64_t leastServerKills;
};

struct Settings {
    int clients = 16;
    long seconds = 180;
    unsigned long seed = 0;
    long haste = 1;                   // divides the times between two kills or stops
    unsigned long queueBytes = 16384; // the limit of a new queue
};

/// What the controller itself counts.
struct Losses {
    uint64_t clientKills = 0;
    uint64_t serverKills = 0;
    uint64_t stops = 0;
    uint64_t left = 0; // kernel objects and processes
};

class Controller {
public:
    Controller(const Mode& modeToRun, const Settings& given);
    Losses Run();

private:
    /// The time of the next event of a kind, about `mean` milliseconds from now.
    int64_t After(long mean);
    long Random(long most) { return std::uniform_int_distribution<long>(0, most)(random); }
    /// Forks a child; with an `id` above 0 it gets that process id.
    pid_t Start(pid_t id, const std::function<void()>& body);
    void StartServer();
    void StartClient(int place);
    void StartRelay();
    /// Kills a process and waits for it, for some time of which it is a zombie.
    void Kill(pid_t pid);
    void KillClient();
    void KillServer();
    void StopSomebody();
    void GoOn();
    void LookForTheFallen();
    void EndClients();
    void EndServer();
    void EndRelay();
    /// Waits for a child; false after that time.
    bool Ends(pid_t pid, long milliseconds, int* status);
    void CountWhatIsLeft();

    const Mode& mode;
    const Settings& settings;
    Losses losses;
    std::mt19937_64 random;
    pid_t server = 0;
    pid_t relay = 0;
    pid_t clients[MostClients] = {};
    int lastDistance = 0; // in collision: of a client's id from the server's
    uint32_t lastIdentity = 0;
    pid_t stopped = 0;
    int64_t nextClientKill = 0;
    int64_t nextServerKill = 0;
    int64_t nextStop = 0;
    int64_t goesOn = 0;
};

} // namespace storm

#endif
