// SPDX-License-Identifier: BSD-2-Clause
#include "clean.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "Misc/ipcq.h"
#include "format.h"
#include "keylocks.h"
#include "report.h"
#include "servers.h"
#include "table.h"

namespace orvstat {

static const long LockMilliseconds = 3000; // a stopped process may hold it for ever

// How long a dead server's things must stay as they are. A server that may not read its key file starts without the lock:
// between its semaphore set, its entry there and its queue it needs some microseconds.
static const struct timespec Moment = {0, 100 * 1000 * 1000};

static Cleaning Refusal(ExitCode code, const std::string& reason)
{
    Cleaning refused;
    refused.code = code;
    refused.text = "not cleaned: " + reason;
    return refused;
}

// What must stay as it is.
static std::string Sight(const Server& server)
{
    std::string sight = StateName(server.state);
    if (server.queue)
        sight += Format(", queue %d of %lld", server.queue->id, static_cast<long long>(server.queue->changed));
    if (server.set)
        sight += Format(", set %d of %lld:", server.set->id, static_cast<long long>(server.set->changed));
    if (server.set && server.set->slots)
        for (const long pid : *server.set->slots)
            sight += Format(" %ld", pid);
    return sight;
}

static bool IsGone(int error) { return error == EINVAL || error == EIDRM; }

// Whether a process has entered itself in the set meanwhile: one that starts without the lock takes over what it finds.
static bool HasBeenTakenOver(const SemaphoreSet& set)
{
    const std::optional<std::vector<long>> slots = ReadSlots(set.id, set.slotCount);
    return slots &&
           std::any_of(slots->begin(), slots->end(), [](long pid) { return pid > 0 && LifeOf(pid) != Life::Gone; });
}

static ExitCode CodeOf(int error) { return error == EPERM || error == EACCES ? NoRights : Wrong; }

// Why an object is still there.
static std::string Reason(const char* what, int id, const Owner& owner, int error)
{
    if (error == EBUSY)
        return "a server starts at this moment";
    if (error == EPERM)
        return Format("%s %d belongs to user %u", what, id, static_cast<unsigned>(owner.user));
    return Format("%s %d: %s", what, id, std::strerror(error));
}

// The queue first: without it nobody can be talking to a server, and the set still keeps a starting one from harm.
static Cleaning Remove(const Server& server)
{
    Cleaning done;
    if (server.queue) {
        const int error = RemoveQueue(server.queue->id);
        if (error != 0 && !IsGone(error))
            return Refusal(CodeOf(error), Reason("queue", server.queue->id, server.queue->owner, error));
        done.removedQueue = server.queue->id;
        done.text = Format("removed queue %d (%s)", server.queue->id, Messages(*server.queue).c_str());
    }
    const SemaphoreSet& set = *server.set;
    const int error = HasBeenTakenOver(set) ? EBUSY : RemoveSet(set.id);
    if (error != 0 && !IsGone(error)) {
        const std::string reason = Reason("semaphore set", set.id, set.owner, error);
        if (!server.queue)
            return Refusal(CodeOf(error), reason);
        done.code = CodeOf(error);
        done.text += ", but not all: " + reason;
        return done;
    }
    done.removedSet = set.id;
    done.text += server.queue ? " and" : "removed";
    done.text += Format(" semaphore set %d; %s", set.id, DeadServer(server.pid).c_str());
    return done;
}

static Cleaning CleanLocked(const std::string& name)
{
    const Server server = LookAtServer(name);
    switch (server.state) {
    case State::None: {
        Cleaning nothing;
        nothing.text = "nothing is left of a server";
        return nothing;
    }
    case State::Up: return Refusal(Wrong, Format("server %ld (%s) lives", server.pid, server.program.c_str()));
    case State::Unknown: return Refusal(NoRights, RemarkOn(server));
    case State::Stale: break;
    default: return Refusal(Wrong, RemarkOn(server));
    }
    nanosleep(&Moment, nullptr);
    if (Sight(server) != Sight(LookAtServer(name)))
        return Refusal(Wrong, "a server starts or ends at this moment");
    return Remove(server);
}

Cleaning Clean(const std::string& name)
{
    if (ftok_orvm(name.c_str()) < 0)
        return Refusal(NoServer, "there is no key file of this name");
    const KeyLocks locks(KeyFilesOf(name), LockMilliseconds);
    switch (locks.Error()) {
    case 0: return CleanLocked(name);
    case EWOULDBLOCK:
        return Refusal(Wrong, "a server starts or ends at this moment, or a stopped process holds the key file's lock");
    default:
        return Refusal(CodeOf(locks.Error()),
                       Format("its key file cannot be locked: %s", std::strerror(locks.Error())));
    }
}

void WriteText(const std::string& name, const Cleaning& cleaning, std::ostream& out)
{
    out << Visible(name + ": " + cleaning.text) << '\n';
}

void WriteJson(const std::string& name, const Cleaning& cleaning, std::ostream& out)
{
    const auto id = [](int number) { return number >= 0 ? Cell(int64_t{number}) : Cell(); };
    Members members;
    members.emplace_back("name", name);
    members.emplace_back("removed_queue", id(cleaning.removedQueue));
    members.emplace_back("removed_set", id(cleaning.removedSet));
    members.emplace_back("remark", cleaning.text);
    WriteJson(members, out);
    out << '\n';
}

} // namespace orvstat
