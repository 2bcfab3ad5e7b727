// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/records.h"

#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "Misc/wire/channels.h"
#include "tests/support/raw_tcp_peer.h"

namespace {

using namespace zeloo::wire;

IPCQMessage Message(int32_t total, int32_t offset, int32_t length, int16_t partsLeft)
{
    IPCQMessage message = {};
    message.senders_pid = 4711;
    message.event = 7;
    message.alloc_data_length = total;
    message.curr_data_offset = offset;
    message.msg_data_len = length;
    message.parts_left = partsLeft;
    message.shmem_id = -1;
    return message;
}

size_t LengthOf(const IPCQMessage& message) { return 300 + static_cast<size_t>(message.msg_data_len); }

const long Receiver = 99;

bool Starts(const IPCQMessage& message) { return StartsEvent(message, LengthOf(message), -1, Receiver); }

TEST(WireChannels, ARecordTellsForWhomItIsEvenWhereTwoPairsShareTheChannel)
{
    const long most = 4194304;
    for (const long server : {long(500), most / 2, most})
        for (const long distance : {long(-499), long(-1), long(1), long(400), most / 2 - 1}) {
            const long before = server - distance; // its blocks for the server share a channel with
            const long after = server + distance;  // the server's for this one
            ASSERT_EQ(DataChannel(before, server), DataChannel(server, after));
            EXPECT_EQ(Addressee(DataChannel(before, server), before), server);
            EXPECT_EQ(Addressee(DataChannel(server, after), server), after);
            ASSERT_EQ(AckChannel(before, server), AckChannel(server, after));
            EXPECT_EQ(Addressee(AckChannel(before, server), server), before);
            EXPECT_EQ(Addressee(AckChannel(server, after), after), server);
            EXPECT_EQ(Addressee(server, before), server) << "the own channel";
        }
}

TEST(WireChannels, AreThoseOfTheInterface)
{
    EXPECT_EQ(AckChannel(0, 0), 251658239);
    EXPECT_EQ(DataChannel(0, 0), 268435455);
    EXPECT_EQ(AckChannel(1000, 3), 251658239 - 1000 + 3);
    EXPECT_EQ(DataChannel(1000, 3), 268435455 - 1000 + 3);
    EXPECT_EQ(static_cast<uint16_t>(MultiBlockAck), 0xFFFE);
    EXPECT_EQ(static_cast<uint16_t>(MultiBlockData), 0xFFFD);
    EXPECT_EQ(static_cast<uint16_t>(ServerGoing), 0xFFFF);
}

TEST(WireChannels, ChannelsOfAnyTwoProcessesMissAllProcessIds)
{
    const long largest = 4194304;
    EXPECT_GT(AckChannel(largest, 1), largest);
    EXPECT_GT(DataChannel(largest, 1), AckChannel(1, largest));
    EXPECT_LE(DataChannel(1, largest), INT32_MAX);
}

TEST(WireQueueRecord, IsCompleteWhenHeaderAndDataCame)
{
    const IPCQMessage message = Message(10, 0, 10, 0);
    EXPECT_TRUE(IsComplete(message, 310));
    EXPECT_TRUE(IsComplete(message, 311)) << "a longer record holds its data too";
    EXPECT_TRUE(IsComplete(message, 2000));
    EXPECT_FALSE(IsComplete(message, 309));
    EXPECT_FALSE(IsComplete(message, 299));
    EXPECT_FALSE(IsComplete(message, 0));
    EXPECT_FALSE(IsComplete(message, 2001)) << "longer than any message";
    EXPECT_FALSE(IsComplete(Message(10, 0, -1, 0), 310));
    EXPECT_FALSE(IsComplete(Message(10, 0, 1701, 0), 2000));
    EXPECT_FALSE(IsComplete(Message(10, 0, INT32_MAX, 0), 2000));
}

TEST(WireQueueRecord, DescribesInlineDataOrASegment)
{
    IPCQMessage message = Message(10, 2, 3, 4);
    Block block = BlockOf(message);
    EXPECT_EQ(block.total, 10);
    EXPECT_EQ(block.offset, 2);
    EXPECT_EQ(block.length, 3);
    EXPECT_EQ(block.partsLeft, 4);
    EXPECT_TRUE(block.isInline);
    message.shmem_id = 0;
    message.shmem_size = 6;
    block = BlockOf(message);
    EXPECT_EQ(block.length, 6);
    EXPECT_FALSE(block.isInline);
}

TEST(WireQueueRecord, AFirstBlockHasTerminatedTexts)
{
    const std::function<char*(IPCQMessage&)> texts[] = {
        [](IPCQMessage& m) { return m.destprog; },
        [](IPCQMessage& m) { return m.origprog; },
        [](IPCQMessage& m) { return m.orignode; },
    };
    for (const auto& text : texts) {
        IPCQMessage message = Message(0, 0, 0, 0);
        std::memset(text(message), 'x', 79);
        EXPECT_TRUE(Starts(message));
        text(message)[79] = 'x';
        EXPECT_FALSE(Starts(message));
    }
    IPCQMessage message = Message(0, 0, 0, 0);
    std::memset(message.senders_version, 'x', 20);
    EXPECT_FALSE(Starts(message));
}

TEST(WireQueueRecord, AFirstBlockOfSeveralNamesItsSender)
{
    EXPECT_TRUE(Starts(Message(20, 0, 10, 1)));
    for (const int32_t pid : {0, -1}) {
        IPCQMessage message = Message(20, 0, 10, 1);
        message.senders_pid = pid;
        EXPECT_FALSE(Starts(message));
        message = Message(10, 0, 10, 0);
        message.senders_pid = pid;
        EXPECT_TRUE(Starts(message)) << "nobody needs to be answered";
    }
}

TEST(WireQueueRecord, EveryBlockButTheLastOfAnEventCarriesSomething)
{
    EXPECT_TRUE(Starts(Message(13, 0, 10, 4)));
    EXPECT_FALSE(Starts(Message(13, 0, 10, 5)));
}

TEST(WireQueueRecord, ABlockInASegmentNeedsOneThatIsLongEnough)
{
    IPCQMessage message = Message(10, 0, 0, 0);
    message.shmem_id = 3;
    message.shmem_size = 10;
    EXPECT_TRUE(StartsEvent(message, 300, 10, Receiver));
    EXPECT_TRUE(StartsEvent(message, 300, 4096, Receiver));
    EXPECT_FALSE(StartsEvent(message, 300, 9, Receiver));
    EXPECT_FALSE(StartsEvent(message, 300, -1, Receiver));
    message.shmem_size = -10;
    EXPECT_FALSE(StartsEvent(message, 300, 4096, Receiver));
}

TEST(WireQueueRecord, AFirstBlockOfTheReceiverItselfStartsNothing)
{
    IPCQMessage message = Message(10, 0, 10, 0);
    EXPECT_TRUE(Starts(message));
    message.senders_pid = Receiver;
    EXPECT_FALSE(Starts(message));
}

TEST(WireQueueRecord, ALaterBlockCarriesAnEventOn)
{
    IPCQMessage message = Message(20, 10, 10, 0);
    message.event = MultiBlockData;
    EXPECT_TRUE(ContinuesEvent(message, 310, -1));
    EXPECT_FALSE(ContinuesEvent(message, 309, -1)) << "cut short";
    message.event = MultiBlockAck;
    EXPECT_FALSE(ContinuesEvent(message, 310, -1)) << "of another kind";
    message.event = MultiBlockData;
    message.shmem_id = 1;
    message.shmem_size = 10;
    EXPECT_FALSE(ContinuesEvent(message, 310, 9)) << "without its segment";
    EXPECT_TRUE(ContinuesEvent(message, 310, 10));
}

TEST(WireQueueRecord, BelongsToThePartnerToItselfOrToStrangers)
{
    IPCQMessage message = Message(20, 10, 10, 0);
    EXPECT_EQ(OwnerOf(message, 310, 4711, 99), Owner::Partner);
    EXPECT_EQ(OwnerOf(message, 310, 98, 4711), Owner::Self);
    EXPECT_EQ(OwnerOf(message, 310, 98, 99), Owner::Stranger);
    EXPECT_EQ(OwnerOf(message, 310, 4711, 4711), Owner::Partner) << "what is to be taken back";
}

TEST(WireQueueRecord, BelongsToNobodyWhenItsSenderOrItsDataWereCutOff)
{
    IPCQMessage message = Message(20, 10, 10, 0);
    for (const size_t length : {size_t(0), size_t(299), size_t(2001)})
        EXPECT_EQ(OwnerOf(message, length, 4711, 99), Owner::Nobody) << length;
    EXPECT_EQ(OwnerOf(message, 309, 98, 99), Owner::Nobody) << "nothing that could be put back";
    EXPECT_EQ(OwnerOf(message, 309, 4711, 99), Owner::Partner) << "the partner's fault is the transfer's";
}

TEST(WireQueueRecord, AnAcknowledgementIsZeroButForItsFields)
{
    IPCQMessage message;
    std::memset(static_cast<void*>(&message), 0xFF, sizeof message);
    MakeAck(&message, 99);
    IPCQMessage expected = {};
    expected.senders_pid = 99;
    expected.event = MultiBlockAck;
    expected.shmem_id = -1;
    EXPECT_EQ(std::memcmp(&message, &expected, sizeof message), 0);
}

TEST(WireQueueRecord, PutsABlockIntoARecord)
{
    IPCQMessage message = {};
    PutBlock(&message, {100, 60, 5, 2, true}, "hello");
    EXPECT_EQ(message.alloc_data_length, 100);
    EXPECT_EQ(message.curr_data_offset, 60);
    EXPECT_EQ(message.msg_data_len, 5);
    EXPECT_EQ(message.parts_left, 2);
    EXPECT_EQ(message.shmem_id, -1);
    EXPECT_EQ(message.shmem_size, 0);
    EXPECT_EQ(std::string(message.msg_data, 6), std::string("hello\0", 6));
}

TEST(WireTcpRecord, DescribesItsBlock)
{
    TliMsgStruct record = {};
    PutBlock(&record, {100, 60, 5, 2, true}, "hello");
    EXPECT_EQ(record.alloc_data_length, 100);
    EXPECT_EQ(record.curr_data_offset, 60);
    EXPECT_EQ(record.send_data_length, 5);
    EXPECT_EQ(record.parts_left, 2);
    EXPECT_EQ(std::string(record.msg_data, 5), "hello");
    const Block block = BlockOf(record);
    EXPECT_EQ(block.total, 100);
    EXPECT_EQ(block.offset, 60);
    EXPECT_EQ(block.length, 5);
    EXPECT_EQ(block.partsLeft, 2);
    EXPECT_TRUE(block.isInline);
}

TEST(WireTcpRecord, TextsEndWithinTheirFields)
{
    TliMsgStruct record = {};
    EXPECT_TRUE(HasSoundTexts(record));
    std::memset(record.senders_version, 'x', sizeof record.senders_version);
    EXPECT_FALSE(HasSoundTexts(record));
    record = {};
    std::memset(record.orignode, 'x', sizeof record.orignode);
    EXPECT_FALSE(HasSoundTexts(record));
    record = {};
    std::memset(record.origprog, 'x', sizeof record.origprog);
    EXPECT_FALSE(HasSoundTexts(record));
}

TEST(WireTcpRecord, IntegersTravelLittleEndianAndNothingElseIsTouched)
{
    TliMsgStruct record = {};
    std::memset(static_cast<void*>(&record), 'x', sizeof record);
    const int16_t shorts[] = {0x0102, 0x0304, 0x0506, 0x0708, -2, 1, 0x7fff, -1};
    record.object = shorts[0];
    record.QueueExistCheck = shorts[1];
    record.parts_left = shorts[2];
    record.send_data_length = shorts[3];
    record.event = shorts[4];
    record.response_rqd = shorts[5];
    record.ack_rqd = shorts[6];
    record.result_code = shorts[7];
    record.curr_data_offset = 0x01020304;
    record.alloc_data_length = -2;
    testing_support::RawRecord expected;
    expected.bytes.assign(expected.bytes.size(), 'x');
    const std::size_t places[] = {0, 2, 24, 26, 32, 194, 196, 198};
    for (int i = 0; i < 8; i++)
        expected.Put16(places[i], shorts[i]);
    expected.Put32(28, 0x01020304);
    expected.Put32(200, -2);

    const TliMsgStruct before = record;
    Exchange(&record);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&record), sizeof record), expected.bytes);
    EXPECT_EQ(expected.bytes.substr(28, 4), "\4\3\2\1");
    Exchange(&record);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
    ReverseIntegers(&record);
    EXPECT_EQ(record.object, 0x0201);
    EXPECT_EQ(record.event, static_cast<int16_t>(0xfeff));
    EXPECT_EQ(record.curr_data_offset, 0x04030201);
    EXPECT_EQ(record.alloc_data_length, static_cast<int32_t>(0xfeffffff));
    ReverseIntegers(&record);
    EXPECT_EQ(std::memcmp(&record, &before, sizeof record), 0);
}

} // namespace
