// SPDX-License-Identifier: BSD-2-Clause
// Client/server messaging over System V message queues on one host.
//
// Every server name has one message queue, which carries the traffic between that server and its clients in both
// directions, and one semaphore set made with the same key, whose slots hold the process ids of the live servers.
// Clients and servers are told apart by the message type, the channel: everybody reads the channel of their own
// process id. Results named "code" are ErrorReporter::ErrorType values, 0 for success:
//
//   10  OUT_OF_MEMORY          memory for a message or its data could not be had
//   60  IPC_ERROR              unexpected failure of the host, wrong reply, refused argument
//   65  SERVER_GONE            the queue has been removed
//   66  IPC_CONNECTION_LOST    there is no queue
//   67  IPC_SEND_PROCESS_GONE  the process to which a message goes does not exist
//   68  IPC_RECV_PROCESS_GONE  the process from which a message is awaited does not exist any more
//   69  IPC_RECV_TIME_OUT      nothing came in time
//   70  IPC_SEND_TIME_OUT      the queue stayed full
#ifndef MISC_IPCQ_H
#define MISC_IPCQ_H

#include <cstdint>
#include <ostream>

#include "Misc/Error.h"
#include "Misc/SafeArray.h"
#include "Misc/buffer.h"
#include "Misc/client.h"
#include "Misc/export.h"
#include "Misc/mobject.h"
#include "Misc/records.h"

/// The largest data block put in one message: 1700, lowered by check_max_data_size to fit a small queue. It can turn
/// zero or negative there; senders then go on with the last positive value. Never more than 1700 bytes are used.
extern ZELOO_API int16_t IPCMessageMaxDataLen;

/// A message in an array.
struct ZELOO_API IPCQMsg {
    IPCQMessage msg; ///< The message, as it came.
};

template <>
ZELOO_API const char* SafeArray<IPCQMsg>::ElementName();
extern template class SafeArray<IPCQMsg>;

class ZELOO_API IPCQMsgSafeArray : public SafeArray<IPCQMsg> {
public:
    using SafeArray<IPCQMsg>::SafeArray;
};

/// The area in which every IPCQBase of the process sends and receives. A failed operation leaves in it what it held
/// last.
extern ZELOO_API IPCQMessage& LocalMsg;

/// Writes every field of `*pmsg` under its name, then a hex dump of the inline data. Safe for a message from
/// anywhere: texts end with their field, and no byte outside `msg_data` is read.
ZELOO_API void DumpIPCMessage(const IPCQMessage* pmsg, std::ostream& out);

// ---- Queue resources --------------------------------------------------------------------------------------------
// Failures give -1 or 0 and, where a contract says so, a report of severity WARNING and type IPC_ERROR. None of them
// stops the process.
//
// Whoever makes, joins or removes the queue of a name locks its key file for that moment, if it may read it, with
// signals held back. A lock that does not come within a second is done without: it only keeps order.

/// The key of a server name: ftok of the file of that name under /opt/orv/bin, or else (but not for "orvd") in the
/// current directory. A name with a "/" is a path and used as it stands. Negative when there is no such file.
ZELOO_API int ftok_orvm(const char* fileptr);

/// Why a queue operation failed: the reason for an `errno`, to stand behind "because". An unlisted number is
/// formatted into a static buffer that the next call overwrites.
ZELOO_API const char* GetQueueErrorMsg(int errornum);

/// 1 when a process with that id exists, whosever it is; 0 otherwise. 0 stands for the caller's process group.
ZELOO_API short process_exists(long pid);

/// Makes the semaphore set and the queue of a new server and sizes the queue. The queue must not exist yet; a set that
/// is there is taken over. Returns the queue's id, or -1 after a report. Then there is no new queue, and a set of
/// others is as it was; one that this call made, or whose first slot holds `ServerPID`, is removed.
ZELOO_API int create_queue(const char* fileptr, long ServerPID);

/// Opens the queue of a server name. A queue that is not there is looked for again every 2 seconds until
/// `TimeOutValue` seconds have been slept. `*pServerPID` becomes `RequestedServerPID` or, when that is negative, the
/// process id of the queue's first server; -1 when there is none. A queue without a live server is removed; one without
/// a set stays, as nothing tells whose it is. Returns the queue's id; -1, without a report, when there is no queue on
/// which that process is a live server.
ZELOO_API int connect_to_queue(const char* fileptr, short TimeOutValue, long* pServerPID, long RequestedServerPID);

