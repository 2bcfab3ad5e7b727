// SPDX-License-Identifier: BSD-2-Clause
// Takes the requests of centres for the daemon of a host.
#ifndef FLEET_RESPONDER_H
#define FLEET_RESPONDER_H

#include <string>

#include "engine.h"
#include "request.h"

namespace fleet {

/// Answers requests to a node, one after the other: the daemon is asked in the name of the centre's node, so that its node
/// list says what the centre may do. Of several gates of a node one gets a request.
class Responder {
public:
    Responder(Engine& engine, const std::string& node);
    ~Responder();
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;

    /// Waits up to a second for a request and answers it. False when none can come; Problem() tells why.
    bool Run();
    const std::string& Problem() const { return problem; }

private:
    bool Subscribe();
    void Answer(natsMsg* message);
    short Handle(Buffer& data, Buffer& answer) const;

    Engine& engine;
    const std::string node;
    std::string problem;
    natsSubscription* subscription = nullptr;
};

} // namespace fleet

#endif
