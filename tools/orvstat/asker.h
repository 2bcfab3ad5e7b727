// SPDX-License-Identifier: BSD-2-Clause
// The side of a ping that may wait: it runs in a process of its own, which is ended when the time is up.
#ifndef TOOLS_ORVSTAT_ASKER_H
#define TOOLS_ORVSTAT_ASKER_H

#include <cstdint>
#include <string>

#include "Misc/ipcq.h"

namespace orvstat {

/// Whom to ask.
struct Target {
    std::string name;
    std::string host;    // empty: this host's queue
    std::string service; // of the relay
    short object = 0;
};

/// What the asker says, a record after the other, of its way.
struct Word {
    enum Kind : int32_t {
        Sent,       // the request
        Answered,   // by one of at most two answers
        NoQueue,    // there is no server's queue, or no right to it
        NoRelay,    // nobody listens there, or a name is not known
        NoServer,   // a relay listens, but has no living server
        SendFailed, // with a code
        Ended       // with a code, before both answers came
    };

    Kind kind;
    int16_t code;  // or the status of an answer
    int16_t event; // of an answer
    uint32_t bytes;
    int64_t microseconds; // since the request was about to be sent
};

/// Sends event 0, which asks for nothing but a sign of life, with the wish for a response and for an acknowledgement, and
/// writes what happens to the descriptor. May wait for ever.
void Ask(const Target& target, int descriptor);

} // namespace orvstat

#endif
