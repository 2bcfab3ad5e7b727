#include <cstddef>

#include "Misc/records.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: layout.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

// Both records are external interfaces, shared with builds of other compilers, word sizes and ages.

static_assert(sizeof(IPCQMessage) == 2004);
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

static_assert(sizeof(TliMsgStruct) == 1904);
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
