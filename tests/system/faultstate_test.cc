// SPDX-License-Identifier: BSD-2-Clause
// Which of two changes is newer, and what the changes of a host make of its faults.
#include <string>

#include <gtest/gtest.h>

#include "fleet/bucket.h"
#include "fleet/faultstate.h"

using namespace fleet;

namespace {

FaultChange Change(FaultChange::Kind kind, long number, long fault = 1, const char* state = "new", int attached = 0)
{
    FaultChange change;
    change.number = number;
    change.time = 1000 + number;
    change.kind = kind;
    change.fault.summary.hdr.myId = FaultId(fault, "alpha");
    change.fault.summary.state = state;
    change.fault.summary.text = ("text " + std::to_string(number)).c_str();
    change.fault.summary.attached = attached;
    return change;
}

// The faults of a host, whose changes come a message each.
class FaultStateTest : public ::testing::Test {
protected:
    bool Apply(const FaultChange& change, uint64_t sequence, const char* journal = "first")
    {
        return faults.Apply(change, journal, {1, sequence, change.number});
    }
    // "state text" of a fault, "cleared", or "none".
    std::string State(long fault = 1)
    {
        const auto at = faults.All().find(static_cast<const char*>(FaultId(fault, "alpha")));
        if (at == faults.All().end())
            return "none";
        FleetFault value;
        EXPECT_TRUE(ReadFleetFault(at->second.value.data(), at->second.value.size(), &value));
        EXPECT_EQ(value.last.node, "host");
        EXPECT_TRUE(value.place == at->second.place);
        EXPECT_EQ(value.last.kind != FaultChange::Cleared, at->second.isThere);
        return at->second.isThere ? std::string(value.last.fault.state + " " + value.last.fault.text) : "cleared";
    }
    // Says that the bucket has what is known.
    void Store()
    {
        for (auto& entry : faults.All())
            entry.second.isNew = false;
    }
    bool IsNew(long fault = 1) { return faults.All().at(static_cast<const char*>(FaultId(fault, "alpha"))).isNew; }

