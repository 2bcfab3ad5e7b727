// SPDX-License-Identifier: BSD-2-Clause
// Replays random runs of the transfer's model: whatever a process does there, the pure layer must do as well, record by
// record, on channels in memory.

#include <cstdio>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Misc/wire/channels.h"
#include "Misc/wire/records.h"
#include "Misc/wire/transfer.h"

namespace {

using namespace zeloo::wire;

const int32_t BlockSize = 64;

struct Record {
    IPCQMessage message;
    size_t length() const { return static_cast<size_t>(IPCMessageNonDataSize + message.msg_data_len); }
};

typedef std::list<Record> Records;

// The data of an event of several blocks; the last one is shorter than the others, and may be empty.
std::string DataOf(int event, int blocks)
{
    std::string data(static_cast<size_t>(BlockSize * (blocks - 1) + event * 8 % BlockSize), '\0');
    for (size_t i = 0; i < data.size(); i++)
        data[i] = static_cast<char>(event * 31 + static_cast<int>(i) * 7);
    return data;
}

IPCQMessage HeaderOf(long sender, int event)
{
    IPCQMessage message = {};
    message.senders_pid = static_cast<int32_t>(sender);
    message.object = static_cast<int16_t>(event);
    message.event = 12;
    return message;
}

const char* NameOf(SendingSide::Step step)
{
    switch (step) {
    case SendingSide::ForgetAcks: return "ForgetAcks";
    case SendingSide::SendBlock: return "SendBlock";
    case SendingSide::AwaitAck: return "AwaitAck";
    case SendingSide::Done: return "Done";
    case SendingSide::Refused: return "Refused";
    }
    return "?";
}

const char* NameOf(ReceivingSide::Step step)
{
    switch (step) {
    case ReceivingSide::ForgetBlocks: return "ForgetBlocks";
    case ReceivingSide::Acknowledge: return "Acknowledge";
    case ReceivingSide::AwaitBlock: return "AwaitBlock";
    case ReceivingSide::Done: return "Done";
    case ReceivingSide::Broken: return "Broken";
    case ReceivingSide::OutOfMemory: return "OutOfMemory";
    }
    return "?";
}

std::string NameOf(Owner owner)
{
    switch (owner) {
    case Owner::Partner: return "Partner";
    case Owner::Self: return "Self";
    case Owner::Stranger: return "Stranger";
    case Owner::Nobody: return "Nobody";
    }
    return "?";
}

// What the model says of a record.
struct Description {
    long channel;
    long from;
    std::string kind;
    int left;
    int event;
};

std::istream& operator>>(std::istream& in, Description& record)
{
    return in >> record.channel >> record.from >> record.kind >> record.left >> record.event;
}

bool Matches(const Record& record, const Description& expected)
{
    const IPCQMessage& message = record.message;
    if (message.mtype != expected.channel || message.senders_pid != expected.from)
        return false;
    if (expected.kind == "Ack")
        return message.event == MultiBlockAck;
    const int event = expected.kind == "First" ? 12 : MultiBlockData;
    return message.event == event && message.parts_left == expected.left && message.object == expected.event;
}

struct Process {
    std::unique_ptr<SendingSide> sending;
    std::unique_ptr<ReceivingSide> receiving;
    IPCQMessage outgoing;
    std::string data; // sent or received
    Records hand;
    Records mail;
    Records aside; // for others
    Records away;  // own ones
};

class Replay {
public:
    // Does what a line says.
    void Do(const std::string& line)
    {
        std::istringstream in(line);
        std::string verb;
        in >> verb;
        if (verb == "stale")
            PutStale(in);
        else if (verb == "twice")
            PutTwice(in);
        else if (in >> self)
            DoStep(verb, in);
        if (in.fail() && verb != "timeout")
            ADD_FAILURE() << "not understood";
    }
    int wholeEvents = 0;

private:
    Process& Me() { return processes[self]; }

    void DoStep(const std::string& verb, std::istream& in)
    {
        if (verb == "send")
            Send(in);
        else if (verb == "first")
            First(in);
        else if (verb == "next")
            Next(in);
        else if (verb == "put")
            Put(in);
        else if (verb == "take")
            Take(in);
        else if (verb == "owner")
            CheckOwner(in);
        else if (verb == "use")
            Use();
        else if (verb == "over")
            Over(in);
        else if (verb == "broken")
            EXPECT_EQ(Me().receiving->Next(), ReceivingSide::Broken);
        else if (verb == "die" || verb == "end")
            gone.insert(self);
        else
            Carry(verb, in);
    }

