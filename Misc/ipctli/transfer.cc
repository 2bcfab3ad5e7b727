// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ipctli.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "Misc/Error/report.h"
#include "Misc/detail/standardstreams.h"
#include "Misc/detail/timedcall.h"
#include "Misc/ipctli/failure.h"
#include "Misc/wire/records.h"
#include "svr4/tli.h"

using zeloo::wire::Block;
using zeloo::wire::Cutter;
using zeloo::wire::Gatherer;

[[maybe_unused]] static const char* ModuleId() { return "$Id: ipctli.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

static const long ReceiveSeconds = 900;
static const unsigned LargestTransfer = 1U << 30;
static const unsigned GrowthStep = 1U << 20;
static const int RecordsAtOnce = 16; // of one event, handed to the transport or taken from it in one call

short IPCTli::send(const char* buff, long bsize)
{
    for (long sent = 0; sent < bsize;) {
        const unsigned rest = static_cast<unsigned>(std::min<long>(bsize - sent, LargestTransfer));
        const int n = svr4::t_snd(fd, buff + sent, rest, 0);
        if (n >= 0)
            sent += n;
        else if (svr4::t_errno != svr4::TSYSERR || errno != EINTR) // half a record would be the end of the connection
            return TCP_ERROR;
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
            char* const place = buff + *received;
            const unsigned rest = static_cast<unsigned>(std::min<long>(room - *received, LargestTransfer));
            if (!limit) {
                n = svr4::t_rcv_soon(fd, place, rest);
                if (n >= 0 || svr4::t_errno != svr4::TNODATA)
                    continue;
                limit.emplace(ReceiveSeconds);
            }
            n = svr4::t_rcv(fd, place, rest, nullptr);
        }
    }
    return n > 0 ? short(NO_ERRORS) : ReceiveFailure(fd, n);
}

short IPCTli::send_block(TliMsgStruct* pmsg, const void* ptr, long len)
{
    if (len < 0 || len > Cutter::LongestData(zeloo::wire::MostInlineData) || (ptr == nullptr && len > 0)) {
        zeloo::Report(*this, WARNING, BAD_IPC_PARAMETER, 0, ZELOO_HERE,
                      "tcp_send_block data or data length not valid.");
        return TCP_ERROR;
    }
    const char* data = static_cast<const char*>(ptr);
    TliMsgStruct records[RecordsAtOnce];
    size_t count = 0;
    Cutter blocks(static_cast<int32_t>(len), zeloo::wire::MostInlineData);
    while (!blocks.IsDone()) {
        const Block& block = blocks.Current();
        zeloo::wire::PutBlock(pmsg, block, data + block.offset);
        records[count] = *pmsg;
        zeloo::wire::Exchange(&records[count++]);
        if (count == RecordsAtOnce || block.partsLeft == 0) {
            const short code = send(reinterpret_cast<const char*>(records), long(count * sizeof records[0]));
            if (code != NO_ERRORS)
                return code;
            count = 0;
        }
        blocks.Advance();
        zeloo::wire::PutPlace(pmsg, blocks.Current());
    }
    return NO_ERRORS;
}

// Puts the data of a record into its place. The buffer grows ahead of data that comes in order, in steps; with the last
// byte it has the size of the whole. False when memory fails.
static bool PlaceData(const TliMsgStruct& record, Buffer& data)
{
    const Block block = zeloo::wire::BlockOf(record);
    const unsigned end = static_cast<unsigned>(block.offset + block.length);
    if (end > data.Size()) {
        const unsigned total = static_cast<unsigned>(block.total);
        data.PutDataAt(std::min(total, std::max({end, 2 * data.Size(), GrowthStep})), "", 0);
    }
    if (end > data.Size())
        return false;
    data.PutDataAt(static_cast<unsigned>(block.offset), record.msg_data, static_cast<unsigned>(block.length));
    return true;
}

// Whether there is memory for `size` bytes now. But a large block is not kept while its data is only announced.
static bool CanHold(unsigned size, Buffer& data)
{
    data.ReSize(size);
    const bool can = data.Size() == size;
    if (size > GrowthStep)
        data.PurgeContents();
    return can;
}

short IPCTli::recv_block(TliMsgStruct* pmsg, Buffer& Data)
{
    Data.PurgeContents();
    short code = recv(reinterpret_cast<char*>(pmsg), sizeof *pmsg);
    if (code == NO_ERRORS) {
        zeloo::wire::Exchange(pmsg);
        code = ReceiveEvent(*pmsg, Data);
    }
    if (code != NO_ERRORS)
        Data.PurgeContents();
    return code;
}

// Gathers the data of the event that begins with `first`. Takes as many of the other records at a time as are there,
// and no byte of the next event.
short IPCTli::ReceiveEvent(const TliMsgStruct& first, Buffer& Data)
{
    Gatherer event;
    Gatherer::Result result =
        zeloo::wire::HasSoundTexts(first) ? event.Begin(zeloo::wire::BlockOf(first)) : Gatherer::Misfit;
    if (result != Gatherer::Misfit && !CanHold(static_cast<unsigned>(first.alloc_data_length), Data))
        return RefuseForMemory(first.alloc_data_length);

    const TliMsgStruct* record = &first;
    TliMsgStruct records[RecordsAtOnce];
    long filled = 0; // bytes of `records`
    int next = 0;    // the first of them that has not been taken
    for (int left = first.parts_left;; left--, next++) {
        if (result == Gatherer::Misfit)
            return RefuseRecord();
        if (result == Gatherer::NoMemory || !PlaceData(*record, Data))
            return RefuseForMemory(first.alloc_data_length);
        if (result == Gatherer::Whole)
            return NO_ERRORS;

        const long size = sizeof(TliMsgStruct);
        if (next * size == filled)
            filled = next = 0;
        const long room = size * std::min(RecordsAtOnce, next + left);
        const short code = Receive(reinterpret_cast<char*>(records), size * (next + 1), room, &filled);
        if (code != NO_ERRORS)
            return code;
        zeloo::wire::Exchange(&records[next]);
        record = &records[next];
        result = event.Add(zeloo::wire::BlockOf(*record));
    }
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
