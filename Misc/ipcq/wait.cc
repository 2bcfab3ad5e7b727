#include "Misc/ipcq/wait.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>

#include <sys/time.h>

#include "Misc/detail/timedcall.h"
#include "Misc/wire/blocks.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long StepSeconds = 10;   // after which a wait looks whether its peer still lives
static const long LongestSlice = 128; // milliseconds between two drains of a wait

namespace zeloo {

// One slice of a wait: the alarm goes off after `milliseconds`, and then every second, so that it is not lost.
static void ArmSlice(long milliseconds)
{
    struct itimerval slice = {};
    slice.it_value.tv_usec = milliseconds * 1000;
    slice.it_interval.tv_sec = 1;
    setitimer(ITIMER_REAL, &slice, nullptr);
}

// Whether the alarm of the slice has gone off: it then counts from a whole second again.
static bool SliceIsOver(long milliseconds)
{
    struct itimerval left;
    getitimer(ITIMER_REAL, &left);
    return left.it_value.tv_sec > 0 || left.it_value.tv_usec > milliseconds * 1000;
}

static int64_t MillisecondsNow()
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

// Runs `call`, which blocks and gives 0 or an `errno`, until the alarm goes off after `seconds` (0: not at all) or
// another signal comes; both give EINTR.
template <class Call>
static int WaitFor(long seconds, IPCQBase* waiter, Call call)
{
    TimedCall limit(seconds);
    if (waiter == nullptr)
        return call();
    const int64_t end = MillisecondsNow() + seconds * 1000;
    for (long slice = 1;; slice = std::min(2 * slice, LongestSlice)) {
        ArmSlice(slice);
        const int error = call();
        if (error != EINTR || !SliceIsOver(slice) || MillisecondsNow() >= end)
            return error;
        waiter->IPCDrain();
    }
}

static short CodeOfFailure(int error, const char* what, long line)
{
    if (QueueIsGone(error))
        return ErrorReporter::SERVER_GONE;
    ReportQueueFailure(error, line, what);
    return ErrorReporter::IPC_ERROR;
}

// Tries `call`, which gives 0 or an `errno`, without waiting, and waits in steps while it gives `busy`. What the peer
// and the time say comes back as `gone` and `late`.
template <class Call>
static short TryThenWait(Call call, int busy, long step, long checkPID, long maxTimeToWait, IPCQBase* waiter,
                         short gone, short late, const char* what)
{
    const long rounds = step != 0 ? maxTimeToWait / step : 0;
    const auto wait = [&] { return WaitFor(step, waiter, [&] { return call(0); }); };
    int error = call(IPC_NOWAIT);
    if (error == busy)
        error = wait();
    for (long round = 1; error == EINTR; round++) {
        if (checkPID != 0 && !process_exists(checkPID))
            return gone;
        if (rounds > 0 && round >= rounds)
            return late;
        error = wait();
    }
    return error == 0 ? short(ErrorReporter::NO_ERRORS) : CodeOfFailure(error, what, __LINE__);
}

short SendMessage(int queue, IPCQMessage* message, long checkPID, long maxTimeToWait, IPCQBase* waiter)
{
    return TryThenWait([=](int flags) { return PutMessage(queue, message, flags); }, EAGAIN, StepSeconds, checkPID,
                       maxTimeToWait, waiter, ErrorReporter::IPC_SEND_PROCESS_GONE, ErrorReporter::IPC_SEND_TIME_OUT,
                       "ipc_send failure");
}

short ReceiveMessage(int queue, long channel, ReceivedMessage& message, MessageCheck check, long checkPID,
                     long maxTimeToWait, IPCQBase* waiter)
{
    const long step = checkPID != 0 ? StepSeconds : maxTimeToWait;
    const short code = TryThenWait([&](int flags) { return TakeMessage(queue, channel, message, check, flags); },
                                   ENOMSG, step, checkPID, maxTimeToWait, waiter, ErrorReporter::IPC_RECV_PROCESS_GONE,
                                   ErrorReporter::IPC_RECV_TIME_OUT, "ipc_recv failure");
    if (code != ErrorReporter::NO_ERRORS)
        std::memset(static_cast<void*>(&message.msg()), 0, sizeof(IPCQMessage));
    return code;
}

} // namespace zeloo

short ipc_send(int qid, long ToChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait)
{
    if (CheckPID != 0 && !process_exists(CheckPID))
        return ErrorReporter::IPC_SEND_PROCESS_GONE;
    if (pmsg->msg_data_len < 0 || pmsg->msg_data_len > zeloo::wire::MostInlineData) {
        zeloo::ReportQueueFailure(EINVAL, __LINE__, "ipc_send failure");
        return ErrorReporter::IPC_ERROR;
    }
    pmsg->mtype = static_cast<int32_t>(ToChannel);
    if (pmsg == &LocalMsg)
        return zeloo::SendMessage(qid, pmsg, CheckPID, MaxTimeToWait, nullptr);
    svr4::MessageArea<IPCQMessage> area;
    std::memcpy(&area.record, pmsg, offsetof(IPCQMessage, msg_data) + static_cast<size_t>(pmsg->msg_data_len));
    return zeloo::SendMessage(qid, &area.record, CheckPID, MaxTimeToWait, nullptr);
}

short ipc_recv(int QId, long FromChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait)
{
    if (pmsg == &LocalMsg)
        return zeloo::ReceiveMessage(QId, FromChannel, zeloo::LocalMessage, zeloo::CompleteMessage, CheckPID,
                                     MaxTimeToWait, nullptr);
    zeloo::ReceivedMessage message;
    const short code =
        zeloo::ReceiveMessage(QId, FromChannel, message, zeloo::CompleteMessage, CheckPID, MaxTimeToWait, nullptr);
    const size_t used = code == 0 ? sizeof pmsg->mtype + message.length : 0;
    std::memcpy(static_cast<void*>(pmsg), &message.msg(), used);
    std::memset(reinterpret_cast<char*>(pmsg) + used, 0, sizeof(IPCQMessage) - used);
    return code;
}
