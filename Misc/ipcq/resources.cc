// SPDX-License-Identifier: BSD-2-Clause
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include <sys/shm.h>
#include <unistd.h>

#include "Misc/Error/report.h"
#include "Misc/detail/paths.h"
#include "Misc/detail/text.h"
#include "Misc/ipcq/message.h"
#include "Misc/ipcq/resources.h"
#include "Misc/unixproc.h"
#include "Misc/wire/blocks.h"
#include "svr4/signal.h"

using zeloo::Report;

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const int AccessMode = 0660;
static const int RetrySeconds = 2;
static const int ResizingToolArgument = 2;
static const long ResizingToolSeconds = 15;
static const int RecommendedQueueBytes = 500736;
static const int SystemMessageLimit = 2048;
static const int BlocksOnAQueue = 15;
static const char NoSemaphore[] = "Can't create semaphore";
static const char NoQueue[] = "Can't create message queue";

const char* GetQueueErrorMsg(int errornum)
{
    static char unknown[40];
    switch (errornum) {
    case EIDRM: return "the ipc queue no longer exists";
    case ENOSPC: return "the system tables are full";
    case ENOENT: return "the queue does not exist";
    case EAGAIN: return "the queue is full";
    case EACCES: return "of invalid access permission";
    case EEXIST: return "the queue exists, exclusive requested";
    case EINVAL: return "of an invalid argument or the queue does not exist";
    }
    std::snprintf(unknown, sizeof unknown, "of unknown error (%d)", errornum);
    return unknown;
}

short process_exists(long pid) { return UnixProcess::ProcessExists(pid); }

int create_queue(const char* fileptr, long ServerPID)
{
    const zeloo::KeyFile file(fileptr);
    zeloo::NewQueue made;
    {
        const zeloo::NameLock lock(file);
        made = zeloo::MakeQueue(file, ServerPID);
    }
    return zeloo::FinishQueue(made, fileptr);
}

int connect_to_queue(const char* fileptr, short TimeOutValue, long* pServerPID, long RequestedServerPID)
{
    *pServerPID = -1;
    const zeloo::KeyFile file(fileptr);
    if (file.Key() < 0)
        return -1;
    int patience = zeloo::NameLock::Patience;
    for (int waited = 0;; waited += RetrySeconds) {
        {
            const zeloo::NameLock lock(file, patience);
            if (!lock.Locked())
                patience = 0; // once is enough for one that is never given back
            const int msqid = zeloo::OpenQueue(file);
            if (msqid >= 0)
                return zeloo::JoinQueue(file, msqid, pServerPID, RequestedServerPID);
        }
        if (waited >= TimeOutValue)
            return -1;
        sleep(RetrySeconds);
    }
}

namespace zeloo {

static NewQueue Failure(const char* failed) { return {-1, errno, failed}; }

// Nothing is written to a slot that may be somebody else's before there is a new queue: the lock can fail, and a process
// id that was overwritten there cannot always be put back.
NewQueue MakeQueue(const KeyFile& file, long serverPid)
{
    if (file.Key() < 0)
        return Failure(nullptr);
    int semid = semget(file.Key(), 1, IPC_CREAT | IPC_EXCL | AccessMode);
    const bool isNewSet = semid >= 0;
    if (!isNewSet && errno == EEXIST)
        semid = semget(file.Key(), 1, AccessMode);
    if (semid < 0)
        return Failure(NoSemaphore);
    if (isNewSet && svr4::set_semaphore_pid(semid, 0, serverPid) < 0) {
        const NewQueue failure = Failure(NoSemaphore);
        delete_semaphore(semid);
        return failure;
    }
    const int msqid = msgget(file.Key(), IPC_CREAT | IPC_EXCL | AccessMode);
    if (msqid < 0) {
        const NewQueue failure = Failure(NoQueue);
        if (svr4::semaphore_pid(semid, 0) == serverPid) // its own set, unless a faster one has taken it over
            delete_semaphore(semid);
        return failure;
    }
    if (!isNewSet && svr4::set_semaphore_pid(semid, 0, serverPid) < 0) {
        const NewQueue failure = Failure(NoSemaphore);
        msgctl(msqid, IPC_RMID, nullptr);
        return failure;
    }
    return {msqid, 0, nullptr};
}

int FinishQueue(const NewQueue& made, const char* name)
{
    if (made.id >= 0) {
        check_q_sizes(made.id);
        check_max_data_size(made.id);
    } else if (made.failed == nullptr) {
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, made.error, ZELOO_HERE,
               "ftok of \"%s\" failed, can't create unique queue", TextOrEmpty(name));
    } else {
        ReportQueueFailure(made.error, __LINE__, made.failed);
    }
    return made.id;
}

int OpenQueue(const KeyFile& file) { return file.Key() < 0 ? -1 : msgget(file.Key(), AccessMode); }

int JoinQueue(const KeyFile& file, int msqid, long* serverPid, long requestedPid)
{
    const int semid = semget(file.Key(), 0, AccessMode);
    if (requestedPid >= 0)
        *serverPid = requestedPid;
    else if (semid >= 0)
        *serverPid = svr4::semaphore_pid(semid, 0);
    if (!is_a_live_server_process(msqid, *serverPid)) // nor is one whose set is gone: nothing tells whose queue it is
        return -1;
    check_max_data_size(msqid);
    return msqid;
}

bool IsRegistered(int msqid, long pid)
{
    const int semid = get_semid_from_msqid(msqid);
    const int slots = semid < 0 ? 0 : svr4::semaphore_count(semid);
    for (int slot = 0; slot < slots; slot++)
        if (svr4::semaphore_pid(semid, slot) == pid)
            return true;
    return false;
}

