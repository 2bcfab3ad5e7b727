// SPDX-License-Identifier: BSD-2-Clause
#include "bucket.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace fleet {

static const int64_t Second = 1000000000; // nanoseconds
static const int64_t MostPending = 4096;  // writes without an answer

std::string BucketStream(const std::string& bucket) { return "KV_" + bucket; }

std::string KeySubject(const std::string& bucket, const std::string& key) { return "$KV." + bucket + "." + key; }

std::string FaultKey(const std::string& node, const std::string& id)
{
    return "fault." + Token(node) + "." + Token(id);
}

std::string FaultKeys(const std::string& node) { return "fault." + Token(node) + ".*"; }

std::string NameOf(const std::string& token)
{
    std::string name;
    for (size_t i = 0; i < token.size(); i++) {
        unsigned byte = static_cast<unsigned char>(token[i]);
        if (token[i] == '=') {
            const char* digits = token.data() + i + 1;
            const char* end = token.data() + std::min(token.size(), i + 3);
            if (std::from_chars(digits, end, byte, 16).ptr != digits + 2)
                return "";
            i += 2;
        }
        name += static_cast<char>(byte);
    }
    return Token(name) == token ? name : "";
}

static Outcome SetUp(Engine& engine, const char* bucket, long replicas, int64_t lifetime)
{
    const std::string name = BucketStream(bucket), subject = KeySubject(bucket, ">");
    const char* subjects[] = {subject.c_str()};
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    config.Name = name.c_str();
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.MaxMsgsPerSubject = 1;
    config.MaxAge = lifetime;
    config.Replicas = replicas;
    config.Discard = js_DiscardNew;
    config.AllowDirect = true;
    config.AllowRollup = true;
    config.Duplicates = lifetime == 0 ? 0 : std::min(lifetime, 120 * Second); // as the engine wants it
    jsErrCode code = static_cast<jsErrCode>(0);
    natsStatus status = js_AddStream(nullptr, engine.Streams(), &config, nullptr, &code);
    if (status != NATS_OK && code == JSStreamNameExistErr)
        status = js_UpdateStream(nullptr, engine.Streams(), &config, nullptr, &code);
    return engine.Note(std::string("the bucket ") + bucket, status, code);
}

Outcome SetUpBuckets(Engine& engine, const BucketSettings& settings)
{
    const Outcome outcome = SetUp(engine, FaultBucket, settings.replicas, 0);
    return outcome == Outcome::Done ? SetUp(engine, CentreBucket, settings.replicas, settings.lease * Second) : outcome;
}

static natsStatus MakeMessage(const Write& write, natsMsg** message)
{
    return natsMsg_Create(message, write.subject.c_str(), nullptr, static_cast<const char*>(write.bytes),
                          static_cast<int>(write.size));
}

static void Expect(uint64_t revision, jsPubOptions* options)
{
    jsPubOptions_Init(options);
    options->MaxWait = LongestWait;
    options->ExpectLastSubjectSeq = revision;
    options->ExpectNoMessage = revision == 0;
}

Outcome Store(Engine& engine, Write& write)
{
    natsMsg* made = nullptr;
    natsStatus status = MakeMessage(write, &made);
    const Message message(made, natsMsg_Destroy);
    jsPubOptions options;
    Expect(write.expected, &options);
    jsPubAck* stored = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    if (status == NATS_OK)
        status = js_PublishMsg(&stored, engine.Streams(), made, &options, &code);
    if (status == NATS_OK)
        write.revision = stored->Sequence;
    jsPubAck_Destroy(stored);
    return write.outcome = engine.Note("a value for " + write.subject, status, code);
}

Outcome HasValue(Engine& engine, const std::string& bucket, const std::string& subject, bool* hasValue)
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    natsMsg* found = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status =
        js_GetLastMsg(&found, engine.Streams(), BucketStream(bucket).c_str(), subject.c_str(), &options, &code);
    natsMsg_Destroy(found);
    *hasValue = status == NATS_OK;
    return code == JSNoMessageFoundErr ? Outcome::Done : engine.Note("the value of " + subject, status, code);
}

Outcome StoreLast(Engine& engine, const std::string& subject, uint64_t* revision)
{
    jsPubOptions options;
    jsPubOptions_Init(&options);
    options.MaxWait = LongestWait;
    jsPubAck* stored = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_Publish(&stored, engine.Streams(), subject.c_str(), "", 0, &options, &code);
    if (status == NATS_OK)
        *revision = stored->Sequence;
    jsPubAck_Destroy(stored);
    return engine.Note("a value for " + subject, status, code);
}

