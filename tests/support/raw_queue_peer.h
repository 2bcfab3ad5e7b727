// SPDX-License-Identifier: BSD-2-Clause
// A peer of the library on a message queue, over the host's calls alone:
//
//     SendRecord(qid, server, Event(1, getpid(), "data"));             // in the library's own declaration of a record
//     IPCQMessage answer;
//     EXPECT_EQ(TakeRecord(qid, getpid(), &answer), 305);
//     SendRaw(qid, RawQueueRecord(), 305);                                // by its offsets alone
#ifndef TESTS_SUPPORT_RAW_QUEUE_PEER_H
#define TESTS_SUPPORT_RAW_QUEUE_PEER_H

#include <cstdint>
#include <cstring>
#include <string>

#include <sys/ipc.h>
#include <sys/msg.h>

#include "Misc/ipcq.h"
#include "tests/support/raw_record.h"

namespace testing_support {

/// The events of an acknowledgement and of the blocks behind the first.
const short Ack = static_cast<short>(0xFFFE);
const short MoreData = static_cast<short>(0xFFFD);

/// The channels of what `receiver` acknowledges to `sender`, and of the blocks that `sender` sends behind the first.
inline long AckChannel(long sender, long receiver) { return 251658239L - sender + receiver; }
inline long DataChannel(long sender, long receiver) { return 268435455L - sender + receiver; }

/// The host's view of a message: the widened type, and what follows the record's type of four bytes.
struct RawMessage {
    long type;
    char text[4096];
};

/// Puts a message on a queue; 0, or -1 as msgsnd.
inline int SendRaw(int qid, long type, const void* text, size_t length, int flags = 0)
{
    RawMessage raw;
    raw.type = type;
    std::memcpy(raw.text, text, length);
    return msgsnd(qid, &raw, length, flags);
}

/// Puts a record on a queue, as long as its data or as `length` says.
inline int SendRecord(int qid, long type, const IPCQMessage& msg, long length = -1)
{
    const size_t used = static_cast<size_t>(length >= 0 ? length : 300 + msg.msg_data_len);
    return SendRaw(qid, type, reinterpret_cast<const char*>(&msg) + 4, used);
}

/// Takes a record off a queue; its length, or -1.
inline ssize_t TakeRecord(int qid, long type, IPCQMessage* msg, int flags = IPC_NOWAIT)
{
    RawMessage raw;
    const ssize_t n = msgrcv(qid, &raw, sizeof raw.text, type, flags);
    std::memset(static_cast<void*>(msg), 0, sizeof *msg);
    if (n >= 0) {
        msg->mtype = static_cast<int32_t>(raw.type);
        std::memcpy(reinterpret_cast<char*>(msg) + 4, raw.text, static_cast<size_t>(n));
    }
    return n;
}

/// A sound single-block event.
inline IPCQMessage Event(short event, long sender, const std::string& data = "")
{
    IPCQMessage msg;
    std::memset(static_cast<void*>(&msg), 0, sizeof msg);
    std::strcpy(msg.senders_version, "1.0");
    msg.senders_pid = static_cast<int32_t>(sender);
    msg.event = event;
    std::strcpy(msg.destprog, "server");
    std::strcpy(msg.origprog, "program");
    std::strcpy(msg.orignode, "node");
    msg.result_code = -1;
    msg.alloc_data_length = static_cast<int32_t>(data.size());
    msg.shmem_id = -1;
    msg.msg_data_len = static_cast<int32_t>(data.size());
    std::memcpy(msg.msg_data, data.data(), data.size());
    return msg;
}

/// A record of the queues by its offsets, all zeros. Its type, at offset 0, names its channel.
struct RawQueueRecord : RecordBytes {
    RawQueueRecord() : RecordBytes(2004) {}
    std::string Data() const { return bytes.substr(304, static_cast<size_t>(Get32(300))); }
};

/// Sends `length` bytes behind the type.
inline int SendRaw(int qid, const RawQueueRecord& record, size_t length)
{
    return SendRaw(qid, record.Get32(0), &record.bytes[4], length);
}

/// Waits for a record of a channel; the number of its bytes behind the type, or -1.
inline ssize_t TakeRaw(int qid, long type, RawQueueRecord* record)
{
    RawMessage raw;
    const ssize_t n = msgrcv(qid, &raw, record->bytes.size() - 4, type, 0);
    if (n >= 0) {
        record->Put32(0, raw.type);
        record->Put(4, std::string(raw.text, static_cast<size_t>(n)));
    }
    return n;
}

} // namespace testing_support

#endif
