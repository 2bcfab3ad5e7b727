#include "Misc/wire/tcp_record.h"

#include <cstring>

#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: tcp_record.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace zeloo::wire {

Block BlockOf(const TliMsgStruct& record)
{
    return {record.alloc_data_length, record.curr_data_offset, record.send_data_length, record.parts_left, true};
}

bool HasSoundTexts(const TliMsgStruct& record)
{
    return Terminated(record.senders_version) && Terminated(record.orignode) && Terminated(record.origprog);
}

void PutBlock(TliMsgStruct* record, const Block& block, const char* data)
{
    record->alloc_data_length = block.total;
    record->parts_left = static_cast<int16_t>(block.partsLeft);
    record->curr_data_offset = block.offset;
    record->send_data_length = static_cast<int16_t>(block.length);
    if (block.length > 0)
        std::memcpy(record->msg_data, data, static_cast<size_t>(block.length));
}

} // namespace zeloo::wire
