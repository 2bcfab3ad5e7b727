#include "Misc/wire/records.h"

#include <cstring>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "Misc/wire/channels.h"

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

bool Starts(const IPCQMessage& message) { return StartsEvent(message, LengthOf(message), -1); }

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
    EXPECT_TRUE(StartsEvent(message, 300, 10));
    EXPECT_TRUE(StartsEvent(message, 300, 4096));
    EXPECT_FALSE(StartsEvent(message, 300, 9));
    EXPECT_FALSE(StartsEvent(message, 300, -1));
    message.shmem_size = -10;
    EXPECT_FALSE(StartsEvent(message, 300, 4096));
}

TEST(WireQueueRecord, ALaterBlockIsThePartnersAlone)
{
    IPCQMessage message = Message(20, 10, 10, 0);
    message.event = MultiBlockData;
    EXPECT_TRUE(ContinuesEvent(message, 310, -1, 4711));
    EXPECT_FALSE(ContinuesEvent(message, 310, -1, 4712)) << "of another process";
    EXPECT_FALSE(ContinuesEvent(message, 309, -1, 4711)) << "cut short";
    message.event = MultiBlockAck;
    EXPECT_FALSE(ContinuesEvent(message, 310, -1, 4711)) << "of another kind";
    message.event = MultiBlockData;
    message.shmem_id = 1;
    message.shmem_size = 10;
    EXPECT_FALSE(ContinuesEvent(message, 310, 9, 4711)) << "without its segment";
    EXPECT_TRUE(ContinuesEvent(message, 310, 10, 4711));
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

} // namespace
