// SPDX-License-Identifier: BSD-2-Clause
#include "cleaner.h"

#include <chrono>

#include "bucket.h"

namespace fleet {

static const int64_t Second = 1000000000;       // nanoseconds
static const int64_t TrimInterval = 5 * Second; // between two times that a host's changes are removed
static const std::size_t ManyHosts = 1000;      // that are not waited for so long
static const int MostAtOnce = 100;              // removals, between which other work is looked for
static const int MostValues = 1000;

static int64_t Now()
{
    const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count();
}

Cleaner::Cleaner(Engine& engine, long keepSeconds)
    : engine(engine), keep(keepSeconds * Second),
      values(engine, BucketStream(FaultBucket), KeySubject(FaultBucket, "fault.>"))
{
}

void Cleaner::Done(const std::string& node, uint64_t sequence)
{
    if (sequence > 1) // the engine takes "before the first" for "all"
        done[node] = sequence;
}

bool Cleaner::Purge(const std::string& subject, uint64_t before)
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    options.Stream.Purge.Subject = subject.c_str();
    options.Stream.Purge.Sequence = before;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_PurgeStream(engine.Streams(), StreamName, &options, &code);
    return engine.Note("to remove " + subject, status, code) == Outcome::Done;
}

bool Cleaner::Run(const Place& applied)
{
    bool isBusy = Trim();
    isBusy = FindCleared() || isBusy;
    return RemoveCleared(applied) || isBusy;
}

// Not at once: to remove many changes of a host takes no longer than one.
bool Cleaner::Trim()
{
    const int64_t now = Now();
    if (done.empty() || (now - trimmed < TrimInterval && now >= trimmed && done.size() < ManyHosts))
        return false;
    for (int i = 0; i < MostAtOnce && !done.empty(); i++) {
        const auto first = done.begin();
        if (!Purge(ChangeSubject(first->first), first->second))
            return false;
        done.erase(first);
    }
    if (done.empty())
        trimmed = now;
    return !done.empty();
}

bool Cleaner::FindCleared()
{
    std::vector<StreamMessage> messages;
    if (values.Read(MostValues, 0, &messages) != Outcome::Done)
        return false;
    for (const StreamMessage& message : messages) {
        FleetFault fault;
        const natsMsg* value = message.message.get();
        if (ReadFleetFault(natsMsg_GetData(value), static_cast<size_t>(natsMsg_GetDataLength(value)), &fault) &&
            fault.last.kind == FaultChange::Cleared)
            cleared.push_back({message.sequence, message.time, fault.place});
    }
    return true;
}

bool Cleaner::RemoveCleared(const Place& applied)
{
    const std::string stream = BucketStream(FaultBucket);
    for (int i = 0; i < MostAtOnce; i++) {
        if (cleared.empty() || cleared.front().time > Now() - keep || applied < cleared.front().place)
            return false;
        jsErrCode code = static_cast<jsErrCode>(0);
        // That value: one that has taken its place is another.
        const natsStatus status =
            js_DeleteMsg(engine.Streams(), stream.c_str(), cleared.front().revision, nullptr, &code);
        if (status != NATS_OK && code == 0)
            return false;
        cleared.pop_front();
    }
    return true;
}

} // namespace fleet
