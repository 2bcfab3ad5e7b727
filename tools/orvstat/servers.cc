// SPDX-License-Identifier: BSD-2-Clause
#include "servers.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>

#include <sys/ipc.h>

#include "Misc/ipcq.h"
#include "files.h"

namespace orvstat {

static const char ProgramDirectory[] = "/opt/orv/bin/";
static const int KeyProject = 1;
static const struct timespec Moment = {0, 50 * 1000 * 1000}; // in which a server has started or ended

const char* StateName(State state)
{
    static const char* const names[] = {"none", "up", "stopped", "starting", "stale", "no set", "unknown"};
    return names[static_cast<int>(state)]; // in the order of the states
}

std::string Server::Name() const
{
    std::string joined;
    for (const std::string& name : names)
        joined += (joined.empty() ? "" : ",") + name;
    return joined;
}

namespace {

typedef std::map<key_t, std::vector<std::string>> NamesByKey;

struct Objects {
    std::vector<Queue> queues;
    std::vector<SemaphoreSet> sets;
};

} // namespace

// The sets first: a server makes its set before its queue and removes it after, so that no queue of a living one seems
// to have none.
static Objects AllObjects()
{
    Objects objects;
    objects.sets = AllSets();
    objects.queues = AllQueues();
    return objects;
}

// The names of the files in the program directory, in their order.
static NamesByKey KnownNames()
{
    std::vector<std::string> names = NamesIn(ProgramDirectory);
    std::sort(names.begin(), names.end());
    NamesByKey known;
    for (const std::string& name : names) {
        const std::string path = ProgramDirectory + name;
        std::error_code error;
        if (std::filesystem::is_regular_file(path, error))
            known[ftok(path.c_str(), KeyProject)].push_back(name);
    }
    known.erase(-1); // a file that went meanwhile
    return known;
}

// Finds the process: the first living one that is registered, else the first that was.
static void FindProcess(Server& server)
{
    server.pid = 0;
    for (const long pid : *server.set->slots) {
        if (pid <= 0)
            continue;
        const Life life = LifeOf(pid);
        if (server.pid == 0)
            server.pid = pid;
        if (life == Life::Gone)
            continue;
        server.pid = pid;
        server.program = ProgramOf(pid);
        const State living = life == Life::Stopped ? State::Stopped : State::Up;
        server.state = server.queue ? living : State::Starting;
        return;
    }
    server.state = State::Stale;
}

static Server Find(key_t key, std::vector<std::string> names, const Objects& objects)
{
    Server server;
    server.names = std::move(names);
    server.key = key;
    if (const Queue* queue = QueueOf(key, objects.queues))
        server.queue = *queue;
    if (const SemaphoreSet* set = SetOf(key, objects.sets))
        server.set = *set;
    if (!server.set)
        server.state = server.queue ? State::NoSet : State::None;
    else if (!server.set->slots)
        server.state = State::Unknown;
    else
        FindProcess(server);
    return server;
}

// Whether a queue may be that of a server whose key file is not known: no more than that.
static bool MayBeServers(const Queue& queue, const Objects& objects)
{
    const SemaphoreSet* set = SetOf(queue.key, objects.sets);
    return queue.key >> 24 == KeyProject && set != nullptr && set->slotCount == 1;
}

static std::vector<Server> FindAll()
{
    const Objects objects = AllObjects();
    const NamesByKey known = KnownNames();
    std::vector<Server> servers;
    for (const auto& [key, names] : known) {
        Server server = Find(key, names, objects);
        if (server.state != State::None)
            servers.push_back(std::move(server));
    }
    std::sort(servers.begin(), servers.end(), [](const Server& a, const Server& b) { return a.names < b.names; });
    for (const Queue& queue : objects.queues)
        if (known.count(queue.key) == 0 && MayBeServers(queue, objects))
            servers.push_back(Find(queue.key, {}, objects));
    return servers;
}

static bool IsDoubtful(const Server& server) { return server.state == State::Stale || server.state == State::NoSet; }

static void FindBlocked(Host& host)
{
    const Blocked blocked = AllBlocked();
    host.unseenProcesses = blocked.unseen;
    for (Server& server : host.servers)
        for (const BlockedCall& call : blocked.calls)
            if (server.queue && call.queue == server.queue->id)
                (call.sends ? server.blockedSenders : server.blockedReceivers).push_back(call.pid);
}

Host LookAtHost()
{
    Host host;
    host.servers = FindAll();
    if (std::any_of(host.servers.begin(), host.servers.end(), IsDoubtful)) {
        nanosleep(&Moment, nullptr);
        host.servers = FindAll();
    }
    FindBlocked(host);
    return host;
}

static bool IsPath(const std::string& name) { return name.find('/') != std::string::npos; }

std::vector<std::string> KeyFilesOf(const std::string& name)
{
    const key_t key = ftok_orvm(name.c_str());
    std::set<std::string> files;
    const std::string path = ProgramDirectory + name;
    if (IsPath(name) || ftok(path.c_str(), KeyProject) != key)
        files.insert(name);
    const NamesByKey known = KnownNames();
    const auto same = known.find(key);
    if (same != known.end())
        for (const std::string& each : same->second)
            files.insert(ProgramDirectory + each);
    return {files.begin(), files.end()};
}

Server LookAtServer(const std::string& name)
{
    const std::vector<std::string> names(1, name);
    const key_t key = ftok_orvm(name.c_str());
    if (key < 0) {
        Server missing;
        missing.names = names;
        return missing;
    }
    Server server = Find(key, names, AllObjects());
    if (IsDoubtful(server)) {
        nanosleep(&Moment, nullptr);
        server = Find(key, names, AllObjects());
    }
    return server;
}

} // namespace orvstat
