// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipcq/wait.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include "Misc/detail/timedcall.h"
#include "Misc/ipcq/message.h"
#include "Misc/wire/blocks.h"
#include "svr4/briefwait.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long HurriedSlice = 30; // milliseconds

static const struct timespec Moment = {0, 1000 * 1000}; // for the reader of what was put back

namespace zeloo {

static bool IsNotThere(int result) { return result == EAGAIN || result == ENOMSG; }

static bool IsToBeAwaited(int result) { return IsNotThere(result) || result == EINTR || result < 0; }

// One slice of a wait, or with a length of 0 all of a step.
class Slice {
public:
    Slice(int64_t now, long theLength, int64_t stepEnd)
        : length(theLength), begin(now), end(length > 0 ? std::min(begin + length, stepEnd) : stepEnd)
    {
    }
    /// The slice after this one.
    Slice Next(int64_t now, const Attempt& attempt, int64_t stepEnd) const
    {
        const long first = attempt.FirstSlice();
        if (first == 0)
            return Slice(now, 0, stepEnd);
        if (attempt.Hurries())
            return Slice(now, HurriedSlice, stepEnd);
        return Slice(now, std::clamp(4 * length, first, attempt.LongestSlice()), stepEnd);
    }
    int64_t Milliseconds() const { return end == Never ? 0 : std::max<int64_t>(end - begin, 1); }
    bool IsOver(int64_t now) const { return now >= end; }

    static constexpr int64_t Never = INT64_MAX;

private:
    long length;
    int64_t begin;
    int64_t end;
};

// Tries until the slice is over, or a signal comes, or the result is one that does not ask for more.
static int TryWithin(const Slice& slice, Attempt& attempt, int result)
{
    do {
        if (result == Attempt::TryLater)
            nanosleep(&Moment, nullptr);
        result = attempt.Try(0);
    } while (result < 0 && !slice.IsOver(MillisecondsNow()));
    return result;
}

// Waits after `*result`. The code that ends the wait, or 0 with the last result.
static short Wait(Attempt& attempt, const Patience& patience, short late, int* result)
{
    const auto stepFrom = [&](int64_t now) {
        return patience.seconds > 0 ? now + int64_t{patience.seconds} * 1000 : Slice::Never;
    };
    const int64_t start = MillisecondsNow();
    int64_t stepEnd = stepFrom(start);
    Slice slice(start, attempt.FirstSlice(), stepEnd);
    TimedCall alarm(0, slice.Milliseconds());
    for (long step = 1;;) {
        *result = TryWithin(slice, attempt, *result);
        if (!IsToBeAwaited(*result))
            return ErrorReporter::NO_ERRORS;
        const short code = attempt.Look();
        if (code != ErrorReporter::NO_ERRORS)
            return code;
        const int64_t now = MillisecondsNow();
        if (now >= stepEnd || !slice.IsOver(now)) {
            if (step == patience.steps)
                return late;
            step++;
            stepEnd = stepFrom(now);
        }
        slice = slice.Next(now, attempt, stepEnd);
        alarm.Arm(0, slice.Milliseconds());
    }
}

static short CodeOfFailure(int error, const char* what)
{
    if (QueueIsGone(error))
        return ErrorReporter::SERVER_GONE;
    ReportQueueFailure(error, __LINE__, what);
    return ErrorReporter::IPC_ERROR;
}

short WaitFor(Attempt& attempt, Patience patience, short late, const char* what)
{
    int result = attempt.Try(IPC_NOWAIT);
    for (svr4::BriefWait wait; IsNotThere(result) && wait.GivesWay();)
        result = attempt.Try(IPC_NOWAIT);
    if (IsToBeAwaited(result)) {
        const short code = Wait(attempt, patience, late, &result);
        if (code != ErrorReporter::NO_ERRORS)
            return code;
    }
    return result == 0 ? short(ErrorReporter::NO_ERRORS) : CodeOfFailure(result, what);
}

} // namespace zeloo

namespace {

using zeloo::Attempt;
using zeloo::Patience;

// A wait for a single message, with nothing to do meanwhile but to look at the peer.
class PlainAttempt : public Attempt {
public:
    PlainAttempt(int queueID, long peerPID, short codeWhenGone) : queue(queueID), peer(peerPID), gone(codeWhenGone) {}
    short Look() override { return peer != 0 && !process_exists(peer) ? gone : short(ErrorReporter::NO_ERRORS); }

protected:
    int queue;

private:
    long peer;
    short gone;
};

class PlainSend : public PlainAttempt {
public:
    PlainSend(int queueID, IPCQMessage* record, long peerPID)
        : PlainAttempt(queueID, peerPID, ErrorReporter::IPC_SEND_PROCESS_GONE), message(record)
    {
    }
    int Try(int flags) override { return zeloo::PutMessage(queue, message, flags); }

private:
    IPCQMessage* message;
};

class PlainReceive : public PlainAttempt {
public:
    PlainReceive(int queueID, long fromChannel, zeloo::ReceivedMessage& place, long peerPID)
        : PlainAttempt(queueID, peerPID, ErrorReporter::IPC_RECV_PROCESS_GONE), channel(fromChannel), message(place)
    {
    }
    int Try(int flags) override
    {
        const int error = zeloo::TakeMessage(queue, channel, message, flags);
        if (error != 0 || zeloo::CompleteMessage(message))
            return error;
        zeloo::ReportMalformed(queue);
        return TryAgain;
    }

private:
    long channel;
    zeloo::ReceivedMessage& message;
};

short Receive(int queue, long channel, zeloo::ReceivedMessage& message, long checkPID, long maxTimeToWait)
{
    PlainReceive attempt(queue, channel, message, checkPID);
    const Patience patience = checkPID != 0 ? Patience::InSteps(maxTimeToWait) : Patience::Exactly(maxTimeToWait);
    return zeloo::WaitFor(attempt, patience, ErrorReporter::IPC_RECV_TIME_OUT, "ipc_recv failure");
}

} // namespace

short ipc_send(int qid, long ToChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait)
{
    if (CheckPID != 0 && !process_exists(CheckPID))
        return ErrorReporter::IPC_SEND_PROCESS_GONE;
    if (pmsg->msg_data_len < 0 || pmsg->msg_data_len > zeloo::wire::MostInlineData) {
        zeloo::ReportQueueFailure(EINVAL, __LINE__, "ipc_send failure");
        return ErrorReporter::IPC_ERROR;
    }
    pmsg->mtype = static_cast<int32_t>(ToChannel);
    svr4::MessageArea<IPCQMessage> area;
    IPCQMessage* message = pmsg;
    if (pmsg != &LocalMsg) {
        message = &area.record;
        std::memcpy(message, pmsg, offsetof(IPCQMessage, msg_data) + static_cast<size_t>(pmsg->msg_data_len));
    }
    PlainSend attempt(qid, message, CheckPID);
    return zeloo::WaitFor(attempt, Patience::InSteps(MaxTimeToWait), ErrorReporter::IPC_SEND_TIME_OUT,
                          "ipc_send failure");
}

short ipc_recv(int QId, long FromChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait)
{
    zeloo::ReceivedMessage own;
    zeloo::ReceivedMessage& message = pmsg == &LocalMsg ? zeloo::LocalMessage : own;
    const short code = Receive(QId, FromChannel, message, CheckPID, MaxTimeToWait);
    if (code != ErrorReporter::NO_ERRORS)
        std::memset(static_cast<void*>(pmsg), 0, sizeof *pmsg);
    else if (pmsg != &message.msg())
        std::memcpy(static_cast<void*>(pmsg), &message.msg(), sizeof *pmsg);
    return code;
}
