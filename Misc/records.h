// SPDX-License-Identifier: BSD-2-Clause
// The two records in which events travel: on the message queue of a host, and on a connection between hosts. Both are
// external interfaces: sizes and places of their fields are fixed. Integers travel as the comments of the records say.
#ifndef MISC_RECORDS_H
#define MISC_RECORDS_H

#include <cstdint>

#include "Misc/export.h"

/// Bytes of a queue message behind its 4-byte type.
const int32_t IPCMessageDataSize = 2000;
/// Bytes of header between the type and `msg_data`.
const int32_t IPCMessageNonDataSize = 300;

/// The message on the queue: 2004 bytes in the host's byte order, of which a sender puts 300 + `msg_data_len` behind
/// the type on the queue. Texts are terminated, unused bytes are zero.
struct ZELOO_API IPCQMessage {
    int32_t mtype;             ///< Channel: the receiver's process id, or a channel of a multi-block transfer.
    char senders_version[20];  ///< Version of the sending program.
    int32_t senders_pid;       ///< The sender's process id.
    int16_t object;            ///< Destination object inside the receiving server.
    int16_t event;             ///< 0 none; 0xFFFE acknowledges a first block, 0xFFFD is a block after the first.
    char destprog[80];         ///< The server to which it goes.
    char origprog[80];         ///< Name of the sending program.
    char orignode[80];         ///< Name of the node that it runs on.
    int16_t response_rqd;      ///< Not 0: the sender waits for a response.
    int16_t ack_rqd;           ///< Not 0: the sender waits for an acknowledgement.
    int16_t result_code;       ///< Status of a response; -1 in the requests of clients.
    int16_t padding1;          ///< 0.
    int32_t alloc_data_length; ///< Length of the event's data over all blocks.
    int16_t parts_left;        ///< Blocks that follow this one.
    int16_t padding2;          ///< 0.
    int32_t curr_data_offset;  ///< Where this block's data belongs within the whole.
    int32_t shmem_id;          ///< Shared-memory segment that holds this block's data; negative: it is inline.
    int32_t shmem_size;        ///< Bytes to copy from that segment.
    int32_t msg_data_len;      ///< Bytes of inline data.
    char msg_data[1700];       ///< The data of this block.
};

/// The record of a connection: 1904 bytes, sent and received whole, where its integers are little-endian. Texts are
/// terminated, unused bytes of the header are zero.
struct ZELOO_API TliMsgStruct {
    int16_t object;            ///< Destination object inside the server.
    int16_t QueueExistCheck;   ///< 1: asks whether that object's server exists.
    char senders_version[20];  ///< Version of the sending program.
    int16_t parts_left;        ///< Records that follow this one.
    int16_t send_data_length;  ///< Bytes of data in this record.
    int32_t curr_data_offset;  ///< Where this record's data belongs within the whole.
    int16_t event;             ///< 0 none; 0xFFFF: the server is going.
    char orignode[80];         ///< Name of the node that it runs on.
    char origprog[80];         ///< Name of the sending program.
    int16_t response_rqd;      ///< Not 0: the sender waits for a response.
    int16_t ack_rqd;           ///< Not 0: the sender waits for an acknowledgement.
    int16_t result_code;       ///< Status of a response; -1 in the requests of clients.
    int32_t alloc_data_length; ///< Length of the event's data over all records.
    char msg_data[1700];       ///< The data of this block.
};

#endif
