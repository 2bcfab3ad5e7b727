// SPDX-License-Identifier: BSD-2-Clause
// What the records say, and whether they can be believed.
#ifndef MISC_WIRE_RECORDS_H
#define MISC_WIRE_RECORDS_H

#include <cstddef>

#include "Misc/records.h"
#include "Misc/wire/blocks.h"

namespace zeloo::wire {

// ---- On a queue ----

/// Whether the header and the inline data that it announces lie within the `length` bytes that came behind the type.
bool IsComplete(const IPCQMessage& message, size_t length);

/// The block that a complete record carries.
Block BlockOf(const IPCQMessage& message);

/// Whether a record of `length` bytes is a sound first block for the process `receiver`, as far as it can tell by itself:
/// it is complete, its texts are terminated, its block fits into its event, and another process sent it who can be
/// answered. A block in a shared-memory segment needs one of `segmentSize` bytes; negative: there is none.
bool StartsEvent(const IPCQMessage& message, size_t length, int64_t segmentSize, long receiver);

/// Whether a record of `length` bytes from the partner carries on its event: a complete later block, with its segment
/// (`segmentSize` as above) if it names one.
bool ContinuesEvent(const IPCQMessage& message, size_t length, int64_t segmentSize);

/// Whose a record on a channel of a transfer is.
enum class Owner {
    Partner,  // it belongs to the transfer
    Self,     // the own record for somebody else, which he has not read yet
    Stranger, // it belongs to two others
    Nobody    // it is cut short
};

/// Whose the record of `length` bytes is for the process `self` that has to do with `partner`.
Owner OwnerOf(const IPCQMessage& message, size_t length, long partner, long self);

/// Makes `*message` the acknowledgement of a first block by the process `receiver`.
void MakeAck(IPCQMessage* message, int32_t receiver);

/// Puts a block, whose bytes begin at `data`, into a record.
void PutBlock(IPCQMessage* message, const Block& block, const char* data);

/// Puts the number and the offset of a block that is not there any more into a record: what its owner may look at when
/// the last block has been sent.
template <class Record>
void PutPlace(Record* record, const Block& block)
{
    record->parts_left = static_cast<int16_t>(block.partsLeft);
    record->curr_data_offset = block.offset;
}

// ---- On a connection ----

/// The block that a record carries.
Block BlockOf(const TliMsgStruct& record);

/// Whether the texts of a first record end within their fields. What it says of its block a Gatherer tells.
bool HasSoundTexts(const TliMsgStruct& record);

/// Puts a block, whose bytes begin at `data`, into a record.
void PutBlock(TliMsgStruct* record, const Block& block, const char* data);

/// Reverses the bytes of every integer.
void ReverseIntegers(TliMsgStruct* record);

/// Turns a record that is about to be sent, or has come, from the host's byte order into that of the connections, which
/// is little-endian, or back.
inline void Exchange(TliMsgStruct* record)
{
    if (__BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
        ReverseIntegers(record);
}

} // namespace zeloo::wire

#endif
