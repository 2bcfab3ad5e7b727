// SPDX-License-Identifier: BSD-2-Clause
// What the tests of sending and receiving over queues share: the codes, and a sender by hand.
#ifndef TESTS_UNIT_IPCQ_TRANSFER_TESTING_H
#define TESTS_UNIT_IPCQ_TRANSFER_TESTING_H

#include <chrono>
#include <functional>
#include <string>

#include "tests/unit/ipcq_testing.h"

namespace ipcq_testing {

class IpcqTransfer : public IpcqTest {};

/// A server of this process on a private queue, and what it receives.
class IpcqOneServer : public IpcqTransfer {
protected:
    PrivateQueue queue;
    Receiver server{queue.id};
    const pid_t me = getpid();
    short event = 0, status = 0, response = 0, ack = 0;
    Buffer data;

    short Receive(long from = 0, short timeOutEvent = 0)
    {
        return server.IPCReceive(event, from, timeOutEvent, data, status, response, ack);
    }
};

const short Timeout = ErrorReporter::IPC_RECV_TIME_OUT;
const short SendTimeout = ErrorReporter::IPC_SEND_TIME_OUT;
const short ReceiverGone = ErrorReporter::IPC_RECV_PROCESS_GONE;
const short SenderGone = ErrorReporter::IPC_SEND_PROCESS_GONE;
const short ServerGone = ErrorReporter::SERVER_GONE;
const short IpcError = ErrorReporter::IPC_ERROR;

/// A sender by hand: what it sends after the acknowledgement of its first block.
inline pid_t SendByHand(int queue, long to, const IPCQMessage& first, const std::function<void(long data)>& rest)
{
    return StartChild([=] {
        IPCQMessage msg = first;
        msg.senders_pid = getpid();
        CHILD_CHECK(SendRecord(queue, to, msg) == 0);
        IPCQMessage acknowledgement;
        CHILD_CHECK(TakeRecord(queue, AckChannel(getpid(), to), &acknowledgement, 0) == 300);
        CHILD_CHECK(acknowledgement.event == Ack && acknowledgement.senders_pid == to);
        CHILD_CHECK(acknowledgement.shmem_id == -1 && acknowledgement.shmem_size == 0);
        CHILD_CHECK(acknowledgement.alloc_data_length == 0 && acknowledgement.origprog[0] == 0);
        rest(DataChannel(getpid(), to));
        pause();
    });
}

/// The block after the first two bytes of "01234567", of which `last` blocks follow it.
inline IPCQMessage LaterBlock(int offset, const std::string& text, int partsLeft)
{
    IPCQMessage msg = Event(MoreData, getpid(), text);
    msg.alloc_data_length = 8;
    msg.curr_data_offset = offset;
    msg.parts_left = static_cast<int16_t>(partsLeft);
    return msg;
}

inline IPCQMessage FirstBlock(int partsLeft)
{
    IPCQMessage msg = LaterBlock(0, "01", partsLeft);
    msg.event = 30;
    msg.result_code = 6;
    return msg;
}

/// Fills a queue until a message of `room` bytes fits no more.
inline void Fill(int queue, long channel, size_t room)
{
    SetQueueBytes(queue, 16384);
    const std::string junk(room, 'j');
    while (SendRaw(queue, channel, junk.data(), junk.size(), IPC_NOWAIT) == 0) {
    }
}

/// Takes off what waits on a channel.
inline void Empty(int queue, long channel)
{
    IPCQMessage msg;
    while (TakeRecord(queue, channel, &msg) >= 0) {
    }
}

/// The seconds that `body` takes.
inline double Seconds(const std::function<void()>& body)
{
    const auto start = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace ipcq_testing

#endif