/// Raises the byte limit of a new queue to 500736: as super-user itself, else through the resizing tool, which may
/// run for 15 seconds. What came of it is reported.
ZELOO_API void check_q_sizes(int msqid);

/// Lowers IPCMessageMaxDataLen to a fifteenth of the queue's byte limit, so that fifteen full blocks fit on it. The
/// fifteenth is taken as a 16-bit number: it is negative for byte limits from 491520 to 983039.
ZELOO_API void check_max_data_size(int msqid);

/// The semaphore set that belongs to a queue, or -1 with `errno`. A queue without a key has none.
ZELOO_API int get_semid_from_msqid(int msqid);

/// Registers a server process in the first free slot of the queue's set. Returns the slot, or -1 when there is no
/// set or no free slot.
ZELOO_API int add_serverpid_to_queue(int msqid, long ServerPID);

/// Frees the slots of a server process. Returns how many other servers are registered, or -1 without a set.
ZELOO_API int remove_serverpid_from_queue(int msqid, long ServerPID);

/// 1 when that process is registered and alive. Frees the slots of dead processes and removes the queue and its set
/// when no live one is left.
ZELOO_API short is_a_live_server_process(int msqid, long ServerPID);

/// Removes a semaphore set. One that is gone, or that belongs to somebody else, is passed over; other failures are
/// reported.
ZELOO_API void delete_semaphore(int semid);
/// Removes a queue and the set that belongs to it, in the same way.
ZELOO_API void delete_q_and_semaphore(int msqid);

/// A new shared-memory segment with a copy of `size` bytes, which the caller or the receiver removes; its id, or -1.
ZELOO_API int copy_to_shmem(const void* ptr, long size);

/// Copies the first `size` bytes of a segment into `Data` at `offset`. Returns 1; 0, with `Data` as before, when the
/// segment cannot be attached or is smaller than that.
ZELOO_API short copy_from_shmem(long shmid, Buffer& Data, long offset, long size);

/// Removes a segment.
ZELOO_API void delete_shmem_id(long shmid);

/// Moves the messages that wait on a channel into `MsgArray`, which owns them, oldest first. Does not wait. Malformed
/// messages are dropped with a report. Takes what was there when it began, until the array holds 8,192 messages. Stops
/// silently when memory fails; `errno` is kept.
ZELOO_API void DrainIPCMessages(int ORVM_msqid, long FromChannel, IPCQMsgSafeArray& MsgArray);

/// Writes the queue's counters and the message sizes.
ZELOO_API void DumpIPCStatus(int ORVM_msqid, std::ostream& out);

/// Takes every message off the queue, writes it and removes its shared-memory segment.
ZELOO_API void DumpIPCMessages(int ORVM_msqid, std::ostream& out);

// ---- Send and receive -------------------------------------------------------------------------------------------
// Both try without sleeping first, for some microseconds. Only when they have to wait longer do they take over SIGALRM and
// the alarm for that time; the caller's are restored. A wait may be cut short by any signal, which counts like the end of
// its 10 seconds.

/// Sends `*pmsg` (300 + `msg_data_len` bytes behind the type) on a channel, waiting while the queue is full. With a
/// non-zero `CheckPID` that process is watched: before the send and every 10 seconds of waiting. The time limit
/// counts in whole steps of 10 seconds; below 10 it waits for ever. Returns a code: 67, 70, 65, 60.
ZELOO_API short ipc_send(int qid, long ToChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait);

/// Receives the oldest message of a channel into `*pmsg`, whose remaining bytes become zero, all of them on failure.
/// With a non-zero `CheckPID` that process is watched every 10 seconds, and the time limit counts in whole steps of
/// 10 seconds (below 10 it waits for ever); without, the limit is exact, and 0 waits for ever. A message that is
/// longer than 2000 bytes, shorter than its header or longer than what was sent of it is dropped with a report, and
/// the wait goes on. Returns a code: 68, 69, 65, 60.
ZELOO_API short ipc_recv(int QId, long FromChannel, IPCQMessage* pmsg, long CheckPID, long MaxTimeToWait);