    // Moves records about.
    void Carry(const std::string& verb, std::istream& in)
    {
        Process& me = Me();
        if (verb == "drop") {
            me.hand.clear();
        } else if (verb == "save") {
            me.mail.splice(me.mail.end(), me.hand);
        } else if (verb == "keep") {
            Move(in, me.aside, {&me.hand, &me.away});
            CheckAddressee(me.aside.back(), in);
        } else if (verb == "away") {
            Move(in, me.away, {&me.hand});
            EXPECT_EQ(NameOf(OwnerOf(me.away.back(), me.receiving->Partner())), "Self");
        } else if (verb == "back") {
            Move(in, queue, {&me.hand, &me.aside});
        } else if (verb == "lose") {
            Records lost;
            Move(in, lost, {&me.aside});
            EXPECT_EQ(gone.count(CheckAddressee(lost.back(), in)), 1u) << "its addressee lives";
        } else {
            ADD_FAILURE() << "unknown";
        }
    }

    void Move(std::istream& in, Records& to, const std::vector<Records*>& from)
    {
        Description expected;
        in >> expected;
        for (Records* records : from)
            for (Records::iterator i = records->begin(); i != records->end(); ++i)
                if (Matches(*i, expected)) {
                    to.splice(to.end(), *records, i);
                    return;
                }
        FAIL() << "there is no such record";
    }

    long CheckAddressee(const Record& record, std::istream& in)
    {
        long expected;
        in >> expected;
        EXPECT_EQ(Addressee(record.message.mtype, record.message.senders_pid), expected);
        return expected;
    }

    Owner OwnerOf(const Record& record, long partner)
    {
        return zeloo::wire::OwnerOf(record.message, record.length(), partner, self);
    }

    void Send(std::istream& in)
    {
        long receiver;
        int blocks;
        int event;
        in >> receiver >> blocks >> event;
        Process& me = Me();
        me.data = DataOf(event, blocks);
        me.receiving.reset();
        me.sending = std::make_unique<SendingSide>(self, receiver, static_cast<int32_t>(me.data.size()), BlockSize);
        me.outgoing = HeaderOf(self, event);
        EXPECT_EQ(me.sending->HasSeveral(), blocks > 1);
    }

    void First(std::istream& in)
    {
        Process& me = Me();
        Description expected = {self, 0, "First", 0, 0};
        in >> expected.from >> expected.left >> expected.event;
        Records& from = me.mail.empty() ? me.hand : me.mail;
        ASSERT_FALSE(from.empty());
        const Record first = from.front();
        from.pop_front();
        EXPECT_TRUE(Matches(first, expected));
        ASSERT_TRUE(StartsEvent(first.message, first.length(), -1, self));
        me.sending.reset();
        me.receiving = std::make_unique<ReceivingSide>(first.message, self);
        EXPECT_EQ(me.receiving->Partner(), expected.from);
        me.data.assign(static_cast<size_t>(first.message.alloc_data_length), '\0');
        Place(first.message);
    }

    void Place(const IPCQMessage& message)
    {
        Me().data.replace(static_cast<size_t>(message.curr_data_offset), static_cast<size_t>(message.msg_data_len),
                          message.msg_data, static_cast<size_t>(message.msg_data_len));
    }

    void Next(std::istream& in)
    {
        std::string step;
        long channel;
        in >> step >> channel;
        Process& me = Me();
        if (me.sending != nullptr && me.sending->Next() == SendingSide::ForgetAcks && step != "ForgetAcks")
            me.sending->Forgotten();
        if (me.receiving != nullptr && me.receiving->Next() == ReceivingSide::ForgetBlocks && step != "ForgetBlocks")
            me.receiving->Forgotten();
        EXPECT_EQ(me.sending != nullptr ? NameOf(me.sending->Next()) : NameOf(me.receiving->Next()), step);
        const long found = me.sending != nullptr ? me.sending->Channel() : me.receiving->Channel();
        EXPECT_TRUE(step == "Done" || found == channel) << found;
    }

    void Put(std::istream& in)
    {
        Description expected;
        in >> expected;
        Process& me = Me();
        Record record;
        if (me.sending != nullptr) {
            me.outgoing.mtype = static_cast<int32_t>(me.sending->Channel());
            me.sending->FillBlock(&me.outgoing, me.data.data());
            record.message = me.outgoing;
            me.sending->BlockSent(&me.outgoing);
        } else {
            MakeAck(&record.message, static_cast<int32_t>(self));
            record.message.mtype = static_cast<int32_t>(me.receiving->Channel());
            me.receiving->Acknowledged();
        }
        EXPECT_TRUE(Matches(record, expected));
        queue.push_back(record);
    }

