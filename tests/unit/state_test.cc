// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/state.h"

#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/assertions.h"
#include "tests/support/failing_memory.h"
#include "tests/support/objects.h"
#include "tests/support/testing.h"

using namespace testing_support;

namespace {

// What an array prints, with the addresses replaced.
template <class X>
std::string Printed(const SafeArray<X>& array)
{
    std::ostringstream text;
    array.print(text);
    return Replaced(text.str(), "0x[0-9a-f]+", "<address>");
}

std::string Warning(const std::string& type, const std::string& description)
{
    return WarningReport("state", type, 0, description);
}

const char InvalidState[] = "An invalid state was encountered.";
const char InvalidTransition[] = "An invalid transition was encountered.";

std::string List(const StateMachine& machine, State& state)
{
    std::vector<char> list(machine.GetVisibleTransitionListLength(state) + 1, '#');
    machine.GetVisibleTransitionList(state, list.data());
    EXPECT_EQ(list.back(), '#') << "beyond the length announced";
    std::string text = list.data();
    EXPECT_EQ(text.size() + 1, list.size() - 1) << "the length announced is exact";
    return text;
}

std::string Joined(const CStringSafeArray& names)
{
    std::string text;
    for (unsigned i = 0; i < names.Quantity(); i++)
        text += std::string(*names[static_cast<int>(i)]) + " ";
    return text;
}

TEST(State, HoldsItsTexts)
{
    State empty;
    EXPECT_STREQ(empty.Abbrev(), "");
    EXPECT_STREQ(empty.Name(), "");
    State state("a", "Able");
    EXPECT_STREQ(state.Abbrev(), "a");
    EXPECT_STREQ(state.Name(), "Able");
    state.SetAbbrev("b");
    EXPECT_STREQ(state.Name(), "Able");
    state.SetName("Baker");
    EXPECT_EQ(Dump(state), "State: Baker, abbrev: b\n");
    state.init("c", "Charlie");
    EXPECT_EQ(Dump(state), "State: Charlie, abbrev: c\n");
}

TEST(State, NullTextsAreEmpty)
{
    State state(nullptr, nullptr);
    EXPECT_EQ(Dump(state), "State: , abbrev: \n");
    state.init("x", "y");
    state.init(nullptr, nullptr);
    EXPECT_EQ(Dump(state), "State: , abbrev: \n");
    state.SetAbbrev(nullptr);
    state.SetName(nullptr);
    EXPECT_EQ(Dump(state), "State: , abbrev: \n");
}

TEST(State, TakesItsOwnTexts)
{
    State state("an abbreviation", "a title");
    state.init(state.Name(), state.Abbrev());
    EXPECT_EQ(Dump(state), "State: an abbreviation, abbrev: a title\n");
    state.SetName(state.Abbrev());
    state.SetAbbrev(state.Abbrev());
    EXPECT_EQ(Dump(state), "State: a title, abbrev: a title\n");
}

TEST(State, IsCopiedAndAssigned)
{
    State state("a", "Able");
    State copy(state);
    state.init("b", "Baker");
    EXPECT_EQ(Dump(copy), "State: Able, abbrev: a\n");
    copy = state;
    EXPECT_EQ(Dump(copy), "State: Baker, abbrev: b\n");
    State& self = copy;
    copy = self;
    EXPECT_EQ(Dump(copy), "State: Baker, abbrev: b\n");
}

TEST(State, IsEqualByTheExactAbbreviation)
{
    EXPECT_TRUE(State("a", "Able") == State("a", "Other"));
    EXPECT_FALSE(State("a", "Able") != State("a", "Other"));
    EXPECT_FALSE(State("a", "Able") == State("A", "Able"));
    EXPECT_TRUE(State("a", "Able") != State("ab", "Able"));
    EXPECT_TRUE(State() == State("", "Titled"));
}

TEST(State, ArraysCarryItsNameAndOwnTheirElements)
{
    StateSafeArray states;
    states.AddItem(new State("a", "Able"));
    states.AddItem(new State("b", "Baker"));
    StateSafeArray copy(states);
    states.RemoveAt(0);
    EXPECT_STREQ(states.first()->Abbrev(), "b");
    EXPECT_STREQ(copy.first()->Abbrev(), "a");
    EXPECT_EQ(Printed(copy), "SafeArray(State)***************\n"
                             "********** Capacity =32\n"
                             "********** Quantity =2\n"
                             "********** This SafeArray is purgable.\n"
                             "****SafeArray(State)[0] address = <address>\n"
                             "****SafeArray(State)[1] address = <address>\n");
}

TEST(State, TheIteratorWalksBothWays)
{
    StateSafeArray states;
    StateSafeArrayIter none(states);
    EXPECT_EQ(none(), nullptr);
    for (const char* abbrev : {"a", "b", "c"})
        states.AddItem(new State(abbrev, ""));
    std::string seen;
    StateSafeArrayIter iter(states);
    for (; iter(); ++iter)
        seen += iter()->Abbrev();
    for (--iter; iter(); --iter)
        seen += iter()->Abbrev();
    EXPECT_EQ(seen, "abccba");
    ++iter;
    EXPECT_STREQ(iter()->Abbrev(), "a");
}

TEST(Transition, CopiesItsStates)
{
    State from("a", "Able"), to("b", "Baker");
    Transition transition(from, to, 7);
    from.init("x", "X");
    EXPECT_EQ(transition.IsVisible(), 7);
    EXPECT_STREQ(transition.GetOldState().Abbrev(), "a");
    EXPECT_STREQ(transition.GetNewState().Abbrev(), "b");
    EXPECT_EQ(Dump(transition), "Transition: {\nState: Able, abbrev: a\nState: Baker, abbrev: b\n}\n");
    Transition copy(transition);
    transition.GetOldState().SetName("Changed");
    EXPECT_EQ(Dump(copy), "Transition: {\nState: Able, abbrev: a\nState: Baker, abbrev: b\n}\n");
    EXPECT_EQ(copy.IsVisible(), 7);
}

TEST(Transition, IsEqualWhateverItsFlag)
{
    State a("a", "Able"), b("b", "Baker"), titled("a", "Other");
    EXPECT_TRUE(Transition(a, b, 0) == Transition(titled, b, 1));
    EXPECT_FALSE(Transition(a, b, 0) != Transition(titled, b, 1));
    EXPECT_FALSE(Transition(a, b, 1) == Transition(b, a, 1));
    EXPECT_TRUE(Transition(a, b, 1) != Transition(a, a, 1));
    EXPECT_TRUE(Transition(a, b, 1) != Transition(b, b, 1));
}

TEST(Transition, ArraysOwnTheirElements)
{
    State a("a", "Able"), b("b", "Baker");
    TransitionSafeArray transitions;
    transitions.AddItem(new Transition(a, b, 1));
    TransitionSafeArray copy(transitions);
    transitions.DeleteAllItems();
    TransitionSafeArrayIter iter(copy);
    ASSERT_NE(iter(), nullptr);
    EXPECT_STREQ(iter()->GetNewState().Name(), "Baker");
    ++iter;
    EXPECT_EQ(iter(), nullptr);
    EXPECT_EQ(Printed(copy), "SafeArray(Transition)***************\n"
                             "********** Capacity =32\n"
                             "********** Quantity =1\n"
                             "********** This SafeArray is purgable.\n"
                             "****SafeArray(Transition)[0] address = <address>\n");
}

class MachineTest : public testing::Test {
protected:
    State a{"a", "Able"}, b{"b", "Bee"}, c{"c", "Sea"}, d{"d", "Dog"}, waiting{"waiting_escalation", "Waiting"};
    StateMachine machine;
};

TEST_F(MachineTest, AddingAPairKnowsBothStatesOnceInOrder)
{
    machine.AddTransition(b, a, 1);
    machine.AddTransition(a, b, 1);
    EXPECT_EQ(machine.FindState("b"), 0);
    EXPECT_EQ(machine.FindState("a"), 1);
    EXPECT_EQ(machine.FindState(a), 1);
    EXPECT_EQ(Dump(machine), "Dumping valid States:\n"
                             "State: Bee, abbrev: b\n"
                             "State: Able, abbrev: a\n"
                             "Dumping Valid Transition:\n"
                             "Transition: {\n"
                             "State: Bee, abbrev: b\n"
                             "State: Able, abbrev: a\n"
                             "}\n"
                             "Transition: {\n"
                             "State: Able, abbrev: a\n"
                             "State: Bee, abbrev: b\n"
                             "}\n");
}

TEST_F(MachineTest, AnEmptyMachineDumpsItsTitles)
{
    EXPECT_EQ(Dump(machine), "Dumping valid States:\nDumping Valid Transition:\n");
    EXPECT_EQ(machine.FindState(a), -1);
    EXPECT_EQ(machine.IsValidState("a"), 0);
}

TEST_F(MachineTest, TheFirstFlagOfAPairStays)
{
    machine.AddTransition(a, b, 1);
    machine.AddTransition(a, b, 0);
    machine.AddTransition(a, c, 0);
    machine.AddTransition(a, c, 1);
    Transition ab(a, b, 0), ac(a, c, 0), ba(b, a, 1);
    EXPECT_EQ(machine.FindTransition(ab), 0);
    EXPECT_EQ(machine.FindTransition(ac), 1);
    EXPECT_EQ(machine.FindTransition(ba), -1);
    EXPECT_EQ(List(machine, a), "b|Bee|");
}

TEST_F(MachineTest, TheFirstTitleOfAStateStays)
{
    State other("a", "Other");
    machine.AddState(a);
    machine.AddState(other);
    machine.AddTransition(other, b, 1);
    EXPECT_STREQ(machine.GetState("a").Name(), "Able");
    EXPECT_EQ(machine.FindState(other), 0);
    EXPECT_EQ(machine.FindState("b"), 1);
    Transition ab(a, b, 1);
    EXPECT_EQ(machine.FindTransition(ab), 0);
}

TEST_F(MachineTest, KeepsItsOwnCopies)
{
    machine.AddTransition(a, b, 1);
    a.init("x", "X");
    EXPECT_EQ(machine.IsValidState("a"), 1);
    EXPECT_EQ(machine.IsValidState("x"), 0);
    machine.AddTransition(machine.GetState("b"), machine.GetState("a"), 1); // its own states may come back in
    StateMachine copy(machine);
    copy.AddState(c);
    EXPECT_EQ(machine.IsValidState("c"), 0);
    EXPECT_EQ(copy.FindState("c"), 2);
    EXPECT_EQ(List(copy, b), "a|Able|");
}

TEST_F(MachineTest, AbbreviationsAreComparedExactly)
{
    machine.AddState(a);
    EXPECT_EQ(machine.IsValidState("a"), 1);
    EXPECT_EQ(machine.IsValidState("A"), 0);
    EXPECT_EQ(machine.IsValidState("a "), 0);
    EXPECT_EQ(machine.IsValidState(""), 0);
    EXPECT_EQ(machine.FindState(static_cast<const char*>(nullptr)), -1);
    State empty;
    machine.AddState(empty);
    EXPECT_EQ(machine.FindState(""), 1);
    EXPECT_EQ(machine.FindState(static_cast<const char*>(nullptr)), 1);
}

TEST_F(MachineTest, AnUnknownStateIsReportedAndTheFirstStandsIn)
{
    machine.AddTransition(b, a, 1);
    const std::string reports = ReportsInFull([&] {
        EXPECT_STREQ(machine.GetState("nosuch%s").Abbrev(), "b");
        EXPECT_EQ(ErrorReporter::GetReturnStatus(), ErrorReporter::WARNING);
        EXPECT_STREQ(machine.GetState(nullptr).Abbrev(), "b");
    });
    EXPECT_EQ(reports, Warning(InvalidState, "Invalid state: nosuch%s") + Warning(InvalidState, "Invalid state: "));
    EXPECT_EQ(ReportsInFull([&] {
                  EXPECT_STREQ(machine.GetState("a").Abbrev(), "a");
                  machine.GetState("a").SetName("Renamed"); // it is the machine's own state
              }),
              "");
    EXPECT_STREQ(machine.GetState("a").Name(), "Renamed");
}

TEST_F(MachineTest, GetStateRefusesAnEmptyTable)
{
    ExpectAssertion("States.Quantity() > 0", "Misc/state", [&] { machine.GetState("a"); });
}

TEST_F(MachineTest, ListedMovesAreValidVisibleOrNot)
{
    machine.AddTransition(a, b, 1);
    machine.AddTransition(a, c, 0);
    machine.AddTransition(a, a, 0);
    State titled("a", "Other");
    EXPECT_EQ(ReportsInFull([&] {
                  EXPECT_EQ(machine.ValidTransition(a, b), 1);
                  EXPECT_EQ(machine.ValidTransition(a, c), 1);
                  EXPECT_EQ(machine.ValidTransition(a, a), 1);
                  EXPECT_EQ(machine.ValidTransition(titled, b), 1);
              }),
              "");
}

TEST_F(MachineTest, ARefusedMoveToAnotherStateIsNotReported)
{
    machine.AddTransition(a, b, 1);
    const int count = ErrorReporter::GetErrorCount();
    EXPECT_EQ(ReportsInFull([&] {
                  EXPECT_EQ(machine.ValidTransition(b, a), 0);
                  EXPECT_EQ(machine.ValidTransition(a, d), 0);
                  EXPECT_EQ(machine.ValidTransition(waiting, a), 0);
                  EXPECT_EQ(machine.ValidTransition(a, waiting), 0);
              }),
              "");
    EXPECT_EQ(ErrorReporter::GetErrorCount(), count);
}

TEST_F(MachineTest, ARefusedStayIsReportedOnce)
{
    machine.AddTransition(a, b, 1);
    State titled("a", "Other");
    EXPECT_EQ(ReportsInFull([&] { EXPECT_EQ(machine.ValidTransition(a, titled), 0); }),
              Warning(InvalidTransition, "Invalid state transition: a -> a."));
    EXPECT_STREQ(ErrorReporter::GetErrorType(26), InvalidTransition);
    EXPECT_STREQ(ErrorReporter::GetErrorType(27), InvalidState);
}

TEST_F(MachineTest, StayingInWaitingForEscalationIsAlwaysValid)
{
    State capital("Waiting_escalation", "Waiting");
    EXPECT_EQ(ReportsInFull([&] { EXPECT_EQ(machine.ValidTransition(waiting, waiting), 1); }), "");
    EXPECT_NE(ReportsInFull([&] { EXPECT_EQ(machine.ValidTransition(capital, capital), 0); }), "");
}

TEST_F(MachineTest, ListsTheVisibleMovesInTableOrder)
{
    State hidden("hidden", "Hidden");
    machine.AddTransition(a, b, 1);
    machine.AddTransition(a, hidden, 0);
    machine.AddTransition(c, a, 1);
    machine.AddTransition(a, c, -1);
    EXPECT_EQ(List(machine, a), "b|Bee|c|Sea|");
    EXPECT_EQ(machine.GetVisibleTransitionCount(a), 2);
    EXPECT_EQ(List(machine, c), "a|Able|");
    EXPECT_EQ(machine.GetVisibleTransitionCount(c), 1);
    EXPECT_EQ(List(machine, b), "");
    EXPECT_EQ(List(machine, d), "") << "not in the table";
    EXPECT_EQ(List(machine, hidden), "");
    EXPECT_EQ(machine.GetVisibleTransitionCount(b), 0);
    EXPECT_EQ(machine.GetVisibleTransitionListLength(b), 1u);
}

TEST_F(MachineTest, ListsEmptyTexts)
{
    State empty;
    machine.AddTransition(a, empty, 1);
    EXPECT_EQ(List(machine, a), "||");
}

TEST_F(MachineTest, TheListHasNoLimitOfItsOwn)
{
    std::string expected;
    for (int i = 0; i < 200; i++) {
        const std::string abbrev = "state" + std::to_string(i), title(300, static_cast<char>('a' + i % 26));
        State to(abbrev.c_str(), title.c_str());
        machine.AddTransition(a, to, 1);
        expected += abbrev + "|" + title + "|";
    }
    EXPECT_EQ(List(machine, a), expected);
}

TEST_F(MachineTest, RefusesAListWithoutRoom)
{
    ExpectAssertion("TList != nullptr", "Misc/state", [&] { machine.GetVisibleTransitionList(a, nullptr); });
}

class ManyMoves : public StateMachine {
public:
    ManyMoves(State& from, State& to, int count)
    {
        for (int i = 0; i < count; i++) // without the search for an equal one
            Transitions.AddItem(new Transition(from, to, 1));
    }
    void dumpOn(std::ostream& os) const override { os << Transitions.Quantity() << " of " << States.Quantity(); }
};

TEST_F(MachineTest, TheCountStopsAtTheLargestShort)
{
    EXPECT_EQ(ManyMoves(a, b, 32767).GetVisibleTransitionCount(a), 32767);
    EXPECT_EQ(ManyMoves(a, b, 32769).GetVisibleTransitionCount(a), 32767);
}

TEST_F(MachineTest, TheDumpIsVirtual)
{
    const ManyMoves many(a, b, 2);
    EXPECT_EQ(Dump(static_cast<const StateMachine&>(many)), "2 of 0");
}

TEST_F(MachineTest, NamesAllFirstAndLastStates)
{
    CStringSafeArray names;
    names.AddItem(new CString("earlier"));
    machine.GetValidStateNames(names);
    EXPECT_EQ(Joined(names), "");

    machine.AddTransition(a, b, 1);
    machine.AddTransition(b, c, 0);
    machine.AddTransition(c, c, 1); // a stay is no way in and no way out
    machine.AddTransition(a, a, 1);
    machine.AddState(d);
    machine.GetValidStateNames(names);
    EXPECT_EQ(Joined(names), "a b c d ");
    {
        using namespace testing_support;
        const MemoryFailure failure = MemoryFailure::OfNextOfSize(sizeof(CString), NewObject);
        machine.GetValidStateNames(names);
        EXPECT_EQ(Joined(names), "b c d ") << "without memory for the first";
    }
    machine.GetValidInitialStateNames(names);
    EXPECT_EQ(Joined(names), "a d ");
    machine.GetValidLastStateNames(names);
    EXPECT_EQ(Joined(names), "c d ");

    machine.AddTransition(c, a, 1);
    machine.GetValidInitialStateNames(names);
    EXPECT_EQ(Joined(names), "d ");
    machine.GetValidLastStateNames(names);
    EXPECT_EQ(Joined(names), "d ");
}

} // namespace