/// A SIGALRM handler that does nothing: its only effect is that a call fails with EINTR.
ZELOO_API void sigalarm(int sig);

/// An event that a process sends to itself.
class ZELOO_API InternalQMessage {
public:
    /// The destination object inside the server.
    int16_t object;
    /// The number of the event.
    int16_t event;
    char origprog[80];    ///< The program name that the sender gave.
    char orignode[80];    ///< The node name that the sender gave.
    int16_t response_rqd; ///< Not 0 when the sender waits for a response: never, as such an event is refused.
    int16_t ack_rqd;      ///< Not 0 when the sender waits for an acknowledgement: never, as such an event is refused.
    int16_t result_code;  ///< The status that the sender gave it.
    Buffer data;          ///< Its data, the message's own copy.

    /// An event of which everything is 0 or empty.
    InternalQMessage();
    /// A copy, with a copy of the data.
    InternalQMessage(const InternalQMessage& other);
    /// Frees the data.
    virtual ~InternalQMessage();
    InternalQMessage& operator=(const InternalQMessage&) = delete;
};

template <>
ZELOO_API const char* SafeArray<InternalQMessage>::ElementName();
extern template class SafeArray<InternalQMessage>;

class ZELOO_API InternalQMessageSafeArray : public SafeArray<InternalQMessage> {
public:
    using SafeArray<InternalQMessage>::SafeArray;
};

/// The events that wait for this process from itself, oldest first; null until the first is sent and after the
/// shutdown of a server.
extern ZELOO_API InternalQMessageSafeArray* InternalQMsgsPtr;

namespace zeloo {
class Mail;
struct QueueEnd;
} // namespace zeloo

class IPCQServer;
class IPCQClient;

/// One end of a server's queue: what servers and clients share. An object belongs to the process that made it: in a
/// forked child, its Shutdown, destructor and SigTermProc leave queue, semaphore set and mail alone. A program that goes
/// into the background makes it afterwards.
class ZELOO_API IPCQBase : public ErrorReporter, public MonitoredObject {
public:
    /// Copies the name, which may be null. There is no queue yet; the limits are 900 seconds for a receive and 60
    /// for a send.
    explicit IPCQBase(const char* pServerName);
    /// Frees the messages that were saved and not delivered.
    ~IPCQBase() override;
    /// 1 for the server end, 0 for a client's.
    virtual short is_a_server() = 0;
    void dumpOn(std::ostream& out) const override;

    /// Sends an event with `len` bytes of data to a process. Data larger than a block travels in several, the
    /// first of which is acknowledged by the receiver within 300 seconds; while that is awaited, what the receiver
    /// is sending to this process is acknowledged in turn and gathered for the next receives. Data whose length is
    /// a multiple of the block size is followed by an empty block. What was put on the queue for an event that
    /// failed is taken back. An event to this process itself does not use the queue: it waits in
    /// `*InternalQMsgsPtr`; one that asks for a response or an acknowledgement is refused (60, with a report). So
    /// are, with a report of type BAD_IPC_PARAMETER, a negative length, a null `ptr` with a length, and data of
    /// more than 32768 blocks. Returns a code.
    short IPCSend(const char* FromProg, const char* FromNode, const char* FromVersion, long ToPID, const char* ToProg,
                  short Object, short event, const void* ptr, long len, short response_required, short ack_required,
                  short status);

    /// Receives the next event and its data. `MessageSenderPID` 0 takes events from anybody, those of this process
    /// first; another value awaits a response from that process and watches it. Messages saved by IPCDrain come
    /// before those on the queue. When the receive limit runs out, the result is 0 with the event `TimeOutEvent`
    /// from the program "Internal" on this node.
    ///
    /// A malformed first block is dropped with a report, and the wait goes on. A later block that does not fit, and an
    /// event whose sender has gone on to another one, give 60. Within a transfer a partner that has died is noticed
    /// within a fifth of a second. Returns a code; 69 only when a later block does not come in time. What was received
    /// of a broken event stays in `Data`.
    short IPCReceive(short& REvent, long MessageSenderPID, short TimeOutEvent, Buffer& Data, short& EventStatus,
                     short& ResponseRqd, short& AckRqd);

