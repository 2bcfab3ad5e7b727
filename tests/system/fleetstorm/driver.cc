// SPDX-License-Identifier: BSD-2-Clause
// What raises, replaces, moves and clears the faults of a host, and keeps a log of what its daemon said to that.
#include <cmath>
#include <random>
#include <vector>

#include "tests/system/fleetstorm/client.h"
#include "tests/system/fleetstorm/shared.h"

namespace fleetstorm {

namespace {

// What a fault can move to (see FaultLife).
const std::vector<int> Moves[StateCount] = {{1, 2}, {2, 4}, {3, 1}, {4}, {1, 5}, {}};

const uint32_t LargeSize = 1200000; // bytes of an attachment: more than a message of the engine has

class Driver {
public:
    Driver(const Settings& settings, int host)
        : settings(settings), host(host), node(HostName(host)), log(shared->host[host]),
          random(static_cast<unsigned>(settings.seed * 1000 + static_cast<unsigned long>(host))),
          client(FaultServerName, node)
    {
    }

    void Run()
    {
        Compare(); // the daemon is there
        while (!shared->driversAreToEnd && log.ops < MostOps) {
            Pause();
            Do(Choose());
        }
        Compare();
        shared->driversEnded++;
    }

private:
    uint32_t Random(uint32_t number) { return static_cast<uint32_t>(random() % number); }

    void Pause()
    {
        const double mean = 1000 * settings.hosts / settings.rate;
        const double part = (Random(1000000) + 1) / 1e6;
        SleepMilliseconds(static_cast<long>(-mean * std::log(part)) % 20000);
    }

    Op Choose()
    {
        Op op = {};
        op.fault = static_cast<int32_t>(Random(FaultsOfHost));
        const Shown& fault = model[op.fault];
        const uint32_t kind = Random(10);
        if (fault.op < 0 || kind < 3 || (kind < 8 && Moves[fault.state].empty())) {
            op.kind = FaultChange::Raised;
            if (Random(600) == 0)
                op.attached = LargeSize;
            else if (Random(15) == 0)
                op.attached = 1 + Random(20000);
            shared->large += op.attached == LargeSize;
        } else if (kind < 8) {
            op.kind = FaultChange::Moved;
            op.state = Moves[fault.state][Random(static_cast<uint32_t>(Moves[fault.state].size()))];
        } else {
            op.kind = FaultChange::Cleared;
        }
        return op;
    }

    FaultId Id(int fault) const { return FaultId(fault, node.c_str()); }

    short Send(const Op& op, uint32_t number)
    {
        Buffer request, answer;
        if (op.kind == FaultChange::Raised) {
            FaultRecord fault;
            fault.summary.hdr.myId = Id(op.fault);
            fault.summary.text = OpText(number).c_str();
            const std::string attachment = Attachment(host, number, op.attached);
            fault.attachment.Append(attachment.data(), op.attached);
            fault.summary.attached = static_cast<int>(op.attached);
            Pack(fault, request);
            return client.Ask(RaiseEvent, request, answer);
        }
        if (op.kind == FaultChange::Moved) {
            Pack(FaultMove{Id(op.fault), States[op.state]}, request);
            return client.Ask(MoveEvent, request, answer);
        }
        Pack(Id(op.fault), request);
        return client.Ask(ClearEvent, request, answer);
    }

    // Asks for an operation, and finds out whether it has happened.
    void Do(Op op)
    {
        const uint32_t number = log.ops;
        const Shown before = model[op.fault];
        Shown after = before;
        if (op.kind == FaultChange::Raised)
            after = {static_cast<int32_t>(number), 0, op.attached};
        else if (op.kind == FaultChange::Moved)
            after.state = op.state;
        else
            after = Shown();
        op.asked = Now();
        log.op[number] = op; // whoever sees it shown knows when it was asked for
        shared->asked++;
        const short status = Send(op, number);
        op.isDone = status == ErrorReporter::NO_ERRORS;
        if (Client::HasFailed(status)) {
            shared->unknown++;
            op.isDone = Look(op.fault) == after;
        } else if (!op.isDone) {
            shared->refused++;
            Note("%s refused operation %u: %d", node.c_str(), number, status);
        }
        if (op.isDone)
            model[op.fault] = after;
        shared->done += op.isDone;
        log.op[number].isDone = op.isDone;
        log.ops = number + 1;
        if (Client::HasFailed(status))
            Compare();
    }

    // What the daemon has, once it is there.
    void List(Shown* faults)
    {
        FaultList list;
        for (Buffer answer; client.Ask(ListEvent, Buffer(), answer) != 0 || !Unpack(answer, list);)
            SleepMilliseconds(50);
        for (const FaultSummary& fault : list.faults) {
            const long number = fault.hdr.myId.GetId();
            const int32_t op = OpOfText(fault.text);
            if (number < 0 || number >= FaultsOfHost || op < 0) {
                Note("%s lists a fault that nobody raised", node.c_str());
                shared->strange++;
                continue;
            }
            faults[number] = {op, StateIndex(fault.state), static_cast<uint32_t>(fault.attached)};
        }
    }

    Shown Look(int fault)
    {
        Shown faults[FaultsOfHost];
        List(faults);
        return faults[fault];
    }

    // Holds what the daemon has against what it said.
    void Compare()
    {
        Shown faults[FaultsOfHost];
        List(faults);
        for (int i = 0; i < FaultsOfHost; i++)
            if (!(faults[i] == model[i])) {
                Note("%s: the daemon has fault %d of operation %d in state %d, it said operation %d in state %d",
                     node.c_str(), i, faults[i].op, faults[i].state, model[i].op, model[i].state);
                shared->forgotten++;
                model[i] = faults[i];
            }
    }

    const Settings& settings;
    const int host;
    const std::string node;
    HostLog& log;
    std::mt19937 random;
    Client client;
    Shown model[FaultsOfHost];
};

} // namespace

void RunDriver(const Settings& settings, int host) { Driver(settings, host).Run(); }

} // namespace fleetstorm
