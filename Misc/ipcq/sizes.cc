#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <unistd.h>

#include "Misc/Error/report.h"
#include "Misc/detail/paths.h"
#include "Misc/ipcq/message.h"
#include "Misc/unixproc.h"
#include "Misc/wire/block.h"

using zeloo::Report;

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static const int ResizingToolArgument = 2;
static const long ResizingToolSeconds = 15;
static const int RecommendedQueueBytes = 500736;
static const int SystemMessageLimit = 2048;
static const int BlocksOnAQueue = 15;

int16_t IPCMessageMaxDataLen = zeloo::wire::MostInlineData;

int zeloo::SendingBlockSize()
{
    static int16_t lastPositive = wire::MostInlineData;
    if (IPCMessageMaxDataLen > 0)
        lastPositive = std::min<int16_t>(IPCMessageMaxDataLen, wire::MostInlineData);
    return lastPositive;
}

static void RaiseQueueLimit(int msqid, struct msqid_ds& status)
{
    const int before = static_cast<int>(status.msg_qbytes);
    status.msg_qbytes = RecommendedQueueBytes;
    if (msgctl(msqid, IPC_SET, &status) < 0)
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_QUEUE_TOO_SMALL, errno, ZELOO_HERE,
               "%s Current: %d Recommended %d", "max bytes on ipc queue too small", before, RecommendedQueueBytes);
}

static void RunResizingTool(int msqid, int before)
{
    char command[200];
    std::snprintf(command, sizeof command, "%s -c %d -q %d -s %d", zeloo::ResizingTool, ResizingToolArgument, msqid,
                  RecommendedQueueBytes);
    UnixProcess tool(command, UnixProcess::wait_at_construction, ResizingToolSeconds);

    struct msqid_ds status;
    if (msgctl(msqid, IPC_STAT, &status) < 0) {
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, ZELOO_HERE,
               "Can't IPC_STAT after orvsys on queue %d.", msqid);
        return;
    }
    const int after = static_cast<int>(status.msg_qbytes);
    if (after == before)
        Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL, 0, ZELOO_HERE,
               "Failed to change IPC Queue %d from %d to %d bytes.", msqid, before, RecommendedQueueBytes);
    else
        Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL, 0, ZELOO_HERE,
               "Changed IPC Queue %d from %d to %d bytes.", msqid, before, after);
}

void check_q_sizes(int msqid)
{
    if (IPCMessageDataSize > SystemMessageLimit)
        Report(ErrorReporter::PANIC, ErrorReporter::IPC_QUEUE_TOO_SMALL, 0, ZELOO_HERE,
               "IPCMessage size too large (%d bytes).", IPCMessageDataSize);
    struct msqid_ds status;
    if (msgctl(msqid, IPC_STAT, &status) < 0) {
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, ZELOO_HERE, "Can't IPC_STAT queue %d.", msqid);
        return;
    }
    if (status.msg_qbytes >= RecommendedQueueBytes)
        return;
    if (geteuid() == 0)
        RaiseQueueLimit(msqid, status);
    else
        RunResizingTool(msqid, static_cast<int>(status.msg_qbytes));
}

void check_max_data_size(int msqid)
{
    struct msqid_ds status;
    if (msgctl(msqid, IPC_STAT, &status) < 0)
        return;
    zeloo::SendingBlockSize(); // takes note of the last positive value
    // Intended: a block size is a 16-bit quantity, so the upper bits are dropped before the comparison.
    const int16_t fifteenth = static_cast<int16_t>(status.msg_qbytes / BlocksOnAQueue);
    IPCMessageMaxDataLen = std::min(IPCMessageMaxDataLen, fifteenth);
}