Outcome Get(Engine& engine, const std::string& bucket, const std::string& key, std::string* value, uint64_t* revision)
{
    value->clear();
    *revision = 0;
    const std::string subject = KeySubject(bucket, key);
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    jsDirectGetMsgOptions wanted;
    jsDirectGetMsgOptions_Init(&wanted);
    wanted.LastBySubject = subject.c_str();
    natsMsg* found = nullptr;
    const natsStatus status =
        js_DirectGetMsg(&found, engine.Streams(), BucketStream(bucket).c_str(), &options, &wanted);
    const Message message(found, natsMsg_Destroy);
    if (status == NATS_OK) {
        value->assign(natsMsg_GetData(found), static_cast<size_t>(natsMsg_GetDataLength(found)));
        *revision = natsMsg_GetSequence(found);
    }
    return engine.Note("the value of " + subject, status);
}

BulkWriter::~BulkWriter() { jsCtx_Destroy(context); }

Outcome BulkWriter::Open()
{
    if (context != nullptr)
        return Outcome::Done;
    jsOptions options;
    jsOptions_Init(&options);
    options.PublishAsync.MaxPending = MostPending;
    options.PublishAsync.StallWait = LongestWait;
    options.PublishAsync.AckHandler = TakeAnswer;
    options.PublishAsync.AckHandlerClosure = this;
    return engine.Note("a way to store many values", natsConnection_JetStream(&context, engine.Connection(), &options));
}

// The message is this function's to destroy.
void BulkWriter::TakeAnswer(jsCtx* from, natsMsg* taken, jsPubAck* stored, jsPubAckErr* failure, void* closure)
{
    const Message message(taken, natsMsg_Destroy);
    BulkWriter& writer = *static_cast<BulkWriter*>(closure);
    const std::lock_guard<std::mutex> guard(writer.mutex);
    const auto at = writer.unanswered.find(natsMsg_GetSubject(taken));
    if (from != writer.asked || at == writer.unanswered.end())
        return;
    Write& write = *at->second;
    writer.unanswered.erase(at);
    if (stored != nullptr) {
        write.outcome = Outcome::Done;
        write.revision = stored->Sequence;
    } else if (failure != nullptr) {
        const bool isPassed = failure->ErrCode == JSStreamWrongLastSequenceErr;
        write.outcome = isPassed ? Outcome::Passed : failure->ErrCode != 0 ? Outcome::Refused : Outcome::Away;
        if (!isPassed)
            writer.problem = write.subject + ": " + (failure->ErrText != nullptr ? failure->ErrText : "no answer");
    }
}

Outcome BulkWriter::Send(const Write& write)
{
    natsMsg* message = nullptr;
    jsPubOptions options;
    Expect(write.expected, &options);
    natsStatus status = MakeMessage(write, &message);
    if (status == NATS_OK)
        status = js_PublishMsgAsync(context, &message, &options);
    natsMsg_Destroy(message); // null once it has been taken
    return engine.Note("a value for " + write.subject, status);
}

Outcome BulkWriter::Store(std::vector<Write>& writes)
{
    Outcome outcome = Open();
    {
        const std::lock_guard<std::mutex> guard(mutex);
        asked = context;
        problem.clear();
        for (Write& write : writes)
            unanswered[write.subject] = &write;
    }
    for (auto at = writes.begin(); at != writes.end() && outcome == Outcome::Done; ++at)
        outcome = Send(*at);
    if (outcome == Outcome::Done) {
        jsPubOptions options;
        jsPubOptions_Init(&options);
        options.MaxWait = LongestWait;
        outcome = engine.Note("values for a bucket", js_PublishAsyncComplete(context, &options));
    }
    return Settle(writes, outcome);
}

// An answer that did not come in time must not be taken for one to later writes.
Outcome BulkWriter::Settle(const std::vector<Write>& writes, Outcome outcome)
{
    jsCtx* done = nullptr;
    {
        const std::lock_guard<std::mutex> guard(mutex);
        asked = nullptr;
        unanswered.clear();
        for (const Write& write : writes)
            if (write.outcome == Outcome::Refused || write.outcome == Outcome::Away)
                outcome = write.outcome;
        if (outcome != Outcome::Done)
            std::swap(done, context);
    }
    jsCtx_Destroy(done);
    return outcome;
}

} // namespace fleet
