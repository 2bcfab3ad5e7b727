#include "Misc/ipctli.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <optional>

#include "Misc/Error/report.h"
#include "Misc/detail/text.h"
#include "Misc/detail/timedcall.h"
#include "Misc/ipctli/failure.h"
#include "svr4/tli.h"

using zeloo::Terminated;

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

static_assert(sizeof(TliMsgStruct) == 1904, "the record of a connection is an external interface");
static_assert(offsetof(TliMsgStruct, object) == 0);
static_assert(offsetof(TliMsgStruct, QueueExistCheck) == 2);
static_assert(offsetof(TliMsgStruct, senders_version) == 4);
static_assert(offsetof(TliMsgStruct, parts_left) == 24);
static_assert(offsetof(TliMsgStruct, send_data_length) == 26);
static_assert(offsetof(TliMsgStruct, curr_data_offset) == 28);
static_assert(offsetof(TliMsgStruct, event) == 32);
static_assert(offsetof(TliMsgStruct, orignode) == 34);
static_assert(offsetof(TliMsgStruct, origprog) == 114);
static_assert(offsetof(TliMsgStruct, response_rqd) == 194);
static_assert(offsetof(TliMsgStruct, ack_rqd) == 196);
static_assert(offsetof(TliMsgStruct, result_code) == 198);
static_assert(offsetof(TliMsgStruct, alloc_data_length) == 200);
static_assert(offsetof(TliMsgStruct, msg_data) == 204);

static const long ReceiveSeconds = 900;
static const int BlockSize = sizeof(TliMsgStruct::msg_data);
static const long LongestData = (INT16_MAX + 1L) * BlockSize - 1;
static const unsigned LargestTransfer = 1U << 30;
static const unsigned GrowthStep = 1U << 20;
static const int RecordsAtOnce = 16; // of one event, handed to the transport or taken from it in one call

// Whether a record carries on after `received` of `total` bytes, and the records after it can carry the rest.
static bool RecordFits(const TliMsgStruct& msg, int32_t received, int32_t total)
{
    const int64_t length = msg.send_data_length;
    const int64_t rest = int64_t(total) - received - length;
    return msg.alloc_data_length == total && msg.curr_data_offset == received && length >= 0 && length <= BlockSize &&
           msg.parts_left >= 0 && rest >= 0 && rest <= int64_t(msg.parts_left) * BlockSize;
}

static bool FirstRecordFits(const TliMsgStruct& msg)
{
    return Terminated(msg.senders_version) && Terminated(msg.orignode) && Terminated(msg.origprog) &&
           RecordFits(msg, 0, msg.alloc_data_length) && (msg.alloc_data_length > 0 || msg.parts_left == 0);
}

// Puts the data of a record, which has been checked, into its place. The buffer grows ahead of the data, in steps;
// with the last byte it has the size of the whole. False when memory fails.
static bool PlaceData(const TliMsgStruct& msg, Buffer& Data)
{
    const unsigned offset = static_cast<unsigned>(msg.curr_data_offset);
    const unsigned length = static_cast<unsigned>(msg.send_data_length);
    if (offset + length > Data.Size()) {
        const unsigned total = static_cast<unsigned>(msg.alloc_data_length);
        Data.PutDataAt(std::min(total, std::max(2 * Data.Size(), GrowthStep)), "", 0);
    }
    if (offset + length > Data.Size())
        return false;
    Data.PutDataAt(offset, msg.msg_data, length);
    return true;
}

short IPCTli::send(const char* buff, long bsize)
{
    for (long sent = 0; sent < bsize;) {
        const unsigned rest = static_cast<unsigned>(std::min<long>(bsize - sent, LargestTransfer));
        const int n = svr4::t_snd(fd, buff + sent, rest, 0);
        if (n < 0)
            return TCP_ERROR;
        sent += n;
    }
    return NO_ERRORS;
}

// The code of a t_rcv that gave `n`, 0 or less, with its reason printed.
static short ReceiveFailure(int fd, int n)
{
    if (n == 0) {
        zeloo::PrintFailure("t_recv failed: ", "recv zero data:");
        return ErrorReporter::TCP_ERROR;
    }
    if (svr4::t_errno == svr4::TLOOK)
        return ErrorReporter::SERVER_GONE;
    if (svr4::t_errno == svr4::TSYSERR && errno == EINTR)
        return ErrorReporter::IPC_RECV_TIME_OUT;
    zeloo::PrintFailure("t_recv failed: ", "error on recv:");
    std::cout << "tlook is: " << svr4::t_look(fd) << std::endl;
    return ErrorReporter::TCP_ERROR;
}

short IPCTli::recv(char* buff, long bsize)
{
    if (bsize <= 0)
        return NO_ERRORS;
    std::memset(buff, 0, static_cast<size_t>(bsize));
    long received = 0;
    return Receive(buff, bsize, bsize, &received);
}

