#include "Misc/ipcq.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <iostream>
#include <new>

#include <unistd.h>

#include "Misc/detail/text.h"
#include "Misc/detail/timedcall.h"
#include "Misc/proginfo.h"
#include "Misc/unixproc.h"
#include "svr4/ipc.h"

using zeloo::DumpText;
using zeloo::Terminated;

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipcq.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static_assert(sizeof(IPCQMessage) == 2004, "the record on the queue is an external interface");
static_assert(offsetof(IPCQMessage, mtype) == 0);
static_assert(offsetof(IPCQMessage, senders_version) == 4);
static_assert(offsetof(IPCQMessage, senders_pid) == 24);
static_assert(offsetof(IPCQMessage, object) == 28);
static_assert(offsetof(IPCQMessage, event) == 30);
static_assert(offsetof(IPCQMessage, destprog) == 32);
static_assert(offsetof(IPCQMessage, origprog) == 112);
static_assert(offsetof(IPCQMessage, orignode) == 192);
static_assert(offsetof(IPCQMessage, response_rqd) == 272);
static_assert(offsetof(IPCQMessage, ack_rqd) == 274);
static_assert(offsetof(IPCQMessage, result_code) == 276);
static_assert(offsetof(IPCQMessage, padding1) == 278);
static_assert(offsetof(IPCQMessage, alloc_data_length) == 280);
static_assert(offsetof(IPCQMessage, parts_left) == 284);
static_assert(offsetof(IPCQMessage, padding2) == 286);
static_assert(offsetof(IPCQMessage, curr_data_offset) == 288);
static_assert(offsetof(IPCQMessage, shmem_id) == 292);
static_assert(offsetof(IPCQMessage, shmem_size) == 296);
static_assert(offsetof(IPCQMessage, msg_data_len) == 300);
static_assert(offsetof(IPCQMessage, msg_data) == 304);

static const char ProgramDirectory[] = "/opt/orv/bin/";
static const char ResizingTool[] = "/opt/orv/bin/.orvsys "; // with its trailing blank
static const int ResizingToolArgument = 2;
static const long ResizingToolSeconds = 15;
static const int KeyProject = 1;
static const int AccessMode = 0660;
static const int RecommendedQueueBytes = 500736;
static const int SystemMessageLimit = 2048;
static const int BlocksOnAQueue = 15;
static const int RetrySeconds = 2;
static const long StepSeconds = 10;   // after which a wait looks whether its peer still lives
static const long LongestSlice = 128; // milliseconds between two drains of a wait
static const long AckSeconds = 300;
static const int MaxBlockSize = sizeof(IPCQMessage::msg_data);
static const int MaxPartsLeft = INT16_MAX;
static const unsigned MaxSavedMessages = 256000; // an array holds no more
static const int16_t MultiBlockAck = static_cast<int16_t>(0xFFFE);
static const int16_t MultiBlockData = static_cast<int16_t>(0xFFFD);

int16_t IPCMessageMaxDataLen = MaxBlockSize;

// The last positive value of IPCMessageMaxDataLen, within the record.
static int BlockSize()
{
    static int16_t lastPositive = MaxBlockSize;
    if (IPCMessageMaxDataLen > 0)
        lastPositive = std::min<int16_t>(IPCMessageMaxDataLen, MaxBlockSize);
    return lastPositive;
}

// Formats and makes a report of a free function; `error` is the `errno` that it shows. Keeps `errno`.
__attribute__((format(printf, 5, 6))) static void Report(short severity, short type, int error, long line,
                                                         const char* format, ...)
{
    const int savedErrno = errno;
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    ErrorReporter reporter;
    errno = error;
    reporter._ReportError(severity, type, text, ModuleId(), line);
    errno = savedErrno;
}

template <>
const char* SafeArray<IPCQMsg>::ElementName()
{
    return "IPCQMsg";
}
template class SafeArray<IPCQMsg>;

// ---- Records ----------------------------------------------------------------------------------------------------

// A record as it comes off the queue, in place. One byte more is asked for than a message may have, so that one that
// is too long is noticed.
struct RecordArea {
    struct Record {
        IPCQMessage msg;
        char excess[4];
    };
    svr4::MessageArea<Record> area;
    size_t length; // bytes received behind the type

    IPCQMessage& msg() { return area.record.msg; }
    const IPCQMessage& msg() const { return area.record.msg; }
};

static RecordArea Local;
IPCQMessage& LocalMsg = Local.area.record.msg;

typedef bool (*RecordCheck)(const RecordArea&);

static bool AnyRecord(const RecordArea&)
{
    return true;
}

// Whether the record's header and inline data lie within what was received.
static bool RecordFits(const RecordArea& record)
{
    if (record.length < size_t(IPCMessageNonDataSize) || record.length > size_t(IPCMessageDataSize))
        return false;
    const int32_t length = record.msg().msg_data_len;
    return length >= 0 && size_t(length) <= record.length - IPCMessageNonDataSize;
}

static bool SegmentHolds(long shmid, int64_t size)
{
    struct shmid_ds status;
    return size >= 0 && shmctl(static_cast<int>(shmid), IPC_STAT, &status) == 0 && size_t(size) <= status.shm_segsz;
}

static int64_t BlockLength(const IPCQMessage& msg)
{
    return msg.shmem_id >= 0 ? msg.shmem_size : msg.msg_data_len;
}

// Whether a block carries on after `received` of `total` bytes, and the blocks after it can carry the rest.
static bool BlockFits(const IPCQMessage& msg, int32_t received, int32_t total)
{
    const int64_t length = BlockLength(msg);
    const int64_t rest = int64_t(total) - received - length;
    if (msg.alloc_data_length != total || msg.curr_data_offset != received || length < 0 || rest < 0)
        return false;
    if (msg.parts_left < 0 || (msg.parts_left == 0 && rest > 0))
        return false;
    if (msg.shmem_id >= 0)
        return SegmentHolds(msg.shmem_id, length);
    return rest <= int64_t(msg.parts_left) * MaxBlockSize;
}

