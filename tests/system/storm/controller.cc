// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/storm/controller.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/testing.h"

using testing_support::ReadFile;
using testing_support::WriteFile;

namespace storm {

static const int64_t Millisecond = 1000000;
static const long TickMilliseconds = 5;
static const pid_t MiddleID = 12000;             // of the server, when ids collide
static const uint32_t LargeRequest = 100 * 1024; // one that is likely to be under way when its client is killed

Controller::Controller(const Mode& modeToRun, const Settings& given)
    : mode(modeToRun), settings(given), random(given.seed)
{
}

int64_t Controller::After(long mean)
{
    const long hastened = mean / settings.haste;
    return mean == 0 ? INT64_MAX : Now() + (hastened / 4 + Random(hastened * 3 / 2)) * Millisecond;
}

// ---- Starting ----

pid_t Controller::Start(pid_t id, const std::function<void()>& body)
{
    if (id > 0)
        WriteFile("/proc/sys/kernel/ns_last_pid", std::to_string(id - 1));
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        _exit(0);
    }
    if (pid < 0 || (id > 0 && pid != id)) {
        Note("fork gave %d, %d was wanted: %s", int(pid), int(id), std::strerror(errno));
        std::exit(2);
    }
    return pid;
}

void Controller::StartServer()
{
    const uint32_t before = shared->reign;
    server = Start(mode.inCollision ? MiddleID : 0, [&] { RunServer(mode.orders); });
    const int64_t end = Now() + 10000 * Millisecond;
    while (shared->reign == before && Now() < end)
        SleepMilliseconds(1);
    if (shared->reign == before) {
        Note("the server did not get its queue within 10 seconds");
        shared->lost++;
    }
}

void Controller::StartClient(int place)
{
    if (mode.inCollision && place % 2 == 0)
        lastDistance++;
    const pid_t id = mode.inCollision ? MiddleID + (place % 2 == 0 ? -lastDistance : lastDistance) : 0;
    const uint32_t identity = ++lastIdentity;
    Slot& slot = shared->clients[place];
    slot.since = 0;
    slot.bytes = 0;
    slot.what = "starting";
    clients[place] = Start(id, [&] { RunClient(mode.orders, slot, identity); });
}

void Controller::StartRelay()
{
    relay = Start(0, [] { testing_support::Execute(RELAYD, {"--service", ServerName}); });
}

// ---- Killing and stopping ----

void Controller::Kill(pid_t pid)
{
    if (Random(2) == 0) {
        kill(pid, SIGSTOP); // what it was about to read stays on the queue
        SleepMilliseconds(Random(30));
    }
    kill(pid, SIGKILL);
    if (Random(3) == 0)
        SleepMilliseconds(Random(60)); // it is a zombie
    waitpid(pid, nullptr, 0);
}

void Controller::KillClient()
{
    int place = int(Random(settings.clients - 1));
    if (Random(1) == 0)
        for (int i = 0; i < settings.clients && shared->clients[place].bytes < LargeRequest; i++)
            place = (place + 1) % settings.clients;
    if (mode.inCollision)
        place &= ~1; // in pairs, so that new ones are in collision too
    const int count = mode.inCollision ? 2 : 1;
    for (int i = place; i < place + count; i++) {
        Kill(clients[i]);
        losses.clientKills++;
        SleepMilliseconds(Random(20));
    }
    for (int i = place; i < place + count; i++)
        StartClient(i);
    nextClientKill = After(mode.clientKills);
}

void Controller::KillServer()
{
    shared->reign++;
    kill(server, SIGKILL);
    waitpid(server, nullptr, 0);
    losses.serverKills++;
    SleepMilliseconds(Random(1) == 0 ? 0 : Random(200));
    StartServer();
    nextServerKill = After(mode.serverKills);
}

void Controller::StopSomebody()
{
    stopped = Random(3) == 0 ? server : clients[Random(settings.clients - 1)];
    shared->stops++;
    shared->stopped++;
    kill(stopped, SIGSTOP);
    losses.stops++;
    nextStop = INT64_MAX;
    goesOn = Now() + 1000 * Millisecond;
}

void Controller::GoOn()
{
    if (stopped == 0)
        return;
    if (stopped == server || std::find(clients, clients + settings.clients, stopped) != clients + settings.clients)
        kill(stopped, SIGCONT); // it was not killed meanwhile
    stopped = 0;
    shared->stopped--;
    goesOn = INT64_MAX;
    nextStop = After(mode.stops);
}

