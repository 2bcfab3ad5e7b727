// SPDX-License-Identifier: BSD-2-Clause
// The buckets of the engine, in which each key has one value: the last that was stored.
#ifndef FLEET_BUCKET_H
#define FLEET_BUCKET_H

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "engine.h"

namespace fleet {

/// The current faults of the fleet, and how far its changes have been applied.
const char FaultBucket[] = "faults";
/// What the centres agree on for a while: its values go after the time that the bucket was set up with.
const char CentreBucket[] = "centre";

/// The key of FaultBucket that tells how far the changes have been applied.
const char PlaceKey[] = "applied";

/// The name of the stream that keeps a bucket, and the subject of a key, which may have wildcards.
std::string BucketStream(const std::string& bucket);
std::string KeySubject(const std::string& bucket, const std::string& key);

/// The key of a fault of a node in FaultBucket.
std::string FaultKey(const std::string& node, const std::string& id);
/// The keys of all faults of a node.
std::string FaultKeys(const std::string& node);
/// The name that Token() made `token` of; empty when it made none of it.
std::string NameOf(const std::string& token);

struct BucketSettings {
    long replicas = 1;
    long lease = 10; // seconds after which another centre may go on in the place of one that is silent
};

/// Makes the buckets, or gives them these settings. What they hold stays.
Outcome SetUpBuckets(Engine& engine, const BucketSettings& settings);

/// A value for a key that had the revision `expected` when it was made; 0: none.
struct Write {
    std::string subject;
    const void* bytes = nullptr;
    std::size_t size = 0;
    uint64_t expected = 0;
    // What came of it:
    Outcome outcome = Outcome::Away;
    uint64_t revision = 0; // where it is Done
};

/// Stores a value if its key still has the revision that is expected; Outcome::Passed when it hasn't.
Outcome Store(Engine& engine, Write& write);

/// Whether a key has a value, as the server has it that leads the bucket. Who expects none looks first: the servers of a
/// cluster (nats-server 2.9) find out whether a message is the first of its subject when each of them stores it, and those
/// that refuse one count it; a server that is started again may count another number than the others, takes what it has
/// stored for what it has not, and is different from then on.
Outcome HasValue(Engine& engine, const std::string& bucket, const std::string& subject, bool* hasValue);

/// Stores an empty value whatever its key has. Once that has its revision, so has all that was stored before.
Outcome StoreLast(Engine& engine, const std::string& subject, uint64_t* revision);

/// Gets the last value of a key. Outcome::Nothing: there is none.
Outcome Get(Engine& engine, const std::string& bucket, const std::string& key, std::string* value, uint64_t* revision);

/// Stores many values, each as Store does, of different keys, without waiting for one before the next is sent. It
/// belongs to the connection that the engine has when it is made, and goes before it.
class BulkWriter {
public:
    explicit BulkWriter(Engine& engine) : engine(engine) {}
    ~BulkWriter();
    BulkWriter(const BulkWriter&) = delete;
    BulkWriter& operator=(const BulkWriter&) = delete;

    /// Fills in what came of each. Done when that is known of all of them: Done or Passed.
    Outcome Store(std::vector<Write>& writes);
    /// Of the last Store: what was refused, if anything was.
    const std::string& Problem() const { return problem; }

private:
    static void TakeAnswer(jsCtx* from, natsMsg* taken, jsPubAck* stored, jsPubAckErr* failure, void* closure);
    Outcome Open();
    Outcome Send(const Write& write);
    Outcome Settle(const std::vector<Write>& writes, Outcome outcome);

    Engine& engine;
    jsCtx* context = nullptr;
    std::mutex mutex;       // of what follows: answers come in a thread of the engine's client
    jsCtx* asked = nullptr; // whose answers count
    std::unordered_map<std::string, Write*> unanswered; // by subject
    std::string problem;
};

} // namespace fleet

#endif