int ReplacePredecessor(const KeyFile& file, long pid)
{
    const int msqid = OpenQueue(file);
    if (msqid < 0 || !IsRegistered(msqid, pid))
        return -1;
    remove_serverpid_from_queue(msqid, pid);
    is_a_live_server_process(msqid, pid); // removes the queue when no live server is left
    if (add_serverpid_to_queue(msqid, pid) < 0)
        return -1;
    check_max_data_size(msqid);
    return msqid;
}

} // namespace zeloo

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

int get_semid_from_msqid(int msqid)
{
    struct msqid_ds status;
    if (msgctl(msqid, IPC_STAT, &status) < 0)
        return -1;
    const key_t key = svr4::queue_key(status);
    // A private queue has no key by which a set could be found, and asking for one would make a new set.
    if (key < 0 || key == IPC_PRIVATE)
        return -1;
    return semget(key, 0, AccessMode);
}

int add_serverpid_to_queue(int msqid, long ServerPID)
{
    const int semid = get_semid_from_msqid(msqid);
    const int slots = semid < 0 ? 0 : svr4::semaphore_count(semid);
    for (int slot = 0; slot < slots; slot++)
        if (svr4::semaphore_pid(semid, slot) == 0)
            return svr4::set_semaphore_pid(semid, slot, ServerPID) < 0 ? -1 : slot;
    return -1;
}

int remove_serverpid_from_queue(int msqid, long ServerPID)
{
    const int semid = get_semid_from_msqid(msqid);
    if (semid < 0)
        return -1;
    int others = 0;
    const int slots = svr4::semaphore_count(semid);
    for (int slot = 0; slot < slots; slot++) {
        const long pid = svr4::semaphore_pid(semid, slot);
        if (pid == ServerPID)
            svr4::set_semaphore_pid(semid, slot, 0);
        else if (pid > 0)
            others++;
    }
    return others;
}

static void ReportDeletion(long line, const char* object, int id)
{
    if (errno != EPERM && errno != EINVAL)
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, ModuleId(), line,
               "Unable to delete %s %d because %s", object, id, GetQueueErrorMsg(errno));
}

static void DeleteQueue(int msqid)
{
    if (msgctl(msqid, IPC_RMID, nullptr) < 0)
        ReportDeletion(__LINE__, "message queue", msqid);
}

// Frees the slots of dead processes. How many live ones are registered; `*found` tells whether `pid` is among them.
static int CountLiveServers(int semid, long pid, short* found)
{
    int alive = 0;
    *found = 0;
    const int slots = svr4::semaphore_count(semid);
    for (int slot = 0; slot < slots; slot++) {
        const long registered = svr4::semaphore_pid(semid, slot);
        if (registered <= 0)
            continue;
        if (process_exists(registered)) {
            alive++;
            *found |= registered == pid;
        } else {
            svr4::set_semaphore_pid(semid, slot, 0);
        }
    }
    return alive;
}

short is_a_live_server_process(int msqid, long ServerPID)
{
    const int semid = get_semid_from_msqid(msqid);
    if (semid < 0)
        return 0;
    short found;
    if (CountLiveServers(semid, ServerPID, &found) > 0)
        return found;
    // Once the queue has gone a new server may take the set over, if this process is so slow that nobody waits for it.
    DeleteQueue(msqid);
    short taken;
    if (CountLiveServers(semid, 0, &taken) == 0)
        delete_semaphore(semid);
    return 0;
}

void delete_semaphore(int semid)
{
    if (semctl(semid, 0, IPC_RMID) < 0)
        ReportDeletion(__LINE__, "semaphore", semid);
}

void delete_q_and_semaphore(int msqid)
{
    const svr4::SignalsHeld held(svr4::all_but_faults()); // one that ended the process half way would leave the set
    const int semid = get_semid_from_msqid(msqid);        // by the queue's key: to be asked while there is a queue
    DeleteQueue(msqid);
    if (semid >= 0)
        delete_semaphore(semid);
}

int64_t zeloo::SegmentSize(long shmid)
{
    struct shmid_ds status;
    return shmctl(static_cast<int>(shmid), IPC_STAT, &status) == 0 ? static_cast<int64_t>(status.shm_segsz) : -1;
}

int copy_to_shmem(const void* ptr, long size)
{
    if (ptr == nullptr || size <= 0)
        return -1;
    const int shmid = shmget(IPC_PRIVATE, static_cast<size_t>(size), IPC_CREAT | IPC_EXCL | AccessMode);
    if (shmid < 0)
        return -1;
    void* segment = shmat(shmid, nullptr, 0);
    if (segment == reinterpret_cast<void*>(-1)) {
        delete_shmem_id(shmid);
        return -1;
    }
    std::memcpy(segment, ptr, static_cast<size_t>(size));
    shmdt(segment);
    return shmid;
}

short copy_from_shmem(long shmid, Buffer& Data, long offset, long size)
{
    if (shmid < 0 || shmid > INT32_MAX || offset < 0 || offset > INT32_MAX || size < 0 || size > INT32_MAX ||
        zeloo::SegmentSize(shmid) < size)
        return 0;
    void* segment = shmat(static_cast<int>(shmid), nullptr, SHM_RDONLY);
    if (segment == reinterpret_cast<void*>(-1))
        return 0;
    Data.PutDataAt(static_cast<unsigned>(offset), segment, static_cast<unsigned>(size));
    shmdt(segment);
    return 1;
}

void delete_shmem_id(long shmid) { shmctl(static_cast<int>(shmid), IPC_RMID, nullptr); }