// Receives until `*received`, the number of bytes at `buff`, has become at least `enough`; takes up to `room`.
short IPCTli::Receive(char* buff, long enough, long room, long* received)
{
    int n = 1;
    {
        std::optional<zeloo::TimedCall> limit; // made when something has to be waited for, and then for all of it
        for (; *received < enough && n > 0; *received += std::max(n, 0)) {
            if (!limit && svr4::t_look(fd) == 0)
                limit.emplace(ReceiveSeconds);
            const unsigned rest = static_cast<unsigned>(std::min<long>(room - *received, LargestTransfer));
            n = svr4::t_rcv(fd, buff + *received, rest, nullptr);
        }
    }
    return n > 0 ? short(NO_ERRORS) : ReceiveFailure(fd, n);
}

short IPCTli::send_block(TliMsgStruct* pmsg, const void* ptr, long len)
{
    if (len < 0 || len > LongestData || (ptr == nullptr && len > 0)) {
        zeloo::Report(*this, WARNING, BAD_IPC_PARAMETER, 0, ZELOO_HERE,
                      "tcp_send_block data or data length not valid.");
        return TCP_ERROR;
    }
    const char* data = static_cast<const char*>(ptr);
    pmsg->alloc_data_length = static_cast<int32_t>(len);
    // Not rounded up: a length that is a multiple of the block size ends with an empty block, on which receivers rely.
    pmsg->parts_left = static_cast<int16_t>(len / BlockSize);
    pmsg->curr_data_offset = 0;
    TliMsgStruct records[RecordsAtOnce];
    size_t count = 0;
    do {
        const int32_t rest = pmsg->alloc_data_length - pmsg->curr_data_offset;
        pmsg->send_data_length = static_cast<int16_t>(std::min<int32_t>(rest, BlockSize));
        if (pmsg->send_data_length > 0)
            std::memcpy(pmsg->msg_data, data + pmsg->curr_data_offset, static_cast<size_t>(pmsg->send_data_length));
        records[count++] = *pmsg;
        if (count == RecordsAtOnce || pmsg->parts_left == 0) {
            const short code = send(reinterpret_cast<const char*>(records), long(count * sizeof records[0]));
            if (code != NO_ERRORS)
                return code;
            count = 0;
        }
        pmsg->parts_left--;
        pmsg->curr_data_offset += pmsg->send_data_length;
    } while (pmsg->parts_left >= 0);
    return NO_ERRORS;
}

short IPCTli::recv_block(TliMsgStruct* pmsg, Buffer& Data)
{
    Data.PurgeContents();
    short code = recv(reinterpret_cast<char*>(pmsg), sizeof *pmsg);
    if (code == NO_ERRORS)
        code = FirstRecordFits(*pmsg) ? ReceiveData(*pmsg, Data) : RefuseRecord();
    if (code != NO_ERRORS)
        Data.PurgeContents();
    return code;
}

// Gathers the data of the event whose first record, which has been checked, is given.
short IPCTli::ReceiveData(const TliMsgStruct& first, Buffer& Data)
{
    const int32_t total = first.alloc_data_length;
    if (total == 0)
        return NO_ERRORS;
    // An event for which there is no memory is refused at once. But a large block is not kept while its data is only
    // announced.
    Data.ReSize(static_cast<unsigned>(total));
    if (Data.Size() != static_cast<unsigned>(total))
        return RefuseForMemory(total);
    if (Data.Size() > GrowthStep)
        Data.PurgeContents();
    if (!PlaceData(first, Data))
        return RefuseForMemory(total);

    return first.parts_left >= 1 ? ReceiveLaterRecords(first, Data) : short(NO_ERRORS);
}

// Takes the later records of an event, as many at a time as are there, and no byte of the next event.
short IPCTli::ReceiveLaterRecords(const TliMsgStruct& first, Buffer& Data)
{
    const long size = sizeof(TliMsgStruct);
    TliMsgStruct records[RecordsAtOnce];
    long filled = 0; // bytes of `records`
    int next = 0;    // the first of them that has not been taken
    int32_t received = first.send_data_length;
    for (int partsLeft = first.parts_left - 1; partsLeft >= 0; partsLeft--, next++) {
        if (next * size == filled)
            filled = next = 0;
        const long room = size * std::min(RecordsAtOnce, next + partsLeft + 1);
        const short code = Receive(reinterpret_cast<char*>(records), size * (next + 1), room, &filled);
        if (code != NO_ERRORS)
            return code;
        const TliMsgStruct& record = records[next];
        if (record.parts_left != partsLeft || !RecordFits(record, received, first.alloc_data_length))
            return RefuseRecord();
        if (!PlaceData(record, Data))
            return RefuseForMemory(first.alloc_data_length);
        received += record.send_data_length;
    }
    return NO_ERRORS;
}

// Nothing after a malformed record can be trusted to be the start of another.
short IPCTli::RefuseRecord()
{
    Tshutdown();
    Tclose();
    zeloo::Report(*this, WARNING, TCP_ERROR, 0, ZELOO_HERE, "Malformed record received, connection closed.");
    return TCP_ERROR;
}

short IPCTli::RefuseForMemory(int bytes)
{
    Tshutdown();
    Tclose();
    zeloo::Report(*this, WARNING, OUT_OF_MEMORY, ENOMEM, ZELOO_HERE, "tcp_recv_block allocation of %d bytes failed.",
                  bytes);
    return OUT_OF_MEMORY;
}