// Whether a record is a sound first block. Every block but the last carries something, so a total has a most number
// of blocks; a transfer is tied to its sender's process id.
static bool FirstBlockFits(const RecordArea& record)
{
    const IPCQMessage& msg = record.msg();
    if (!RecordFits(record) || !Terminated(msg.senders_version) || !Terminated(msg.destprog) ||
        !Terminated(msg.origprog) || !Terminated(msg.orignode))
        return false;
    if (!BlockFits(msg, 0, msg.alloc_data_length))
        return false;
    if (msg.parts_left == 0)
        return true;
    const int64_t rest = msg.alloc_data_length - BlockLength(msg);
    return msg.alloc_data_length > 0 && msg.parts_left - 1 <= rest && msg.senders_pid > 0;
}

// Takes the oldest sound message of a channel (0: of any) off the queue; the bytes that it did not fill become zero.
// The others are dropped. Returns 0 or the `errno` of msgrcv.
static int TakeMessage(int qid, long channel, RecordArea& record, RecordCheck fits, int flags)
{
    for (;;) {
        const ssize_t n = svr4::msgrcv(qid, &record.area.record, IPCMessageDataSize + 1, channel, flags | MSG_NOERROR);
        if (n < 0)
            return errno;
        record.length = static_cast<size_t>(n);
        const size_t used = sizeof record.msg().mtype + record.length;
        if (used < sizeof(IPCQMessage))
            std::memset(reinterpret_cast<char*>(&record.area.record) + used, 0, sizeof(IPCQMessage) - used);
        if (fits(record))
            return 0;
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, 0, __LINE__,
               "Malformed message dropped from queue %d.", qid);
    }
}

// Takes the messages that wait on a channel off the queue and drops them.
static void DiscardMessages(int qid, long channel)
{
    svr4::MessageArea<int32_t> area;
    while (svr4::msgrcv(qid, &area.record, 0, channel, IPC_NOWAIT | MSG_NOERROR) >= 0) {
    }
}

static const char* SpecialEventName(int16_t event)
{
    switch (event) {
    case MultiBlockAck: return " (Multi-Block-Ack)";
    case MultiBlockData: return " (Multi-Block-Data)";
    case 0: return " (NULL)";
    default: return "";
    }
}

void DumpIPCMessage(const IPCQMessage* pmsg, std::ostream& out)
{
    out << "IPCQMessage: \n\n";
    out << "mtype (to_pid)    = " << pmsg->mtype << '\n';
    DumpText("senders_version   = ", pmsg->senders_version, out);
    out << "senders_pid       = " << pmsg->senders_pid << "\n\n";
    out << "object            = " << pmsg->object << '\n';
    out << "event             = " << pmsg->event << SpecialEventName(pmsg->event) << "\n\n";
    DumpText("destprog          = ", pmsg->destprog, out);
    DumpText("origprog          = ", pmsg->origprog, out);
    DumpText("orignode          = ", pmsg->orignode, out);
    out << "response_rqd      = " << pmsg->response_rqd << '\n';
    out << "ack_rqd           = " << pmsg->ack_rqd << '\n';
    out << "result_code       = " << pmsg->result_code << '\n';
    out << "alloc_data_length = " << pmsg->alloc_data_length << "\n\n";
    out << "parts_left        = " << pmsg->parts_left << '\n';
    out << "curr_data_offset  = " << pmsg->curr_data_offset << "\n\n";
    out << "shmem_id          = " << pmsg->shmem_id << '\n';
    out << "shmem_size        = " << pmsg->shmem_size << '\n';
    if (pmsg->shmem_id >= 0) {
        out << "data in shared memory segment\n";
        return;
    }
    out << "msg_data_len = " << pmsg->msg_data_len << '\n';
    out << "msg_data = ";
    const int32_t length = std::clamp<int32_t>(pmsg->msg_data_len, 0, MaxBlockSize);
    Buffer::hexdumpOn(pmsg->msg_data, static_cast<unsigned>(length), out);
}

// ---- Queue resources --------------------------------------------------------------------------------------------

int ftok_orvm(const char* fileptr)
{
    if (fileptr == nullptr)
        return -1;
    if (std::strchr(fileptr, '/') != nullptr)
        return ftok(fileptr, KeyProject);
    char path[4096];
    int key = -1;
    if (std::snprintf(path, sizeof path, "%s%s", ProgramDirectory, fileptr) < int(sizeof path))
        key = ftok(path, KeyProject);
    // The daemon's own key file has one place only: no second try for it.
    if (key == -1 && std::strcmp(fileptr, "orvd") != 0)
        key = ftok(fileptr, KeyProject);
    return key;
}

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

// Reports that `what` failed, and why.
static void ReportFailure(long line, const char* what, int error)
{
    Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, error, line, "%s because %s", what,
           GetQueueErrorMsg(error));
}

short process_exists(long pid)
{
    return UnixProcess::ProcessExists(pid);
}

int create_queue(const char* fileptr, long ServerPID)
{
    const int key = ftok_orvm(fileptr);
    if (key < 0) {
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, __LINE__,
               "ftok of \"%s\" failed, can't create unique queue", zeloo::TextOrEmpty(fileptr));
        return -1;
    }
    const int semid = semget(key, 1, IPC_CREAT | AccessMode);
    if (semid < 0) {
        ReportFailure(__LINE__, "Can't create semaphore", errno);
        return -1;
    }
    if (svr4::set_semaphore_pid(semid, 0, ServerPID) < 0) {
        ReportFailure(__LINE__, "Can't create semaphore", errno);
        delete_semaphore(semid);
        return -1;
    }
    const int msqid = msgget(key, IPC_CREAT | IPC_EXCL | AccessMode);
    if (msqid < 0) {
        const int error = errno;
        delete_semaphore(semid);
        ReportFailure(__LINE__, "Can't create message queue", error);
        return -1;
    }
    check_q_sizes(msqid);
    check_max_data_size(msqid);
    return msqid;
}