void Controller::LookForTheFallen()
{
    int status;
    if (waitpid(server, &status, WNOHANG) == server) {
        Note("the server ended by itself, status 0x%x", unsigned(status));
        shared->lost++;
        shared->reign++;
        StartServer();
    }
    for (int i = 0; i < settings.clients; i++)
        if (waitpid(clients[i], &status, WNOHANG) == clients[i]) {
            Note("client %d ended by itself, status 0x%x", int(clients[i]), unsigned(status));
            shared->lost++;
            StartClient(i);
        }
}

// ---- The end ----

bool Controller::Ends(pid_t pid, long milliseconds, int* status)
{
    const int64_t end = Now() + milliseconds * Millisecond;
    while (waitpid(pid, status, WNOHANG) != pid) {
        if (Now() > end)
            return false;
        SleepMilliseconds(TickMilliseconds);
    }
    return true;
}

void Controller::EndClients()
{
    shared->clientsAreToEnd = true;
    const int64_t end = Now() + 45000 * Millisecond;
    for (int i = 0; i < settings.clients; i++) {
        int status = 0;
        if (!Ends(clients[i], long((end - Now()) / Millisecond), &status)) {
            const Slot& slot = shared->clients[i];
            Note("client process %d hangs %s, request %u of %u bytes, %.3f s", int(clients[i]), slot.what.load(),
                 slot.number.load(), slot.bytes.load(), double(Now() - slot.since) / 1e9);
            shared->lost++;
            Kill(clients[i]);
        } else if (status != 0) {
            Note("client process %d ended with status 0x%x", int(clients[i]), unsigned(status));
            shared->lost++;
        }
    }
}

void Controller::EndServer()
{
    shared->serverIsToEnd = true;
    int status = 0;
    if (!Ends(server, 10000, &status)) {
        Note("the server hangs");
        shared->lost++;
        Kill(server);
    } else if (status != 0) {
        Note("the server ended with status 0x%x", unsigned(status));
        shared->lost++;
    }
}

void Controller::EndRelay()
{
    int status = 0;
    kill(relay, SIGTERM);
    if (!Ends(relay, 5000, &status) || status != 0) {
        Note("the relay did not end well, status 0x%x", unsigned(status));
        losses.left++;
    }
}

static uint64_t KernelObjects()
{
    uint64_t count = 0;
    for (const char* kind : {"msg", "sem", "shm"}) {
        const std::string table = ReadFile(std::string("/proc/sysvipc/") + kind);
        count += uint64_t(std::count(table.begin(), table.end(), '\n')) - 1;
    }
    return count;
}

static uint64_t Processes(const char* program)
{
    uint64_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "comm");
        std::string name;
        const bool isProcess = std::isdigit(static_cast<unsigned char>(entry.path().filename().c_str()[0]));
        count += isProcess && std::getline(in, name) && name == program;
    }
    return count;
}

void Controller::CountWhatIsLeft()
{
    const auto count = [] { return KernelObjects() + Processes("storm") - 1 + Processes("relayd"); };
    testing_support::WaitUntil([&] { return count() == 0; }, 1);
    losses.left += count() + shared->left;
    if (losses.left > 0)
        Note("left: %lu messages, %lu objects, %lu processes", (unsigned long)shared->left,
             (unsigned long)KernelObjects(), (unsigned long)(Processes("storm") - 1 + Processes("relayd")));
}

// ---- The storm ----

Losses Controller::Run()
{
    testing_support::MakeKeyFile(ServerName);
    StartServer();
    if (mode.orders.isFar)
        StartRelay();
    for (int i = 0; i < settings.clients; i++)
        StartClient(i);
    nextClientKill = After(mode.clientKills);
    nextServerKill = After(mode.serverKills);
    nextStop = After(mode.stops);
    goesOn = INT64_MAX;
    const int64_t end = Now() + settings.seconds * 1000 * Millisecond;
    for (; Now() < end; SleepMilliseconds(TickMilliseconds)) {
        LookForTheFallen();
        if (Now() >= nextClientKill)
            KillClient();
        if (Now() >= nextServerKill)
            KillServer();
        if (Now() >= nextStop)
            StopSomebody();
        if (Now() >= goesOn)
            GoOn();
    }
    GoOn();
    EndClients();
    EndServer();
    if (mode.orders.isFar)
        EndRelay();
    CountWhatIsLeft();
    return losses;
}

} // namespace storm