    HostFaults faults{"host"};
};

TEST(PlaceTest, ALaterMessageIsNewerWhateverTheNumber)
{
    const Place place = {5, 10, 100};
    EXPECT_LT(place, (Place{5, 10, 101}));
    EXPECT_LT(place, (Place{5, 11, 1}));
    EXPECT_LT(place, (Place{6, 1, 1})) << "the stream was made anew";
    EXPECT_FALSE(place < place);
    EXPECT_FALSE((Place{6, 1, 1}) < place);
    EXPECT_FALSE((Place{5, 11, 1}) < place);
    EXPECT_LT(Place(), (Place{1, 1, 1})) << "nothing is older than all";
}

TEST(PlaceTest, TravelsWhole)
{
    FleetFault fault;
    fault.place = {INT64_MAX, UINT64_MAX, 7};
    fault.journal = "a-1-2";
    fault.raised = 5;
    fault.last.node = "host";
    fault.last.fault.hdr.myId = FaultId(3, "alpha");
    Buffer data;
    Pack(fault, data);
    FleetFault read;
    unsigned last = 0;
    ASSERT_TRUE(ReadFleetFault(&data[0], data.Size(), &read, &last));
    EXPECT_TRUE(read.place == fault.place);
    EXPECT_EQ(read.journal, "a-1-2");
    Buffer tail, whole;
    tail.Append(&data[static_cast<int>(last)], data.Size() - last);
    Pack(fault.last, whole);
    EXPECT_EQ(std::string(tail.GetCString()), std::string(whole.GetCString()));
    for (unsigned size = 0; size < data.Size(); size++)
        EXPECT_FALSE(ReadFleetFault(&data[0], size, &read)) << size;
    data.Append("x", 1);
    EXPECT_FALSE(ReadFleetFault(&data[0], data.Size(), &read));
}

TEST(NameTest, ATokenTellsItsName)
{
    for (const char* name : {"host", "host.example", "a=b", "*", ">", "\xc3\xa4", "alpha/00000007"})
        EXPECT_EQ(NameOf(Token(name)), name);
    for (const char* token : {"", "a=", "a=4", "=4G", "=41", "a.b", "=2e"})
        EXPECT_EQ(NameOf(token), "") << token;
}

TEST_F(FaultStateTest, FollowsTheLifeOfAFault)
{
    EXPECT_TRUE(Apply(Change(FaultChange::Raised, 1), 1));
    EXPECT_EQ(State(), "new text 1");
    EXPECT_TRUE(Apply(Change(FaultChange::Moved, 2, 1, "working"), 2));
    EXPECT_EQ(State(), "working text 1");
    EXPECT_TRUE(Apply(Change(FaultChange::Raised, 3), 3));
    EXPECT_EQ(State(), "new text 3");
    EXPECT_TRUE(Apply(Change(FaultChange::Cleared, 4), 4));
    EXPECT_EQ(State(), "cleared");
    EXPECT_FALSE(Apply(Change(FaultChange::Moved, 5, 1, "working"), 5)) << "it is not there";
    EXPECT_FALSE(Apply(Change(FaultChange::Moved, 6, 2, "working"), 6));
    EXPECT_EQ(State(2), "none");
}

TEST_F(FaultStateTest, AppliedAgainNothingChanges)
{
    const FaultChange changes[] = {Change(FaultChange::Raised, 1), Change(FaultChange::Moved, 2, 1, "working"),
                                   Change(FaultChange::Cleared, 3)};
    const char* states[] = {"new text 1", "working text 1", "cleared"};
    for (uint64_t done = 0; done < 3; done++) {
        Apply(changes[done], done + 1);
        Store();
        for (uint64_t again = 0; again <= done; again++) {
            EXPECT_TRUE(Apply(changes[again], again + 1));
            EXPECT_EQ(State(), states[done]);
            EXPECT_FALSE(IsNew());
        }
    }
}

TEST_F(FaultStateTest, BeganClearsWhatWasThereBefore)
{
    Apply(Change(FaultChange::Raised, 1, 1), 1);
    Apply(Change(FaultChange::Raised, 2, 2), 1);
    Apply(Change(FaultChange::Raised, 50, 3), 3); // by an applier that is ahead
    Store();
    Apply(Change(FaultChange::Began, 1), 2, "second");
    EXPECT_EQ(State(1), "cleared");
    EXPECT_EQ(State(2), "cleared");
    EXPECT_EQ(State(3), "new text 50") << "which was raised after it";
    EXPECT_FALSE(IsNew(3));
    Apply(Change(FaultChange::Raised, 2, 1), 2, "second");
    EXPECT_EQ(State(1), "new text 2") << "though another journal had that number";
    Apply(Change(FaultChange::Raised, 90, 1), 1);
    EXPECT_EQ(State(1), "new text 2");
}

TEST_F(FaultStateTest, TellsWhichPiecesAreOfNoUseAnyMore)
{
    const std::string pieces = "fault.piece.host.first.";
    Apply(Change(FaultChange::Raised, 1, 1, "new", 9), 1);
    Apply(Change(FaultChange::Moved, 2, 1, "working"), 2);
    EXPECT_TRUE(faults.Obsolete().empty());
    Apply(Change(FaultChange::Raised, 1, 1, "new", 9), 1);
    EXPECT_TRUE(faults.Obsolete().empty()) << "it is there";
    Apply(Change(FaultChange::Raised, 3, 1, "new", 9), 3);
    Apply(Change(FaultChange::Cleared, 4), 4);
    EXPECT_EQ(faults.Obsolete(), (std::vector<std::string>{pieces + "1.*", pieces + "3.*"}));
    faults.Obsolete().clear();
    Apply(Change(FaultChange::Raised, 1, 1, "new", 9), 1);
    EXPECT_EQ(faults.Obsolete(), std::vector<std::string>{pieces + "1.*"}) << "as often as it is applied";
    faults.Obsolete().clear();
    Apply(Change(FaultChange::Raised, 5, 1, "new", 9), 5);
    Apply(Change(FaultChange::Began, 6), 6);
    EXPECT_EQ(faults.Obsolete(), std::vector<std::string>{pieces + "5.*"});
}

} // namespace