static int OpenQueue(key_t key, int TimeOutValue)
{
    int msqid = msgget(key, AccessMode);
    for (int waited = 0; msqid < 0 && waited < TimeOutValue; waited += RetrySeconds) {
        sleep(RetrySeconds);
        msqid = msgget(key, AccessMode);
    }
    return msqid;
}

int connect_to_queue(const char* fileptr, short TimeOutValue, long* pServerPID, long RequestedServerPID)
{
    *pServerPID = -1;
    const int key = ftok_orvm(fileptr);
    if (key < 0)
        return -1;
    const int msqid = OpenQueue(key, TimeOutValue);
    if (msqid < 0)
        return -1;

    const int semid = semget(key, 0, AccessMode);
    if (semid < 0 && errno == ENOENT) {
        msgctl(msqid, IPC_RMID, nullptr); // nobody can find an owner of this queue any more: make room for the next
        return -1;
    }
    if (RequestedServerPID >= 0)
        *pServerPID = RequestedServerPID;
    else if (semid >= 0)
        *pServerPID = svr4::semaphore_pid(semid, 0);
    if (!is_a_live_server_process(msqid, *pServerPID))
        return -1;
    check_max_data_size(msqid);
    return msqid;
}

static void RaiseQueueLimit(int msqid, struct msqid_ds& status)
{
    const int before = static_cast<int>(status.msg_qbytes);
    status.msg_qbytes = RecommendedQueueBytes;
    if (msgctl(msqid, IPC_SET, &status) < 0)
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_QUEUE_TOO_SMALL, errno, __LINE__,
               "%s Current: %d Recommended %d", "max bytes on ipc queue too small", before, RecommendedQueueBytes);
}

static void RunResizingTool(int msqid, int before)
{
    char command[200];
    std::snprintf(command, sizeof command, "%s -c %d -q %d -s %d", ResizingTool, ResizingToolArgument, msqid,
                  RecommendedQueueBytes);
    UnixProcess tool(command, UnixProcess::wait_at_construction, ResizingToolSeconds);

    struct msqid_ds status;
    if (msgctl(msqid, IPC_STAT, &status) < 0) {
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, __LINE__,
               "Can't IPC_STAT after orvsys on queue %d.", msqid);
        return;
    }
    const int after = static_cast<int>(status.msg_qbytes);
    if (after == before)
        Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL, 0, __LINE__,
               "Failed to change IPC Queue %d from %d to %d bytes.", msqid, before, RecommendedQueueBytes);
    else
        Report(ErrorReporter::NOTICE, ErrorReporter::IPC_QUEUE_TOO_SMALL, 0, __LINE__,
               "Changed IPC Queue %d from %d to %d bytes.", msqid, before, after);
}

