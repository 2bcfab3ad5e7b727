// SPDX-License-Identifier: BSD-2-Clause
// What follows the changes at a centre, and takes down all that it shows when everything is at rest.
#include <algorithm>
#include <cstring>

#include "examples/faultcentre.h"
#include "tests/system/fleetstorm/client.h"
#include "tests/system/fleetstorm/shared.h"

namespace fleetstorm {

namespace {

const long Pause = 100; // milliseconds between two questions

class Watcher {
public:
    explicit Watcher(int centre)
        : look(shared->looks[centre]), name("c" + std::to_string(centre + 1)), client(CentreServerName, name)
    {
    }

    void Run()
    {
        while (!shared->othersAreToEnd) {
            Watch();
            if (look.round != shared->round)
                TakeAll();
            SleepMilliseconds(Pause);
        }
    }

private:
    // The fault of a host that a centre shows. False when there is no such thing.
    bool Read(const CentreFault& fault, int* host, int* number) const
    {
        *host = HostIndex(std::string(fault.node));
        *number = static_cast<int>(fault.fault.hdr.myId.GetId());
        const std::string& node = static_cast<const char*>(fault.fault.hdr.myId.GetNodeName());
        if (*host >= 0 && *number >= 0 && *number < FaultsOfHost && node == HostName(*host))
            return true;
        Note("%s shows a fault that nobody raised", name.c_str());
        shared->strange++;
        return false;
    }

    void Watch()
    {
        CentreChanges changes;
        do {
            if (!client.Get(CentreWatchEvent, CentreWatchRequest{since}, &changes))
                return;
            const int64_t now = Now();
            for (const CentreFault& fault : changes.faults) {
                int host = 0, number = 0;
                if (Read(fault, &host, &number))
                    Follow(host, number, fault, now);
            }
            since = changes.since;
        } while (!changes.isAll && !shared->othersAreToEnd);
    }

    // The operation that made the fault what is shown; -1: none behind `after` did. Those that are under way count.
    static int Find(const HostLog& log, int number, const CentreFault& fault, int after)
    {
        const int ops = static_cast<int>(std::min(log.ops + 1, MostOps));
        const int raised = fault.kind == FaultChange::Cleared ? -1 : OpOfText(fault.fault.text);
        if (fault.kind == FaultChange::Raised)
            return raised > after && raised < ops ? raised : -1;
        for (int i = std::max(after, raised) + 1; i < ops; i++) {
            const Op& op = log.op[i];
            if (op.fault != number)
                continue;
            if (op.kind == fault.kind && (op.kind == FaultChange::Cleared || op.state == StateIndex(fault.fault.state)))
                return i;
            if (op.kind == FaultChange::Raised && fault.kind == FaultChange::Moved && op.isDone)
                return -1;
        }
        return -1;
    }

    // A fault shows its changes in their order, if not all of them. A server that has just been started may show one again.
    void Follow(int host, int number, const CentreFault& fault, int64_t now)
    {
        shared->shown++;
        const HostLog& log = shared->host[host];
        int& last = reached[host][number];
        const int op = Find(log, number, fault, last - 2);
        if (op < 0) {
            Note("%s shows fault %d of %s: kind %d, %s, state %s, behind operation %d", name.c_str(), number,
                 HostName(host).c_str(), fault.kind, static_cast<const char*>(fault.fault.text),
                 static_cast<const char*>(fault.fault.state), last - 1);
            shared->backwards++;
            return;
        }
        last = op + 1;
        if (fault.kind == FaultChange::Raised)
            NoteDelay(now - log.op[op].asked);
    }

    static void NoteDelay(int64_t delay)
    {
        static const double limits[] = {0.25, 0.5, 1, 2, 5, 15, 1e9}; // seconds
        for (int i = 0; i < 7; i++)
            if (static_cast<double>(delay) / 1e9 <= limits[i]) {
                shared->delays[i]++;
                break;
            }
        for (int64_t before = shared->slowest;
             delay > before && !shared->slowest.compare_exchange_weak(before, delay);) {
        }
    }

    void TakeAll()
    {
        const uint32_t round = shared->round;
        for (auto& faults : look.fault)
            for (Shown& fault : faults)
                fault = Shown();
        CentreListRequest wanted;
        do {
            CentreList list;
            if (!client.Get(CentreListEvent, wanted, &list))
                return;
            for (const CentreFault& fault : list.faults) {
                int host = 0, number = 0;
                if (!Read(fault, &host, &number))
                    continue;
                Shown& shown = look.fault[host][number];
                if (shown.op >= 0) {
                    Note("%s lists fault %d of %s twice", name.c_str(), number, HostName(host).c_str());
                    shared->strange++;
                }
                shown = {OpOfText(fault.fault.text), StateIndex(fault.fault.state),
                         static_cast<uint32_t>(fault.fault.attached)};
            }
            wanted.after = list.after;
        } while (wanted.after.strlen() > 0);
        look.round = round;
    }

    CentreLook& look;
    const std::string name;
    Client client;
    long since = 0;
    int reached[MostHosts][FaultsOfHost] = {}; // the operation that was shown last, and one; 0: none
};

} // namespace

void RunWatcher(const Settings&, int centre)
{
    auto watcher = std::make_unique<Watcher>(centre);
    watcher->Run();
}

} // namespace fleetstorm
