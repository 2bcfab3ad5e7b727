// SPDX-License-Identifier: BSD-2-Clause
// The distributed engine that carries the changes of many hosts, as the programs here use it.
#ifndef FLEET_ENGINE_H
#define FLEET_ENGINE_H

#include <cstdint>
#include <memory>
#include <string>

#include <nats/nats.h>

#include "examples/fault.h"

namespace fleet {

/// The stream that keeps the changes of all hosts. Those of a node lie on the subject ChangeSubject(node), the pieces of
/// an attachment on PieceSubject of its change.
const char StreamName[] = "FAULTS";

// The headers of a message with changes: the name of their journal, and the number of the last of them.
const char JournalHeader[] = "Fault-Journal";
const char NumberHeader[] = "Fault-Change";

/// `name` as a part of a subject: letters, digits, - and _ as they are, all else as = and two hex digits.
std::string Token(const std::string& name);
std::string ChangeSubject(const std::string& node);
/// Of one piece: `index` counts from 0.
std::string PieceSubject(const std::string& node, const std::string& journal, long change, long index);
/// Of all pieces of a change.
std::string PieceSubjects(const std::string& node, const std::string& journal, long change);
/// Where its gate stores what means nothing; and the subjects of all of these.
std::string SettledSubject(const std::string& node);
const char SettledSubjects[] = "fault.piece.*.settled";
/// Where the gate of a node takes requests.
std::string RequestSubject(const std::string& node);

const int64_t LongestWait = 5000; // milliseconds for an operation

/// What the engine gives and the caller destroys.
typedef std::unique_ptr<natsMsg, decltype(&natsMsg_Destroy)> Message;

/// How the engine is reached.
struct EngineAddress {
    std::string servers = "nats://localhost:4222"; // URLs between commas
    std::string credentials; // a directory with ca.crt, client.crt and client.key; empty: neither TLS nor a credential
    std::string name;        // of the program and its node: what the engine's operator sees
    std::string inbox;       // the first part of the subjects of answers, which no other client may read
};

/// What came of an operation.
enum class Outcome {
    Done,
    Nothing, // there is no such message
    Passed,  // another message has been stored meanwhile: the expected last one is not the last
    Refused, // by the engine: rights, limits, or a stream that has not been set up
    Away     // the engine could not be asked, or did not answer; whether the operation was done is not known
};

/// What the engine's last message of a node says: how far the node's journal has been passed on.
struct Position {
    uint64_t sequence = 0; // of that message in the stream; 0: there is none
    std::string journal;
    long number = 0; // of the last change in it
};

struct StreamSettings {
    long replicas = 1; // servers that have a copy
    long bytes = -1;   // that the stream may have; -1: no limit
};

/// Has a connection that breaks tell so by an error only, in this thread and in those that are made from now on. To ignore
/// SIGPIPE is not enough: a client of a daemon has it end the process.
void HoldBrokenPipes();

/// A connection to the engine, made again whenever it breaks. One thread uses it. Operations wait for at most five
/// seconds; what failed last is in Problem().
class Engine {
public:
    explicit Engine(const EngineAddress& address);
    ~Engine();
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Makes the connection when there is none, or the engine has thrown this client out. False when that fails.
    bool Connect();
    /// Makes the stream, or gives it these settings. What it holds stays.
    Outcome SetUp(const StreamSettings& settings);
    /// How far the changes of `node` have come, and its last message. Outcome::Nothing: nothing has been stored, and
    /// `position` is empty. A server that lags behind the others may tell of an earlier message than the last.
    Outcome Last(const std::string& node, Position* position, Buffer* changes);
    /// Waits until what has been sent before is stored, or never will be: stores a message of no meaning behind it. Until
    /// then the engine may store what an earlier Publish was for that came to Outcome::Away, in spite of a later one: the
    /// servers of a cluster (nats-server 2.9) hold a message against the last one of its subject when they take it, and
    /// not when it gets its place.
    Outcome Settle(const std::string& node);
    /// Stores changes of `node`, the list's last one being `position.number` of `position.journal`, if the message
    /// `position.sequence` is its last one; then that becomes the number of the new message.
    Outcome Publish(const std::string& node, const Buffer& changes, Position* position);
    /// Stores a piece of an attachment. One that is there already stays, with the same bytes: to expect none would let the
    /// servers of a cluster become different, see HasValue in bucket.h.
    Outcome PublishPiece(const std::string& subject, const void* bytes, std::size_t size);

    const std::string& Problem() const { return problem; }
    /// For what is asked of the engine elsewhere, once Connect has succeeded.
    natsConnection* Connection() const { return connection; }
    bool IsConnected() const { return connection != nullptr && !natsConnection_IsClosed(connection); }
    jsCtx* Streams() const { return stream; }
    /// What came of an operation that was named `what`. Keeps what failed for Problem().
    Outcome Note(const std::string& what, natsStatus status, jsErrCode code = static_cast<jsErrCode>(0));

private:
    Outcome Store(natsMsg* message, uint64_t after, uint64_t* sequence);

    const EngineAddress address;
    natsConnection* connection = nullptr;
    jsCtx* stream = nullptr;
    std::string problem;
};

} // namespace fleet

#endif