void check_q_sizes(int msqid)
{
    if (IPCMessageDataSize > SystemMessageLimit)
        Report(ErrorReporter::PANIC, ErrorReporter::IPC_QUEUE_TOO_SMALL, 0, __LINE__,
               "IPCMessage size too large (%d bytes).", IPCMessageDataSize);
    struct msqid_ds status;
    if (msgctl(msqid, IPC_STAT, &status) < 0) {
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, __LINE__, "Can't IPC_STAT queue %d.", msqid);
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
    BlockSize(); // takes note of the last positive value
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

short is_a_live_server_process(int msqid, long ServerPID)
{
    const int semid = get_semid_from_msqid(msqid);
    if (semid < 0)
        return 0;
    int alive = 0;
    short found = 0;
    const int slots = svr4::semaphore_count(semid);
    for (int slot = 0; slot < slots; slot++) {
        const long pid = svr4::semaphore_pid(semid, slot);
        if (pid <= 0)
            continue;
        if (process_exists(pid)) {
            alive++;
            found |= pid == ServerPID;
        } else {
            svr4::set_semaphore_pid(semid, slot, 0);
        }
    }
    if (alive == 0)
        delete_q_and_semaphore(msqid);
    return found;
}

static void ReportDeletion(long line, const char* object, int id)
{
    if (errno != EPERM && errno != EINVAL)
        Report(ErrorReporter::WARNING, ErrorReporter::IPC_ERROR, errno, line, "Unable to delete %s %d because %s",
               object, id, GetQueueErrorMsg(errno));
}

void delete_semaphore(int semid)
{
    if (semctl(semid, 0, IPC_RMID) < 0)
        ReportDeletion(__LINE__, "semaphore", semid);
}

void delete_q_and_semaphore(int msqid)
{
    const int semid = get_semid_from_msqid(msqid); // by the queue's key: to be asked while there is a queue
    if (msgctl(msqid, IPC_RMID, nullptr) < 0)
        ReportDeletion(__LINE__, "message queue", msqid);
    if (semid >= 0)
        delete_semaphore(semid);
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
    if (shmid < 0 || shmid > INT32_MAX || offset < 0 || offset > INT32_MAX || size > INT32_MAX ||
        !SegmentHolds(shmid, size))
        return 0;
    void* segment = shmat(static_cast<int>(shmid), nullptr, SHM_RDONLY);
    if (segment == reinterpret_cast<void*>(-1))
        return 0;
    Data.PutDataAt(static_cast<unsigned>(offset), segment, static_cast<unsigned>(size));
    shmdt(segment);
    return 1;
}

void delete_shmem_id(long shmid)
{
    shmctl(static_cast<int>(shmid), IPC_RMID, nullptr);
}

void DrainIPCMessages(int ORVM_msqid, long FromChannel, IPCQMsgSafeArray& MsgArray)
{
    static IPCQMsg* spare = nullptr; // kept from call to call, as most of them find nothing
    const int savedErrno = errno;
    RecordArea record;
    while (MsgArray.Quantity() < MaxSavedMessages) {
        if (spare == nullptr)
            spare = new (std::nothrow) IPCQMsg;
        if (spare == nullptr || TakeMessage(ORVM_msqid, FromChannel, record, RecordFits, IPC_NOWAIT) != 0)
            break;
        IPCQMsg* holder = spare;
        spare = nullptr;
        holder->msg = record.msg();
        MsgArray.AddItem(holder);
    }
    errno = savedErrno;
}

void DumpIPCStatus(int ORVM_msqid, std::ostream& out)
{
    struct msqid_ds status = {};
    if (msgctl(ORVM_msqid, IPC_STAT, &status) < 0)
        out << "error in msgctl\n";
    out << "msg_qbytes = " << status.msg_qbytes << '\n';
    out << "msg_cbytes = " << svr4::queue_cbytes(status) << '\n';
    out << "msg_qnum   = " << status.msg_qnum << '\n';
    out << "IPCMessageDataSize =    " << IPCMessageDataSize << '\n';
    out << "IPCMessageNonDataSize = " << IPCMessageNonDataSize << '\n';
    out << "IPCMessageMaxDataLen =  " << IPCMessageMaxDataLen << '\n';
}

void DumpIPCMessages(int ORVM_msqid, std::ostream& out)
{
    RecordArea record;
    while (TakeMessage(ORVM_msqid, 0, record, AnyRecord, IPC_NOWAIT) == 0) {
        out << "Message stranded on queue:\n";
        DumpIPCMessage(&record.msg(), out);
        // A record cut short names no segment: its field is zero, and segment 0 is somebody else's.
        if (RecordFits(record) && record.msg().shmem_id >= 0)
            delete_shmem_id(record.msg().shmem_id);
    }
}

// ---- Send and receive -------------------------------------------------------------------------------------------

// The channel of receiver R's acknowledgement for sender S, and that of the blocks after the first from S to R.
static long AckChannel(long senderPID, long receiverPID)
{
    return 0x0EFFFFFFL - senderPID + receiverPID;
}

static long DataChannel(long senderPID, long receiverPID)
{
    return 0x0FFFFFFFL - senderPID + receiverPID;
}

static int PutMessage(int qid, IPCQMessage* pmsg, int flags)
{
    const size_t length = static_cast<size_t>(IPCMessageNonDataSize + pmsg->msg_data_len);
    return svr4::msgsnd(qid, pmsg, length, flags) == 0 ? 0 : errno;
}

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
//
// A `waiter` saves its own mail again and again meanwhile. What arrives after it began to wait may be just what
// fills the queue: two processes that send to each other would wait for each other until their limits.
template <class Call>
static int Block(long seconds, IPCQBase* waiter, Call call)
{
    zeloo::TimedCall limit(seconds);
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
    if (error == EINVAL || error == EIDRM)
        return ErrorReporter::SERVER_GONE;
    ReportFailure(line, what, error);
    return ErrorReporter::IPC_ERROR;
}

// ipc_send of a record that lies in a MessageArea.
static short SendRecord(int qid, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait, IPCQBase* waiter)
{
    const long rounds = MaxTimeToWait / StepSeconds;
    const auto wait = [=] { return Block(StepSeconds, waiter, [=] { return PutMessage(qid, pmsg, 0); }); };
    int error = PutMessage(qid, pmsg, IPC_NOWAIT);
    if (error == EAGAIN)
        error = wait();
    for (long round = 1; error == EINTR; round++) {
        if (CheckPID != 0 && !process_exists(CheckPID))
            return ErrorReporter::IPC_SEND_PROCESS_GONE;
        if (rounds > 0 && round >= rounds)
            return ErrorReporter::IPC_SEND_TIME_OUT;
        error = wait();
    }
    return error == 0 ? short(ErrorReporter::NO_ERRORS) : CodeOfFailure(error, "ipc_send failure", __LINE__);
}

short ipc_send(int qid, long ToChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait)
{
    if (CheckPID != 0 && !process_exists(CheckPID))
        return ErrorReporter::IPC_SEND_PROCESS_GONE;
    if (pmsg->msg_data_len < 0 || pmsg->msg_data_len > MaxBlockSize) {
        ReportFailure(__LINE__, "ipc_send failure", EINVAL);
        return ErrorReporter::IPC_ERROR;
    }
    pmsg->mtype = static_cast<int32_t>(ToChannel);
    if (pmsg == &LocalMsg)
        return SendRecord(qid, pmsg, CheckPID, MaxTimeToWait, nullptr);
    svr4::MessageArea<IPCQMessage> area;
    std::memcpy(&area.record, pmsg, offsetof(IPCQMessage, msg_data) + static_cast<size_t>(pmsg->msg_data_len));
    return SendRecord(qid, &area.record, CheckPID, MaxTimeToWait, nullptr);
}

static short AwaitRecord(int qid, long channel, RecordArea& record, RecordCheck fits, long CheckPID, long MaxTimeToWait,
                         IPCQBase* waiter)
{
    const long interval = CheckPID != 0 ? StepSeconds : MaxTimeToWait;
    const long rounds = interval != 0 ? MaxTimeToWait / interval : 0;
    // Malformed messages are dropped within the call: they give nobody more time.
    const auto take = [&](int flags) { return TakeMessage(qid, channel, record, fits, flags); };
    const auto wait = [&] { return Block(interval, waiter, [&] { return take(0); }); };
    int error = take(IPC_NOWAIT);
    if (error == ENOMSG)
        error = wait();
    for (long round = 1; error == EINTR; round++) {
        if (CheckPID != 0 && !process_exists(CheckPID))
            return ErrorReporter::IPC_RECV_PROCESS_GONE;
        if (rounds > 0 && round >= rounds)
            return ErrorReporter::IPC_RECV_TIME_OUT;
        error = wait();
    }
    if (error == 0)
        return ErrorReporter::NO_ERRORS;
    if (error == ENOENT)
        return ErrorReporter::SERVER_GONE;
    return CodeOfFailure(error, "ipc_recv failure", __LINE__);
}

// ipc_recv in place. A `waiter` must not wait on the channel of its own mail.
static short ReceiveRecord(int qid, long channel, RecordArea& record, RecordCheck fits, long CheckPID,
                           long MaxTimeToWait, IPCQBase* waiter)
{
    const short code = AwaitRecord(qid, channel, record, fits, CheckPID, MaxTimeToWait, waiter);
    if (code != ErrorReporter::NO_ERRORS)
        std::memset(static_cast<void*>(&record.msg()), 0, sizeof(IPCQMessage));
    return code;
}

short ipc_recv(int QId, long FromChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait)
{
    if (pmsg == &LocalMsg)
        return ReceiveRecord(QId, FromChannel, Local, RecordFits, CheckPID, MaxTimeToWait, nullptr);
    RecordArea record;
    const short code = ReceiveRecord(QId, FromChannel, record, RecordFits, CheckPID, MaxTimeToWait, nullptr);
    const size_t used = code == 0 ? sizeof pmsg->mtype + record.length : 0;
    std::memcpy(static_cast<void*>(pmsg), &record.msg(), used);
    std::memset(reinterpret_cast<char*>(pmsg) + used, 0, sizeof(IPCQMessage) - used);
    return code;
}

InternalQMessage::InternalQMessage()
    : object(0), event(0), origprog(), orignode(), response_rqd(0), ack_rqd(0), result_code(0)
{
}

InternalQMessage::InternalQMessage(const InternalQMessage& other) = default;

InternalQMessage::~InternalQMessage() = default;

template <>
const char* SafeArray<InternalQMessage>::ElementName()
{
    return "InternalQMessage";
}
template class SafeArray<InternalQMessage>;

InternalQMessageSafeArray* InternalQMsgsPtr = nullptr;

// ---- IPCQBase ---------------------------------------------------------------------------------------------------

// How far an event that travels in several blocks has come.
struct IPCQBase::Transfer {
    int32_t sender;
    int32_t total;
    int32_t received;
    int16_t partsLeft;

    // Whether the record in LocalMsg is the block that comes next.
    bool Continues() const
    {
        return RecordFits(Local) && LocalMsg.event == MultiBlockData && LocalMsg.senders_pid == sender &&
               LocalMsg.parts_left == partsLeft - 1 && BlockFits(LocalMsg, received, total);
    }

    // Puts the data of LocalMsg, which has been checked, into its place.
    bool Place(Buffer& Data)
    {
        if (LocalMsg.shmem_id >= 0) {
            if (!copy_from_shmem(LocalMsg.shmem_id, Data, received, LocalMsg.shmem_size))
                return false;
            delete_shmem_id(LocalMsg.shmem_id);
        } else {
            Data.PutDataAt(static_cast<unsigned>(received), LocalMsg.msg_data,
                           static_cast<unsigned>(LocalMsg.msg_data_len));
        }
        received += static_cast<int32_t>(BlockLength(LocalMsg));
        partsLeft = LocalMsg.parts_left;
        return true;
    }
};

// The result of ReceiveData for an event of which a block does not fit; no error type is negative.
static const short BrokenTransfer = -1;

IPCQBase::IPCQBase(const char* pServerName)
    : ReceiveTimeOut(900), SendTimeOut(60), MyQueueID(-1), MyPID(getpid()), ServerPID(-1),
      ServerName(zeloo::NewText(pServerName)), SendersPID(-1), SendersProgramName(), SendersNodeName()
{
}

IPCQBase::~IPCQBase()
{
    delete[] ServerName;
}

void IPCQBase::dumpOn(std::ostream& out) const
{
    out << "IPCQBase::ServerName     : " << zeloo::TextOrEmpty(ServerName) << '\n';
    out << "IPCQBase::ServerPID      : " << ServerPID << '\n';
    out << "IPCQBase::MyQueueID      : " << MyQueueID << '\n';
    out << "IPCQBase::ReceiveTimeOut : " << ReceiveTimeOut << '\n';
    out << "IPCQBase::SendTimeOut    : " << SendTimeOut << '\n';
    out << "IPCQBase::MyPID          : " << MyPID << '\n';
    out << "IPCQBase::SendersPID     : " << SendersPID << '\n';
    out << "IPCQBase::SendersProgram : " << SendersProgramName << '\n';
    out << "IPCQBase::SendersNodeName: " << SendersNodeName << '\n';
}

short IPCQBase::IPCSend(const char* FromProg, const char* FromNode, const char* FromVersion, long ToPID,
                        const char* ToProg, short Object, short event, const void* ptr, long len,
                        short response_required, short ack_required, short status)
{
    const bool internal = ToPID == MyPID;
    if (!internal && MyQueueID < 0)
        return IPC_CONNECTION_LOST;
    const int blockSize = BlockSize();
    const long longest = internal ? INT32_MAX : (MaxPartsLeft + 1L) * blockSize - 1;
    if (len < 0 || len > longest || (ptr == nullptr && len > 0)) {
        errno = 0;
        _ReportError(WARNING, BAD_IPC_PARAMETER, "IPCSend data or data length not valid.", ModuleId(), __LINE__);
        return IPC_ERROR;
    }
    if (internal && (response_required || ack_required)) {
        errno = 0;
        _ReportError(WARNING, IPC_ERROR, "IPCSend deadlock condition.", ModuleId(), __LINE__);
        return IPC_ERROR; // a process cannot wait for its own reply
    }
    if (internal)
        return SendInternal(FromProg, FromNode, Object, event, ptr, len, status);

    std::memset(static_cast<void*>(&LocalMsg), 0, sizeof LocalMsg);
    LocalMsg.senders_pid = static_cast<int32_t>(MyPID);
    zeloo::CopyText(LocalMsg.senders_version, FromVersion);
    LocalMsg.object = Object;
    LocalMsg.event = event;
    zeloo::CopyText(LocalMsg.destprog, ToProg);
    zeloo::CopyText(LocalMsg.origprog, FromProg);
    zeloo::CopyText(LocalMsg.orignode, FromNode);
    LocalMsg.response_rqd = response_required;
    LocalMsg.ack_rqd = ack_required;
    LocalMsg.result_code = status;
    LocalMsg.alloc_data_length = static_cast<int32_t>(len);
    LocalMsg.shmem_id = -1;
    // Not rounded up: a length that is a multiple of the block size ends with an empty block, on which receivers rely.
    LocalMsg.parts_left = static_cast<int16_t>(len / blockSize);
    return SendBlocks(ToPID, static_cast<const char*>(ptr), blockSize);
}

short IPCQBase::SendInternal(const char* FromProg, const char* FromNode, short Object, short event, const void* ptr,
                             long len, short status)
{
    InternalQMessage* message = new (std::nothrow) InternalQMessage;
    if (message != nullptr && len > 0)
        message->data.PutDataAt(0, ptr, static_cast<unsigned>(len));
    if (message == nullptr || message->data.Size() != static_cast<unsigned>(len)) {
        _ReportError(WARNING, OUT_OF_MEMORY, "IPCSend internal data", ModuleId(), __LINE__);
        delete message;
        return OUT_OF_MEMORY;
    }
    message->object = Object;
    message->event = event;
    zeloo::CopyText(message->origprog, FromProg);
    zeloo::CopyText(message->orignode, FromNode);
    message->result_code = status;

    if (InternalQMsgsPtr == nullptr)
        InternalQMsgsPtr = new (std::nothrow) InternalQMessageSafeArray;
    if (InternalQMsgsPtr == nullptr) {
        _ReportError(WARNING, OUT_OF_MEMORY, "IPCSend internal messages", ModuleId(), __LINE__);
        delete message;
        return OUT_OF_MEMORY;
    }
    InternalQMsgsPtr->AddItem(message);
    return NO_ERRORS;
}

// Sends the event whose header stands in LocalMsg.
short IPCQBase::SendBlocks(long ToPID, const char* data, int blockSize)
{
    const bool several = LocalMsg.parts_left >= 1;
    if (several) // an acknowledgement that is there already came too late for an earlier event
        DiscardMessages(MyQueueID, AckChannel(MyPID, ToPID));

    long channel = ToPID;
    do {
        const int32_t rest = LocalMsg.alloc_data_length - LocalMsg.curr_data_offset;
        LocalMsg.msg_data_len = std::min<int32_t>(rest, blockSize);
        if (LocalMsg.msg_data_len > 0)
            std::memcpy(LocalMsg.msg_data, data + LocalMsg.curr_data_offset, size_t(LocalMsg.msg_data_len));
        short code = SendLocalMsg(channel, ToPID);
        if (code == NO_ERRORS && several && channel == ToPID) {
            code = AwaitAck(ToPID);
            channel = DataChannel(MyPID, ToPID);
            LocalMsg.event = MultiBlockData;
        }
        if (code != NO_ERRORS)
            return code;
        LocalMsg.parts_left--;
        LocalMsg.curr_data_offset += LocalMsg.msg_data_len;
    } while (LocalMsg.parts_left >= 0);
    return NO_ERRORS;
}

short IPCQBase::SendLocalMsg(long channel, long ToPID)
{
    IPCDrain();
    if (ToPID != 0 && !process_exists(ToPID))
        return IPC_SEND_PROCESS_GONE;
    LocalMsg.mtype = static_cast<int32_t>(channel);
    return SendRecord(MyQueueID, &LocalMsg, ToPID, SendTimeOut, this);
}

// The acknowledgement does not go through LocalMsg, which holds the event that is being sent.
short IPCQBase::AwaitAck(long ToPID)
{
    RecordArea ack;
    IPCDrain();
    const short code = ReceiveRecord(MyQueueID, AckChannel(MyPID, ToPID), ack, RecordFits, ToPID, AckSeconds, this);
    if (code != NO_ERRORS)
        return code;
    return ack.msg().event == MultiBlockAck ? NO_ERRORS : IPC_ERROR;
}

short IPCQBase::IPCReceive(short& REvent, long MessageSenderPID, short TimeOutEvent, Buffer& Data, short& EventStatus,
                           short& ResponseRqd, short& AckRqd)
{
    for (;;) {
        ClearEvent(Data, EventStatus, ResponseRqd, AckRqd);
        if (MessageSenderPID == 0 && InternalQMsgsPtr != nullptr && InternalQMsgsPtr->Quantity() > 0)
            return ReceiveInternal(REvent, Data, EventStatus, ResponseRqd, AckRqd);
        if (MyQueueID < 0)
            return IPC_CONNECTION_LOST;

        short code = TakeFirstBlock(MessageSenderPID);
        IPCDrain();
        if (code == IPC_RECV_TIME_OUT) {
            zeloo::CopyText(SendersProgramName, "Internal");
            zeloo::CopyText(SendersNodeName, ProgInfo::GetNodeName());
            REvent = TimeOutEvent;
            return NO_ERRORS;
        }
        if (code != NO_ERRORS)
            return code;

        REvent = LocalMsg.event;
        SendersPID = LocalMsg.senders_pid;
        zeloo::CopyText(SendersProgramName, LocalMsg.origprog);
        zeloo::CopyText(SendersNodeName, LocalMsg.orignode);
        ResponseRqd = LocalMsg.response_rqd;
        AckRqd = LocalMsg.ack_rqd;
        EventStatus = LocalMsg.result_code;
        code = ReceiveData(Data);
        if (code != BrokenTransfer)
            return code;

        errno = 0;
        _ReportError(WARNING, IPC_ERROR, "Multi-block event dropped, a block does not fit.", ModuleId(), __LINE__);
        if (MessageSenderPID != 0)
            return IPC_ERROR;
        // The event of one bad sender is no reason for a server to give up its queue: wait for the next.
    }
}

void IPCQBase::ClearEvent(Buffer& Data, short& EventStatus, short& ResponseRqd, short& AckRqd)
{
    ResponseRqd = 0;
    AckRqd = 0;
    EventStatus = 0;
    SendersProgramName[0] = '\0';
    SendersNodeName[0] = '\0';
    Data.PurgeContents();
}

short IPCQBase::ReceiveInternal(short& REvent, Buffer& Data, short& EventStatus, short& ResponseRqd, short& AckRqd)
{
    const InternalQMessage* message = InternalQMsgsPtr->first();
    REvent = message->event;
    SendersPID = MyPID;
    zeloo::CopyText(SendersProgramName, message->origprog);
    zeloo::CopyText(SendersNodeName, message->orignode);
    ResponseRqd = message->response_rqd;
    AckRqd = message->ack_rqd;
    EventStatus = message->result_code;
    const unsigned size = message->data.Size();
    if (size > 0)
        Data.PutDataAt(0, static_cast<const void*>(message->data), size);
    InternalQMsgsPtr->RemoveAt(0);
    if (Data.Size() == size)
        return NO_ERRORS;
    _ReportError(WARNING, OUT_OF_MEMORY, "Receieve event data storage", ModuleId(), __LINE__);
    return OUT_OF_MEMORY;
}

// Puts the first block of the next event into LocalMsg: a saved one if there is one, else from the queue.
short IPCQBase::TakeFirstBlock(long MessageSenderPID)
{
    while (const IPCQMsg* saved = MsgArray.first()) {
        LocalMsg = saved->msg;
        Local.length = static_cast<size_t>(IPCMessageNonDataSize + LocalMsg.msg_data_len);
        MsgArray.RemoveAt(0);
        if (FirstBlockFits(Local))
            return NO_ERRORS;
        Report(WARNING, IPC_ERROR, 0, __LINE__, "Malformed message dropped from queue %d.", MyQueueID);
    }
    return ReceiveRecord(MyQueueID, MyPID, Local, FirstBlockFits, MessageSenderPID, ReceiveTimeOut, nullptr);
}

// Gathers the data of the event whose first block stands in LocalMsg.
short IPCQBase::ReceiveData(Buffer& Data)
{
    Transfer transfer = {LocalMsg.senders_pid, LocalMsg.alloc_data_length, 0, LocalMsg.parts_left};
    if (transfer.total == 0)
        return NO_ERRORS;
    const unsigned size = static_cast<unsigned>(transfer.total);
    Data.ReSize(size);
    if (Data.Size() != size) {
        _ReportError(WARNING, OUT_OF_MEMORY, "Receieve event data storage", ModuleId(), __LINE__);
        return OUT_OF_MEMORY;
    }
    if (!transfer.Place(Data))
        return BrokenTransfer;
    return transfer.partsLeft > 0 ? ReceiveLaterBlocks(transfer, Data) : short(NO_ERRORS);
}

short IPCQBase::ReceiveLaterBlocks(Transfer& transfer, Buffer& Data)
{
    if (!process_exists(transfer.sender))
        return IPC_SEND_PROCESS_GONE;
    // The sender waits for the acknowledgement now: what is on the data channel already belongs to an earlier event,
    // which broke off.
    const long channel = DataChannel(transfer.sender, MyPID);
    DiscardMessages(MyQueueID, channel);
    short code = SendAck(transfer.sender);
    while (code == NO_ERRORS && transfer.partsLeft >= 1) {
        IPCDrain();
        code = ReceiveRecord(MyQueueID, channel, Local, AnyRecord, transfer.sender, ReceiveTimeOut, this);
        if (code == NO_ERRORS && !(transfer.Continues() && transfer.Place(Data)))
            code = BrokenTransfer;
    }
    if (code == BrokenTransfer)
        DiscardMessages(MyQueueID, channel); // those that come yet are discarded by the sender's next event
    return code;
}

short IPCQBase::SendAck(long ToPID)
{
    std::memset(static_cast<void*>(&LocalMsg), 0, sizeof LocalMsg);
    LocalMsg.senders_pid = static_cast<int32_t>(MyPID);
    LocalMsg.shmem_id = -1;
    LocalMsg.event = MultiBlockAck;
    return SendLocalMsg(AckChannel(ToPID, MyPID), ToPID);
}

void IPCQBase::IPCDrain()
{
    const bool serversMail = !is_a_server() && MyPID == ServerPID;
    if (MyQueueID >= 0 && !serversMail)
        DrainIPCMessages(MyQueueID, MyPID, MsgArray);
}

// ---- IPCQServer -------------------------------------------------------------------------------------------------

IPCQServer::IPCQServer(const char* IPCServerName) : IPCQBase(IPCServerName), ReceiveTimeOutEvent(0)
{
    ReceiveTimeOut = 0;
    long pid;
    const int msqid = connect_to_queue(ServerName, 0, &pid, -1);
    if (msqid < 0) {
        ServerPID = MyPID;
        MyQueueID = create_queue(ServerName, MyPID);
    } else if (add_serverpid_to_queue(msqid, MyPID) >= 0) {
        ServerPID = MyPID;
        MyQueueID = msqid;
    }
}

IPCQServer::~IPCQServer()
{
    Shutdown();
}

void IPCQServer::dumpOn(std::ostream& out) const
{
    out << "IPCQServer Object Begin\n";
    IPCQBase::dumpOn(out);
    out << "IPCQServer::ReceiveTimeOutEvent: " << ReceiveTimeOutEvent << '\n';
    out << "IPCQServer Object End\n";
}

void IPCQServer::SigTermProc(int)
{
    Shutdown();
}

short IPCQServer::receive_event(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd)
{
    short status = 0;
    const short code = IPCReceive(REvent, 0, ReceiveTimeOutEvent, Data, status, ResponseRqd, AckRqd);
    if (code == NO_ERRORS)
        return status;
    REvent = 0;
    if (code == SERVER_GONE || code == IPC_ERROR) {
        const int error = errno;
        delete_q_and_semaphore(MyQueueID);
        char text[150];
        std::snprintf(text, sizeof text, "Unable to receive data via ipc because %s", GetQueueErrorMsg(error));
        errno = error;
        _ReportError(PANIC, code, text, ModuleId(), __LINE__);
    }
    return code;
}

short IPCQServer::send_response(short event, short Status, const void* ptr, long len)
{
    return IPCSend(ProgInfo::GetFullProgramName(), ProgInfo::GetNodeName(), ProgInfo::GetVersion(), SendersPID,
                   SendersProgramName, -1, event, ptr, len, 0, 0, Status);
}

void IPCQServer::Shutdown()
{
    // No set (-1) is no other server either.
    if (Created() && remove_serverpid_from_queue(MyQueueID, ServerPID) <= 0) {
        if (debug() >= 2)
            DumpIPCMessages(MyQueueID, std::cout);
        delete_q_and_semaphore(MyQueueID);
    }
    MyQueueID = -1;
    delete InternalQMsgsPtr;
    InternalQMsgsPtr = nullptr;
}

// ---- IPCQClient -------------------------------------------------------------------------------------------------

IPCQClient::IPCQClient(short Object, const char* IPCServerName, unsigned short TimeOutValue, long RequestedServerPID)
    : IPCQBase(IPCServerName), DestObject(Object), ClientVersion(), ClientProgram(), ClientNode()
{
    if (IPCServerName == nullptr)
        return;
    RegisterVersion(ProgInfo::GetVersion());
    RegisterProgramName(ProgInfo::GetFullProgramName());
    RegisterNodeName(ProgInfo::GetNodeName());
    const short seconds = static_cast<short>(std::min<int>(TimeOutValue, INT16_MAX));
    MyQueueID = connect_to_queue(ServerName, seconds, &ServerPID, RequestedServerPID);
}

IPCQClient::~IPCQClient()
{
    Shutdown();
}

void IPCQClient::dumpOn(std::ostream& out) const
{
    out << "IPCQClient Object Begin\n";
    IPCQBase::dumpOn(out);
    out << "IPCQClient::DestObject   : " << DestObject << '\n';
    out << "IPCQClient::ClientVersion: " << ClientVersion << '\n';
    out << "IPCQClient::ClientProgram: " << ClientProgram << '\n';
    out << "IPCQClient::ClientNode   : " << ClientNode << '\n';
    out << "IPCQClient Object End\n";
}

void IPCQClient::SigTermProc(int)
{
    Shutdown();
}

void IPCQClient::RegisterVersion(const char* version)
{
    zeloo::CopyText(ClientVersion, version);
}

void IPCQClient::RegisterProgramName(const char* program)
{
    zeloo::CopyText(ClientProgram, program);
}

void IPCQClient::RegisterNodeName(const char* node)
{
    zeloo::CopyText(ClientNode, node);
}

short IPCQClient::send_event(short event, const void* ptr, long len)
{
    return SendToServer(event, ptr, len, 0, 0);
}

short IPCQClient::send_event_with_response(short event, const void* ptr, long len)
{
    return SendToServer(event, ptr, len, 1, 0);
}

short IPCQClient::send_event_wait_ack(short event, const void* ptr, long len)
{
    const short code = SendToServer(event, ptr, len, 0, 1);
    if (code != NO_ERRORS)
        return code;
    short ackEvent;
    Buffer ackData;
    return receive_response(ackEvent, ackData);
}

short IPCQClient::SendToServer(short event, const void* ptr, long len, short response, short ack)
{
    const short code = IPCSend(ClientProgram, ClientNode, ClientVersion, ServerPID, ServerName, DestObject, event, ptr,
                               len, response, ack, -1);
    if (code != NO_ERRORS)
        MyQueueID = -1;
    return code;
}

short IPCQClient::receive_response(short& REvent, Buffer& Data)
{
    short status = 0;
    short responseRqd;
    short ackRqd;
    const short code = IPCReceive(REvent, ServerPID, 0, Data, status, responseRqd, ackRqd);
    if (code == NO_ERRORS)
        return status;
    REvent = 0;
    return code;
}

void IPCQClient::dumpQueueInfoOn(std::ostream& out)
{
    out << "Dumping queue: " << MyQueueID << '\n';
    out << "Server: " << zeloo::TextOrEmpty(ServerName) << " ServerPID: " << ServerPID << '\n';
    out << "IPC Status: \n";
    DumpIPCStatus(MyQueueID, out);
    out << "Outstanding Messages:\n";
    DumpIPCMessages(MyQueueID, out);
}

void IPCQClient::Shutdown()
{
    if (Connected())
        IPCDrain();
}