    /// Saves the messages that wait for this process, so that its own mail does not fill the queue on which it is
    /// about to wait. They are delivered by the next receives, oldest first. A client in the server's own process
    /// saves nothing: that mail is the server's; so does a forked child. At most 8,192 messages are saved (twice as many
    /// while the process itself waits within a transfer); what is beyond stays on the queue, whose limit its senders then
    /// meet. `errno` is kept.
    void IPCDrain();

    /// Limits the wait for an event, in seconds; 0 waits for ever. A wait for a response is counted in whole steps of
    /// 10 seconds: below 10 it waits for ever, while the server lives (see ipc_recv).
    void SetReceiveTimeOut(long seconds) { ReceiveTimeOut = seconds; }
    /// Limits the wait for room on the queue, in seconds, counted in whole steps of 10: below 10 it waits for ever,
    /// while the receiver lives (see ipc_send).
    void SetSendTimeOut(long seconds) { SendTimeOut = seconds; }
    /// Bounds in seconds how long a living partner may be silent within a transfer of several blocks: each wait for an
    /// acknowledgement, for a block after the first, and for room for such a block. After that the event is dropped with
    /// a report (69 for an acknowledgement or block, 70 for room). 0, the value at first: 300 seconds for an
    /// acknowledgement, the receive limit for a block (a server then waits for ever), the send limit for room.
    void SetTransferTimeOut(long seconds) { TransferTimeOut = seconds; }

    /// The program that sent the last event that was received; empty when none was.
    const char* LastSendersProgramName() const { return SendersProgramName; }
    /// The node of the program that sent the last event that was received; empty when none was.
    const char* LastSendersNodeName() const { return SendersNodeName; }
    /// The server's process id, or -1 while it is not known.
    long GetServerPID() const { return ServerPID; }

    IPCQBase(const IPCQBase&) = delete;
    IPCQBase& operator=(const IPCQBase&) = delete;

protected:
    long ReceiveTimeOut;         ///< Seconds; 0 is no limit.
    long SendTimeOut;            ///< Seconds; 0 is no limit.
    IPCQMsgSafeArray MsgArray;   ///< Saved by IPCDrain and not yet delivered.
    int MyQueueID;               ///< The id of the queue; -1: no queue.
    long MyPID;                  ///< The process that made the object.
    long ServerPID;              ///< The server's process; -1 while it is not known.
    char* ServerName;            ///< Owned; null when none was given.
    long SendersPID;             ///< The process that sent the last event; -1 at first.
    char SendersProgramName[80]; ///< Its program name.
    char SendersNodeName[80];    ///< The name of its node.

private:
    friend class IPCQServer;
    friend class IPCQClient;
    friend class zeloo::Mail;
    ZELOO_LOCAL zeloo::QueueEnd End();
    // IPCReceive from anybody, for a server that goes on: an event of which a block does not fit, or whose sender was
    // silent for the transfer limit, is dropped with a report, and the wait goes on.
    ZELOO_LOCAL short ReceiveFromAnybody(short& REvent, short TimeOutEvent, Buffer& Data, short& EventStatus,
                                         short& ResponseRqd, short& AckRqd);
    // Puts back on the queue what was kept for others, for whose room it waits a second at most.
    ZELOO_LOCAL void GiveBackOthersMail();
    // For a handler that ends the process: drops the own mail, and puts back what was kept for others.
    ZELOO_LOCAL void LeaveQueue();
    ZELOO_LOCAL short ReceiveEvent(short& REvent, long MessageSenderPID, short TimeOutEvent, Buffer& Data,
                                   short& EventStatus, short& ResponseRqd, short& AckRqd);
    short SendInternal(const char* FromProg, const char* FromNode, short Object, short event, const void* ptr, long len,
                       short status);
    void ClearEvent(Buffer& Data, short& EventStatus, short& ResponseRqd, short& AckRqd);
    short ReceiveInternal(short& REvent, Buffer& Data, short& EventStatus, short& ResponseRqd, short& AckRqd);
    short TakeFirstBlock(long MessageSenderPID);

