// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/transfer.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/wire/channels.h"
#include "Misc/wire/records.h"
#include "tests/support/failing_memory.h"

namespace {

using namespace zeloo::wire;

const long Sender = 3000;
const long Receiver = 500;

struct Sent {
    long channel;
    IPCQMessage message;
};

IPCQMessage Header()
{
    IPCQMessage message = {};
    message.senders_pid = Sender;
    message.event = 12;
    return message;
}

IPCQMessage AckOf(long receiver)
{
    IPCQMessage ack;
    MakeAck(&ack, static_cast<int32_t>(receiver));
    return ack;
}

// Everything that a sender puts on the queue when it is acknowledged as it should be.
std::vector<Sent> SendAll(const std::string& data, int32_t blockSize)
{
    std::vector<Sent> sent;
    IPCQMessage message = Header();
    SendingSide side(Sender, Receiver, static_cast<int32_t>(data.size()), blockSize);
    int acks = 0;
    while (side.Next() != SendingSide::Done) {
        if (side.Next() == SendingSide::ForgetAcks) {
            EXPECT_EQ(side.Channel(), AckChannel(Sender, Receiver));
            EXPECT_TRUE(sent.empty()) << "before the first block goes";
            side.Forgotten();
            continue;
        }
        EXPECT_EQ(side.IsFirst(), sent.empty() || side.Next() == SendingSide::AwaitAck);
        if (side.Next() == SendingSide::AwaitAck) {
            EXPECT_EQ(side.Channel(), AckChannel(Sender, Receiver));
            EXPECT_EQ(sent.size(), 1u) << "only the first block is acknowledged";
            side.Answer(AckOf(Receiver), &message);
            acks++;
            continue;
        }
        side.FillBlock(&message, data.data());
        sent.push_back({side.Channel(), message});
        side.BlockSent(&message);
    }
    EXPECT_EQ(acks, sent.size() > 1 ? 1 : 0);
    EXPECT_EQ(side.HasSeveral(), sent.size() > 1);
    return sent;
}

std::string Pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++)
        text[i] = static_cast<char>(i * 7 + i / 251);
    return text;
}

TEST(WireSendingSide, PutsAnEventOfOneBlockOnTheReceiversChannel)
{
    const std::vector<Sent> sent = SendAll("abc", 1700);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].channel, Receiver);
    EXPECT_EQ(sent[0].message.event, 12);
    EXPECT_EQ(sent[0].message.parts_left, 0);
    EXPECT_EQ(std::string(sent[0].message.msg_data, 3), "abc");
}

TEST(WireSendingSide, PutsLaterBlocksOnTheDataChannel)
{
    const std::string data = Pattern(3401);
    const std::vector<Sent> sent = SendAll(data, 1700);
    ASSERT_EQ(sent.size(), 3u);
    std::string gathered;
    for (size_t i = 0; i < sent.size(); i++) {
        const IPCQMessage& message = sent[i].message;
        EXPECT_EQ(sent[i].channel, i == 0 ? Receiver : DataChannel(Sender, Receiver));
        EXPECT_EQ(message.event, i == 0 ? 12 : MultiBlockData);
        EXPECT_EQ(message.parts_left, static_cast<int>(2 - i));
        EXPECT_EQ(message.curr_data_offset, static_cast<int>(1700 * i));
        gathered.append(message.msg_data, static_cast<size_t>(message.msg_data_len));
    }
    EXPECT_EQ(gathered, data);
}

TEST(WireSendingSide, GivesUpWhenTheAnswerIsNoAcknowledgement)
{
    IPCQMessage message = Header();
    SendingSide side(Sender, Receiver, 1700, 1700);
    side.Forgotten();
    const std::string data = Pattern(1700);
    side.FillBlock(&message, data.data());
    side.BlockSent(&message);
    ASSERT_EQ(side.Next(), SendingSide::AwaitAck);
    side.Answer(Header(), &message);
    EXPECT_EQ(side.Next(), SendingSide::Refused);
}

TEST(WireReceivingSide, IsDoneWithAnEventOfOneBlock)
{
    EXPECT_EQ(ReceivingSide(SendAll("abc", 1700)[0].message, Receiver).Next(), ReceivingSide::Done);
    EXPECT_EQ(ReceivingSide(SendAll("", 1700)[0].message, Receiver).Next(), ReceivingSide::Done);
}

