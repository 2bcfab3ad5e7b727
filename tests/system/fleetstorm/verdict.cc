// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/fleetstorm/verdict.h"

#include <set>
#include <utility>
#include <vector>

namespace fleetstorm {

namespace {

// The changes of a host in the stream, against the operations that happened there. The operations that happened are the
// changes, in their order, besides those that begin a journal and say again what is there.
class HostJudge {
public:
    HostJudge(int host, bool isTold, Verdict* verdict)
        : host(host), log(shared->host[host]), isTold(isTold), verdict(*verdict)
    {
        for (uint32_t i = 0; i < log.ops; i++)
            if (log.op[i].isDone)
                done.push_back(static_cast<int32_t>(i));
        matched.resize(done.size());
    }

    void Run()
    {
        for (uint32_t i = 0; i < log.seen; i++)
            if (IsNext(log.change[i]))
                Match(log.change[i]);
        verdict.changes += done.size();
        for (size_t i = 0; i < done.size(); i++) {
            verdict.seen += matched[i];
            if (!matched[i])
                Tell("is not in the stream", log.op[done[i]], done[i]), verdict.lost++;
        }
        LookAtCentres();
    }

private:
    void Tell(const char* what, const Op& op, int number) const
    {
        if (isTold)
            Note("%s: operation %d (kind %d of fault %d) %s", HostName(host).c_str(), number, op.kind, op.fault, what);
    }
    void Tell(const char* what, const SeenChange& change) const
    {
        if (isTold)
            Note("%s: change %ld of journal %u (kind %d of fault %d, operation %d) %s", HostName(host).c_str(),
                 change.number, change.journal, change.kind, change.fault, change.op, what);
    }

    // Whether the change has the number that should come next. One that came before is counted here, and only here.
    bool IsNext(const SeenChange& change)
    {
        const bool isNew = numbers.emplace(change.journal, change.number).second;
        if (!isNew) {
            Tell("came twice", change);
            verdict.doubled++;
            return false;
        }
        const bool isOther = change.journal != journal;
        if ((isOther && change.journal < journal) || (!isOther && change.number < last)) {
            Tell("came late", change);
            verdict.order++;
        } else if (!isOther && change.number != last + 1) {
            Tell("does not follow the one before", change);
            verdict.lost += static_cast<uint64_t>(change.number - last - 1);
        } else if (isOther && change.kind != FaultChange::Began) {
            Tell("begins a journal", change);
            verdict.lost++;
        }
        if (isOther ? change.journal > journal || last == 0 : change.number > last)
            last = change.number;
        journal = std::max(journal, change.journal);
        return true;
    }

    bool Is(const SeenChange& change, const Op& op, int32_t number) const
    {
        if (op.kind != change.kind || op.fault != change.fault)
            return false;
        if (op.kind == FaultChange::Raised)
            return change.op == number && change.attached == op.attached;
        return op.kind != FaultChange::Moved || op.state == change.state;
    }

    void Match(const SeenChange& change)
    {
        if (change.kind == FaultChange::Began) {
            isInSnapshot = true;
            return;
        }
        if (isInSnapshot && change.kind == FaultChange::Raised && IsThere(change))
            return;
        isInSnapshot = false;
        for (size_t i = next; i < done.size(); i++)
            if (Is(change, log.op[done[i]], done[i])) {
                Set(i);
                next = i + 1;
                return;
            }
        for (size_t i = next; i-- > 0;)
            if (Is(change, log.op[done[i]], done[i])) {
                Tell(matched[i] ? "happened twice" : "happened out of turn", change);
                ++(matched[i] ? verdict.doubled : verdict.order);
                matched[i] = true;
                return;
            }
        Tell("was not asked for, or was refused", change);
        verdict.strange++;
    }

    void Set(size_t index)
    {
        const int32_t number = done[index];
        const Op& op = log.op[number];
        matched[index] = true;
        Shown& fault = state[op.fault];
        if (op.kind == FaultChange::Raised)
            fault = {number, 0, op.attached};
        else if (op.kind == FaultChange::Moved)
            fault.state = op.state;
        else
            fault = Shown();
    }

    bool IsThere(const SeenChange& change) const
    {
        return change.fault >= 0 && change.fault < FaultsOfHost &&
               Shown{change.op, change.state, change.attached} == state[change.fault];
    }

    // Each centre shows what the operations that happened make.
    void LookAtCentres()
    {
        for (Shown& fault : state)
            fault = Shown();
        for (size_t i = 0; i < done.size(); i++) {
            const bool wasMatched = matched[i];
            Set(i);
            matched[i] = wasMatched;
        }
        for (int number = 0; number < FaultsOfHost; number++) {
            verdict.faults += state[number].op >= 0;
            for (int centre = 0; centre < Centres; centre++) {
                const Shown& shown = shared->looks[centre].fault[host][number];
                if (shown == state[number])
                    continue;
                if (isTold)
                    Note("centre %d shows fault %d of %s raised by operation %d in state %d, with %u bytes; it is of "
                         "operation %d in state %d, with %u bytes",
                         centre + 1, number, HostName(host).c_str(), shown.op, shown.state, shown.attached,
                         state[number].op, state[number].state, state[number].attached);
                verdict.wrong++;
            }
        }
    }

    const int host;
    const HostLog& log;
    const bool isTold;
    Verdict& verdict;
    std::vector<int32_t> done;                   // the operations that happened
    std::vector<bool> matched;                   // whether each is in the stream
    size_t next = 0;                             // the first of these behind all that were matched
    std::set<std::pair<uint32_t, long>> numbers; // journals and changes that came
    uint32_t journal = 0;
    long last = 0;
    bool isInSnapshot = false;
    Shown state[FaultsOfHost];
};

} // namespace

Verdict Judge(const Settings& settings, bool isTold)
{
    Verdict verdict;
    for (int host = 0; host < settings.hosts; host++)
        HostJudge(host, isTold, &verdict).Run();
    verdict.lost += verdict.wrong + shared->forgotten + shared->piecesLost;
    verdict.order += shared->backwards;
    verdict.strange += shared->strange;
    return verdict;
}

} // namespace fleetstorm
