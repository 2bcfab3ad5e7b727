// SPDX-License-Identifier: BSD-2-Clause
#include "cleaner.h"

#include <algorithm>

#include "bucket.h"
#include "clock.h"

namespace fleet {

static const int MostMessages = 100; // of one look
static const int MostPieces = 10;
static const int64_t Interval = 60 * Second; // between two removals of what settles others

Cleaner::Cleaner(Engine& engine, long keepSeconds) : engine(engine), keep(keepSeconds) {}

void Cleaner::Begin(const Place& applied)
{
    last.clear();
    obsolete.clear();
    stream = applied.stream;
    leftUntil = applied.sequence;
    left = leftUntil == 0 ? nullptr : std::make_unique<Reader>(engine, StreamName, "fault.change.*", 1, applied.stream);
}

void Cleaner::Done(const std::string& node, const Place& place)
{
    if (place.stream != stream) // numbers of another one mean nothing
        Begin({place.stream, 0, 0});
    uint64_t& stays = last[node];
    if (stays != 0 && stays != place.sequence)
        obsolete.push_back({std::min(stays, place.sequence), std::chrono::steady_clock::now()});
    stays = std::max(stays, place.sequence);
}

bool Cleaner::Delete(uint64_t sequence)
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_DeleteMsg(engine.Streams(), StreamName, sequence, &options, &code);
    return code == JSSequenceNotFoundErr || code == JSStreamMsgDeleteFailed || // it is not there any more
           engine.Note("to remove message " + std::to_string(sequence), status, code) == Outcome::Done;
}

bool Cleaner::Purge(const std::string& subjects, uint64_t before)
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = LongestWait;
    options.Stream.Purge.Subject = subjects.c_str();
    options.Stream.Purge.Sequence = before == UINT64_MAX ? 0 : before; // that many are none to the engine
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_PurgeStream(engine.Streams(), StreamName, &options, &code);
    return engine.Note("to remove " + subjects, status, code) == Outcome::Done;
}

// Each time: who sets the engine up may have changed it.
bool Cleaner::CountCopies(int64_t* copies)
{
    jsStreamInfo* info = nullptr;
    jsErrCode code = static_cast<jsErrCode>(0);
    const natsStatus status = js_GetStreamInfo(&info, engine.Streams(), StreamName, nullptr, &code);
    if (status == NATS_OK)
        *copies = info->Config->Replicas;
    jsStreamInfo_Destroy(info);
    return engine.Note(std::string("the stream ") + StreamName, status == NATS_NOT_FOUND ? NATS_ERR : status, code) ==
           Outcome::Done;
}

bool Cleaner::Remove(const std::string& subjects, uint64_t before)
{
    int64_t copies = 0;
    if (before <= 1) // the engine takes "before the first" for "all"
        return true;
    if (!CountCopies(&copies))
        return false;
    if (copies == 1)
        return Purge(subjects, before);
    Reader reader(engine, StreamName, subjects);
    std::vector<StreamMessage> messages;
    Outcome outcome = Outcome::Done;
    while ((outcome = reader.Read(MostPieces, 0, &messages)) == Outcome::Done)
        for (const StreamMessage& message : messages)
            if (message.sequence < before && !Delete(message.sequence))
                return false;
    return outcome == Outcome::Nothing;
}

// Looks through a part of what others may have left.
bool Cleaner::Look()
{
    static const std::size_t prefix = ChangeSubject("").size();
    std::vector<StreamMessage> messages;
    const Outcome outcome = left->Read(MostMessages, 0, &messages);
    if (outcome != Outcome::Done && outcome != Outcome::Nothing)
        return false;
    bool isOver = outcome == Outcome::Nothing || left->Created() != stream;
    for (auto at = messages.begin(); at != messages.end() && !isOver; ++at) {
        isOver = at->sequence > leftUntil;
        if (!isOver)
            Done(NameOf(at->Subject().substr(prefix)), {stream, at->sequence, 0});
    }
    if (isOver)
        left.reset();
    return true;
}

bool Cleaner::IsDue() const
{
    return !obsolete.empty() && std::chrono::steady_clock::now() - obsolete.front().since >= keep;
}

// Now and then: each is small.
bool Cleaner::RemoveSettled()
{
    const int64_t now = Now();
    if (now - settled < Interval && now >= settled)
        return true;
    settled = now;
    return Remove(SettledSubjects, UINT64_MAX);
}

bool Cleaner::Run()
{
    if (!RemoveSettled())
        return false;
    if (left != nullptr)
        return Look();
    for (const Turn turn; IsDue() && !turn.IsOver(); obsolete.pop_front())
        if (!Delete(obsolete.front().sequence))
            return false;
    return IsDue();
}

} // namespace fleet
