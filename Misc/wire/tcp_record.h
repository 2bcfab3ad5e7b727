// What a record of a connection says, and whether it can be believed.
#ifndef MISC_WIRE_TCP_RECORD_H
#define MISC_WIRE_TCP_RECORD_H

#include "Misc/records.h"
#include "Misc/wire/block.h"

namespace zeloo::wire {

/// The block that a record carries.
Block BlockOf(const TliMsgStruct& record);

/// Whether the texts of a first record end within their fields. What it says of its block a Gatherer tells.
bool HasSoundTexts(const TliMsgStruct& record);

/// Puts a block, whose bytes begin at `data`, into a record.
void PutBlock(TliMsgStruct* record, const Block& block, const char* data);

} // namespace zeloo::wire

#endif
