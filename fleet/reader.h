// SPDX-License-Identifier: BSD-2-Clause
// The messages of a stream of the engine, in their order.
#ifndef FLEET_READER_H
#define FLEET_READER_H

#include <chrono>
#include <string>
#include <vector>

#include "engine.h"

namespace fleet {

struct StreamMessage {
    Message message;
    uint64_t sequence;
    int64_t time; // when it was stored, in nanoseconds since the epoch

    std::string Subject() const { return natsMsg_GetSubject(message.get()); }
};

/// Reads the messages on some subjects of a stream, each once and in their order, from one on. It goes on behind the last
/// one it gave whatever happens to the connection and the engine meanwhile; of a stream that was removed and made anew, or
/// that has lost its last messages with a server, it begins with the first. A server of the engine that lags behind the
/// others may let it wait for some seconds.
class Reader {
public:
    /// Of the messages on `subject` those from the number `next` on, if the stream is the one that was made at `created`;
    /// 0: whichever it is.
    Reader(Engine& engine, const std::string& stream, const std::string& subject, uint64_t next = 1,
           int64_t created = 0)
        : engine(engine), stream(stream), subject(subject), next(next), created(created)
    {
    }
    ~Reader() { Close(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    /// Reads up to `most` messages that are there; when there are none, waits up to `milliseconds` for the first.
    /// Outcome::Nothing: there are none.
    Outcome Read(int most, int64_t milliseconds, std::vector<StreamMessage>* messages);
    /// Whether it has given all that there was when it gave the last one: more may have come since, without an end.
    bool IsAtEnd() const { return waiting == 0; }
    /// How often it has begun with the first message because the stream is another one, or has lost messages that it gave.
    long Begun() const { return begun; }
    /// When the stream was made, in nanoseconds since the epoch: tells a stream from another one of its name.
    int64_t Created() const { return created; }

private:
    typedef std::chrono::steady_clock Clock;

    Outcome Open();
    Outcome Look();
    void Close();
    Outcome Count();
    Outcome Fetch(int most, int64_t milliseconds, std::vector<StreamMessage>* messages);
    bool Take(natsMsg* message, std::vector<StreamMessage>* messages);

    Engine& engine;
    const std::string stream;
    const std::string subject;
    uint64_t next;
    int64_t created;
    long begun = 0;
    natsSubscription* subscription = nullptr;
    uint64_t given = 0;      // by the subscription
    uint64_t waiting = 0;    // to be given, as far as is known
    Clock::time_point quiet; // since when there have been none
};

} // namespace fleet

#endif