    long TransferTimeOut;
    zeloo::Mail* mail; // owned; null when there was no memory for it
};

/// The server end of a queue. A server process has one; it receives events from everybody and answers the last
/// sender. It belongs to the process that made it: a daemon makes it after daemonize, not before.
class ZELOO_API IPCQServer : public IPCQBase {
public:
    /// Joins the queue of that name when it has a live server and a free slot, or makes it when there is none (one
    /// whose servers are all dead is removed first). While no other server object of the process has a queue, a slot
    /// with its own process id is a dead predecessor's and counts as free. See Created.
    explicit IPCQServer(const char* IPCServerName);
    /// Shutdown.
    ~IPCQServer() override;
    /// 1.
    short is_a_server() override { return 1; }
    void dumpOn(std::ostream& out) const override;
    /// Unregisters the server as Shutdown does. The events of this process to itself stay.
    void SigTermProc(int sig) override;

    /// Whether the server has a queue: 0 when another live process serves that name.
    short Created() const { return MyQueueID >= 0; }

    /// Waits for the next event; for ever unless a receive limit is set. Returns the sender's status: -1 for the
    /// requests of clients, the status given to an event sent by this process to itself, 0 for the time-out event;
    /// a code with `REvent` 0 on failure. When the queue has gone or fails (65, 60), what is left of it is removed
    /// and the failure is a PANIC report. An event of which a block does not fit is dropped with a report, and the wait
    /// goes on: no client's bad block ends a server. But one that lives and is silent in the middle of an event holds it,
    /// for ever unless SetTransferTimeOut is used.
    short receive_event(short& REvent, Buffer& Data, short& ResponseRqd, short& AckRqd);

    /// Answers the sender of the last event. Returns a code.
    short send_response(short event, short Status, const void* ptr, long len);

    /// The event that receive_event gives when the receive limit runs out; 0 at first.
    void SetReceiveTimeOutEvent(short t_event) { ReceiveTimeOutEvent = t_event; }

    /// Unregisters the server. The last one of a queue removes it; at debug level 2 or more the messages left on it
    /// are written to the standard output first. The events of this process to itself are dropped in every case. In a
    /// forked child only the child's object loses its queue.
    void Shutdown();

private:
    short ReceiveTimeOutEvent;
};

/// The client end of a server's queue. It sends to the server's process and receives what is addressed to its own.
/// Its identity and its sends are those of ServerClient.
class ZELOO_API IPCQClient : public IPCQBase, public ServerClient<IPCQClient> {
public:
    /// Joins the queue of that name, for which it waits up to `TimeOutValue` seconds (see connect_to_queue), to talk
    /// to object `Object` of the server with process id `RequestedServerPID` (-1: whichever there is). The messages
    /// carry this program's version, full name and node. A null name joins nothing.
    ///
    /// The first client of a process on a queue drops the messages that wait there for the process's id, which were
    /// for a dead process that had it before; not so in a process that serves the queue itself.
    IPCQClient(short Object, const char* IPCServerName, unsigned short TimeOutValue = 0, long RequestedServerPID = -1);
    /// Shutdown.
    ~IPCQClient() override;
    /// 0.
    short is_a_server() override { return 0; }
    void dumpOn(std::ostream& out) const override;
    /// Takes the client's mail off the queue and drops it.
    void SigTermProc(int sig) override;

    /// Whether the client has a queue: until a send fails.
    short Connected() const { return MyQueueID >= 0; }

    /// Waits for the server's response. Returns the status that the server gave it; a code with `REvent` 0 on
    /// failure; 0 with `REvent` 0 when the receive limit runs out.
    short receive_response(short& REvent, Buffer& Data);

    /// Writes the state of the queue and its messages, which this takes off the queue. In a forked child they stay
    /// there and are not written.
    void dumpQueueInfoOn(std::ostream& out);

    /// Takes the client's mail off the queue.
    void Shutdown();

private:
    friend class ServerClient<IPCQClient>;
    short SendToServer(short event, const void* ptr, long len, short response, short ack);

    short DestObject;
    char ClientVersion[20];
    char ClientProgram[80];
    char ClientNode[80];
};

#endif
