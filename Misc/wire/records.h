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

/// Whether a record of `length` bytes is a sound first block, as far as it can tell by itself: it is complete, its
/// texts are terminated, its block fits into its event, and somebody sent it who can be answered. A block in a
/// shared-memory segment needs one of `segmentSize` bytes; negative: there is none.
bool StartsEvent(const IPCQMessage& message, size_t length, int64_t segmentSize);

/// Whether a record of `length` bytes carries on an event from `sender`: a complete later block of that process, with
/// its segment (`segmentSize` as above) if it names one.
bool ContinuesEvent(const IPCQMessage& message, size_t length, int64_t segmentSize, int32_t sender);

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

} // namespace zeloo::wire

#endif
