// SPDX-License-Identifier: BSD-2-Clause
// The requests of a centre to the gates of hosts.
#ifndef FLEET_ASKER_H
#define FLEET_ASKER_H

#include <map>
#include <ostream>
#include <string>

#include "engine.h"
#include "examples/faultcentre.h"
#include "request.h"

namespace fleet {

/// Sends requests, and keeps their answers until somebody takes them. A host that takes its time, or is not there, holds
/// nobody up.
class Asker {
public:
    /// In the name of `centre`, a node; answers come to subjects below `inbox`.
    Asker(Engine& engine, const std::string& centre, const std::string& inbox);
    ~Asker();
    Asker(const Asker&) = delete;
    Asker& operator=(const Asker&) = delete;

    /// Sends a request. Returns its number, or 0 when that failed: the engine is away, or too many wait.
    long Ask(const CentreRequest& request);
    /// What has come of a request. What has been taken is forgotten, and so is what nobody takes for a minute. False when
    /// there is no such request.
    bool Take(long number, CentreAnswer* answer);
    void dumpOn(std::ostream& out) const;

private:
    struct Asked {
        natsSubscription* answers = nullptr;
        long time = 0; // of the request, then of the last part of its answer, in seconds since the epoch
        AnswerParts parts;
    };
    typedef std::map<long, Asked> Requests;

    bool Send(const CentreRequest& request, natsSubscription** answers);
    static void Receive(Asked& asked, CentreAnswer* answer);
    void Drop(Requests::iterator at);

    Engine& engine;
    const std::string centre;
    const std::string inbox;
    Requests requests; // by number
    long last;
};

} // namespace fleet

#endif
