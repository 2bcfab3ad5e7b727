// SPDX-License-Identifier: BSD-2-Clause
#include "clean.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "Misc/ipcq.h"
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

static bool IsSame(const Server& a, const Server& b)
{
    if (a.state != b.state || a.queue.has_value() != b.queue.has_value() || a.set.has_value() != b.set.has_value())
        return false;
    if (a.queue && (a.queue->id != b.queue->id || a.queue->changed != b.queue->changed))
        return false;
    return !a.set || (a.set->id == b.set->id && a.set->changed == b.set->changed && a.set->slots == b.set->slots);
}

static Cleaning NotRemoved(Cleaning done, const std::string& what, int error, uid_t owner)
{
    const std::string before = done.removedQueue >= 0 ? done.text + ", but not " : "cannot remove ";
    done.code = error == EPERM ? NoRights : Wrong;
    done.text =
        before + what +
        (error == EPERM ? ": it belongs to user " + std::to_string(owner) : std::string(": ") + std::strerror(error));
    return done;
}

static bool IsGone(int error) { return error == EINVAL || error == EIDRM; }

// Whether a process has entered itself in the set meanwhile: one that starts without the lock takes over what it finds.
static bool HasBeenTakenOver(const SemaphoreSet& set)
{
    const std::optional<std::vector<long>> slots = ReadSlots(set.id, set.slotCount);
    return slots &&
           std::any_of(slots->begin(), slots->end(), [](long pid) { return pid > 0 && LifeOf(pid) != Life::Gone; });
}

// The queue first: without it nobody can be talking to a server, and the set still keeps a starting one from harm.
static Cleaning Remove(const Server& server)
{
    Cleaning done;
    if (server.queue) {
        const std::string what = "queue " + std::to_string(server.queue->id);
        const int error = RemoveQueue(server.queue->id);
        if (error != 0 && !IsGone(error))
            return NotRemoved(done, what, error, server.queue->owner.user);
        done.removedQueue = server.queue->id;
        done.text = "removed " + what + " (" + Messages(*server.queue) + ")";
    }
    if (HasBeenTakenOver(*server.set)) {
        done.text += done.text.empty() ? "not cleaned: a server starts" : "; a server starts with its semaphore set";
        done.code = Wrong;
        return done;
    }
    const std::string what = "semaphore set " + std::to_string(server.set->id);
    const int error = RemoveSet(server.set->id);
    if (error != 0 && !IsGone(error))
        return NotRemoved(done, what, error, server.set->owner.user);
    done.removedSet = server.set->id;
    done.text += (done.text.empty() ? "removed " : " and ") + what + "; " +
                 (server.pid > 0 ? "server " + std::to_string(server.pid) + " is dead" : "no server was registered");
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
    case State::Up: return Refusal(Wrong, "server " + std::to_string(server.pid) + " (" + server.program + ") lives");
    case State::Unknown: return Refusal(NoRights, RemarkOn(server));
    case State::Stale: break;
    default: return Refusal(Wrong, RemarkOn(server));
    }
    nanosleep(&Moment, nullptr);
    if (!IsSame(server, LookAtServer(name)))
        return Refusal(Wrong, "a server starts or ends at this moment");
    return Remove(server);
}

Cleaning Clean(const std::string& name)
{
    if (ftok_orvm(name.c_str()) < 0)
        return Refusal(NoServer, "there is no key file of this name");
    const KeyLocks locks(KeyFilesOf(name), LockMilliseconds);
    if (!locks.Held() && locks.Error() == EWOULDBLOCK)
        return Refusal(Wrong, "a server starts or ends at this moment, or a stopped process holds the key file's lock");
    if (!locks.Held())
        return Refusal(locks.Error() == EACCES ? NoRights : Wrong,
                       std::string("its key file cannot be locked: ") + std::strerror(locks.Error()));
    return CleanLocked(name);
}

void WriteText(const std::string& name, const Cleaning& cleaning, std::ostream& out)
{
    out << Visible(name + ": " + cleaning.text) << '\n';
}

void WriteJson(const std::string& name, const Cleaning& cleaning, std::ostream& out)
{
    const auto id = [](int number) { return number >= 0 ? Cell(int64_t{number}) : Cell(); };
    WriteJson({{"name", name},
               {"removed_queue", id(cleaning.removedQueue)},
               {"removed_set", id(cleaning.removedSet)},
               {"remark", cleaning.text}},
              out);
    out << '\n';
}

} // namespace orvstat