    void PutStale(std::istream& in)
    {
        Description expected;
        in >> expected;
        Record record;
        if (expected.kind == "Ack") {
            MakeAck(&record.message, static_cast<int32_t>(expected.from));
        } else {
            const std::string data = DataOf(expected.event, 2);
            Cutter blocks(static_cast<int32_t>(data.size()), BlockSize);
            record.message = HeaderOf(expected.from, expected.event);
            if (expected.kind == "Data") {
                record.message.event = MultiBlockData;
                blocks.Advance();
            }
            PutBlock(&record.message, blocks.Current(), data.data() + blocks.Current().offset);
        }
        record.message.mtype = static_cast<int32_t>(expected.channel);
        queue.push_back(record);
    }

    void PutTwice(std::istream& in)
    {
        Description expected;
        in >> expected;
        for (const Record& record : queue)
            if (Matches(record, expected)) {
                queue.push_back(record);
                return;
            }
        FAIL() << "there is no such record";
    }

    // As msgrcv does: the oldest record of a channel.
    void Take(std::istream& in)
    {
        Description expected;
        in >> expected;
        Records& hand = Me().hand;
        EXPECT_TRUE(hand.empty());
        for (Records::iterator i = queue.begin(); i != queue.end(); ++i)
            if (i->message.mtype == expected.channel) {
                EXPECT_TRUE(Matches(*i, expected));
                hand.splice(hand.end(), queue, i);
                return;
            }
        FAIL() << "nothing lies there";
    }

    void CheckOwner(std::istream& in)
    {
        long partner;
        std::string expected;
        in >> partner >> expected;
        ASSERT_FALSE(Me().hand.empty());
        EXPECT_EQ(NameOf(OwnerOf(Me().hand.front(), partner)), expected);
    }

    void Use()
    {
        Process& me = Me();
        ASSERT_FALSE(me.hand.empty());
        const Record record = me.hand.front();
        me.hand.clear();
        if (me.sending != nullptr)
            me.sending->Answer(record.message, &me.outgoing);
        else if (me.receiving->TakeBlock(record.message, record.length(), -1))
            Place(record.message);
    }

    void Over(std::istream& in)
    {
        int event;
        int code;
        in >> event >> code;
        Process& me = Me();
        if (code != 0)
            return;
        if (me.sending != nullptr) {
            EXPECT_EQ(me.sending->Next(), SendingSide::Done);
            return;
        }
        EXPECT_EQ(me.receiving->Next(), ReceivingSide::Done);
        const int blocks = static_cast<int>(me.data.size()) / BlockSize + 1;
        EXPECT_EQ(me.data, DataOf(event, blocks));
        wholeEvents++;
    }

    long self = 0;
    Records queue;
    std::map<long, Process> processes;
    std::set<long> gone;
};

TEST(WireModel, DoesWhatRandomRunsOfTheModelDo)
{
    FILE* traces = popen(MODEL_TRACES, "r");
    ASSERT_NE(traces, nullptr);
    Replay replay;
    std::string name;
    int complete = 0;
    int number = 0;
    int wholeEvents = 0;
    std::map<std::string, int> seen;
    char text[200];
    while (!HasFailure() && std::fgets(text, sizeof text, traces) != nullptr) {
        std::string line(text);
        line.erase(0, line.find_first_not_of(" \t"));
        line.erase(line.find_last_not_of(" \n") + 1);
        if (line.compare(0, 6, "trace ") == 0) {
            name = line;
            number = 0;
            replay = Replay();
        } else if (line == "end-of-trace") {
            complete++;
            wholeEvents += replay.wholeEvents;
        } else if (!line.empty() && line != "timeout") {
            SCOPED_TRACE(name + ", line " + std::to_string(++number) + ": " + line);
            replay.Do(line);
            seen[line.substr(0, line.find(' '))]++;
        }
    }
    const int status = pclose(traces);
    if (HasFailure())
        return;
    EXPECT_EQ(status, 0);
    EXPECT_GE(complete, 100);
    EXPECT_GE(wholeEvents, 2 * complete) << "most events arrive";
    for (const char* verb : {"keep", "away", "back", "broken", "stale", "twice", "die"})
        EXPECT_GE(seen[verb], 1) << verb << ": the runs do not show everything";
}

} // namespace