TEST(WireReceivingSide, AcknowledgesTheFirstOfSeveralAndGathersTheOthersInWhateverOrder)
{
    std::mt19937 random(3);
    const std::string data = Pattern(10 * 1092);
    for (int round = 0; round < 20; round++) {
        std::vector<Sent> sent = SendAll(data, 1092);
        ASSERT_EQ(sent.size(), 11u) << "ten full ones and an empty one";
        std::shuffle(sent.begin() + 1, sent.end(), random);
        std::string gathered(data.size(), '?');
        const auto place = [&](const IPCQMessage& message) {
            gathered.replace(static_cast<size_t>(message.curr_data_offset), static_cast<size_t>(message.msg_data_len),
                             message.msg_data, static_cast<size_t>(message.msg_data_len));
        };
        ReceivingSide side(sent[0].message, Receiver);
        place(sent[0].message);
        EXPECT_EQ(side.Partner(), Sender);
        ASSERT_EQ(side.Next(), ReceivingSide::ForgetBlocks);
        EXPECT_EQ(side.Channel(), DataChannel(Sender, Receiver));
        side.Forgotten();
        ASSERT_EQ(side.Next(), ReceivingSide::Acknowledge);
        EXPECT_EQ(side.Channel(), AckChannel(Sender, Receiver));
        side.Acknowledged();
        for (size_t i = 1; i < sent.size(); i++) {
            ASSERT_EQ(side.Next(), ReceivingSide::AwaitBlock);
            EXPECT_EQ(side.Channel(), sent[i].channel);
            const IPCQMessage& message = sent[i].message;
            ASSERT_TRUE(side.TakeBlock(message, 300 + static_cast<size_t>(message.msg_data_len), -1));
            place(message);
        }
        EXPECT_EQ(side.Next(), ReceivingSide::Done);
        EXPECT_EQ(gathered, data);
    }
}

TEST(WireReceivingSide, BreaksWithABlockThatDoesNotFit)
{
    const std::vector<Sent> sent = SendAll(Pattern(5000), 1700);
    const auto nextAfter = [&](const IPCQMessage& block) {
        ReceivingSide side(sent[0].message, Receiver);
        side.Acknowledged();
        EXPECT_FALSE(side.TakeBlock(block, 300 + static_cast<size_t>(block.msg_data_len), -1));
        return side.Next();
    };
    IPCQMessage other = sent[1].message;
    other.event = 12;
    EXPECT_EQ(nextAfter(other), ReceivingSide::Broken);
    IPCQMessage overlapping = sent[1].message;
    overlapping.curr_data_offset--;
    EXPECT_EQ(nextAfter(overlapping), ReceivingSide::Broken);
    EXPECT_EQ(nextAfter(sent[0].message), ReceivingSide::Broken);
}

TEST(WireReceivingSide, IsEndedByAnotherEventOfItsPartner)
{
    const ReceivingSide side(SendAll(Pattern(5000), 1700)[0].message, Receiver);
    IPCQMessage newer = Header();
    EXPECT_TRUE(side.IsEndedBy(newer));
    newer.senders_pid = Sender + 1;
    EXPECT_FALSE(side.IsEndedBy(newer));
}

TEST(WireReceivingSide, GivesUpWhenItIsTold)
{
    ReceivingSide side(SendAll(std::string(30, 'x'), 10).front().message, Receiver);
    side.Forgotten();
    side.Acknowledged();
    EXPECT_EQ(side.Next(), ReceivingSide::AwaitBlock);
    side.GiveUp();
    EXPECT_EQ(side.Next(), ReceivingSide::Broken);
}

#ifndef __SANITIZE_ADDRESS__ // whose realloc is its own

TEST(WireReceivingSide, WithoutMemoryForBlocksThatLieApartTheEventIsGivenUp)
{
    using namespace testing_support;
    const std::vector<Sent> sent = SendAll(std::string(300, 'x'), 10);
    ReceivingSide side(sent.front().message, Receiver);
    side.Forgotten();
    side.Acknowledged();
    const MemoryFailure failure = MemoryFailure::Of(Realloc);
    for (size_t i = 2; i < sent.size() && side.Next() == ReceivingSide::AwaitBlock; i += 2)
        side.TakeBlock(sent[i].message, 300 + static_cast<size_t>(sent[i].message.msg_data_len), -1);
    EXPECT_EQ(side.Next(), ReceivingSide::OutOfMemory);
}

#endif

} // namespace
