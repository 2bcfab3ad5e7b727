// SPDX-License-Identifier: BSD-2-Clause
// Passes the changes of a host's faults on to the engine.
#ifndef FLEET_PUBLISHER_H
#define FLEET_PUBLISHER_H

#include <string>

#include "daemon.h"
#include "engine.h"

namespace fleet {

/// Takes the changes of the journal of a daemon and stores them in the engine's stream in their order, each once, however
/// long the engine, the daemon or this program were away. It remembers nothing: what has been stored is what the engine's
/// last message of the node says, and each message is stored only if that is still the last one. Two of a node do no
/// harm: one of them finds that the other was faster.
///
/// A journal that is an old copy, put back, or in which changes are missing that have not been passed on, and for which no
/// later Began makes up, is refused.
class Publisher {
public:
    enum Step {
        PassedOn, // changes; there may be more
        Idle,     // there are none
        Stuck     // Problem() tells why; a later step may succeed
    };

    Publisher(Engine& engine, Daemon& daemon, const std::string& node);

    /// Passes some changes on.
    Step Run();
    const std::string& Problem() const { return problem; }
    /// How far the changes have come.
    const Position& Reached() const { return position; }

private:
    bool Take(FaultChangeList* list);
    bool FindPosition();
    bool Agrees(Buffer& stored);
    bool Fetch(FaultChangeList* list);
    bool Follow(FaultChangeList* list);
    bool Ask(long since, int most, FaultChangeList* list);
    bool Fail(const std::string& what);
    bool Pass(FaultChangeList& list);
    bool PassAttachment(const FaultChange& change);
    bool Confirm();
    bool Check(Outcome outcome);

    Engine& engine;
    Daemon& daemon;
    const std::string node;
    std::string problem;
    Position position;
    bool isSettled = false;     // nothing that was sent before can be stored any more
    bool knowsPosition = false; // until something fails
    bool isMissing = false;     // a change that should be the next
    long confirmed = 0;         // what the daemon was told of last
};

} // namespace fleet

#endif
