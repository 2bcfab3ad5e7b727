// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/state.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <new>

#include "Misc/Error/report.h"
#include "Misc/detail/assertion.h"
#include "Misc/detail/text.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: state.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

// The state that an object may stay in whatever the table says.
static const char WaitingEscalation[] = "waiting_escalation";

static const char ListSeparator[] = "|";

State::State(const char* Abbrev, const char* Title) : abbrev(Abbrev), title(Title) {}

State& State::operator=(const State& s) = default;

void State::init(const char* Abbrev, const char* Title)
{
    const CString newTitle(Title); // `Title` may be the text of `abbrev`, which goes first
    abbrev = Abbrev;
    title = newTitle;
}

void State::dumpOn(std::ostream& os) const { os << "State: " << Name() << ", abbrev: " << Abbrev() << '\n'; }

ZELOO_DEFINE_ARRAY(State);

Transition::Transition(State& from, State& to, short v) : OldState(from), NewState(to), Visible(v) {}

void Transition::dumpOn(std::ostream& os) const
{
    os << "Transition: {\n";
    OldState.dumpOn(os);
    NewState.dumpOn(os);
    os << "}\n";
}

ZELOO_DEFINE_ARRAY(Transition);

void StateMachine::AddState(State& s1)
{
    if (FindState(s1) >= 0)
        return;
    if (State* copy = new (std::nothrow) State(s1))
        States.AddItem(copy);
}

void StateMachine::AddTransition(State& stateFrom, State& stateTo, short v)
{
    AddState(stateFrom);
    AddState(stateTo);
    Transition wanted(stateFrom, stateTo, v);
    if (FindTransition(wanted) >= 0)
        return;
    if (Transition* added = new (std::nothrow) Transition(wanted))
        Transitions.AddItem(added);
}

int StateMachine::FindState(State& ThisState) const { return FindState(ThisState.Abbrev()); }

int StateMachine::FindState(const char* Abbrev) const
{
    Abbrev = zeloo::TextOrEmpty(Abbrev);
    StateSafeArrayIter state(States);
    for (; state(); ++state)
        if (std::strcmp(state()->Abbrev(), Abbrev) == 0)
            return static_cast<int>(state.getCurrentIterIndex());
    return -1;
}

int StateMachine::FindTransition(Transition& t) const
{
    TransitionSafeArrayIter transition(Transitions);
    for (; transition(); ++transition)
        if (*transition() == t)
            return static_cast<int>(transition.getCurrentIterIndex());
    return -1;
}

short StateMachine::IsValidState(const char* stateAbbrev) const { return FindState(stateAbbrev) >= 0; }

State& StateMachine::GetState(const char* NewStateAbbrev)
{
    ZELOO_REQUIRE(States.Quantity() > 0, "Misc/state");
    const int index = FindState(NewStateAbbrev);
    if (index >= 0)
        return *States[index];
    zeloo::Report(*this, WARNING, INVALID_STATE, errno, ZELOO_HERE, "Invalid state: %s",
                  zeloo::TextOrEmpty(NewStateAbbrev));
    return *States.first();
}

short StateMachine::ValidTransition(State& OldState, State& NewState) const
{
    const bool isStay = OldState == NewState;
    if (isStay && std::strcmp(OldState.Abbrev(), WaitingEscalation) == 0)
        return 1;
    Transition wanted(OldState, NewState, 0);
    if (FindTransition(wanted) >= 0)
        return 1;
    if (isStay) // intended: a refused move to another state is not reported
        zeloo::Report(*this, WARNING, INVALID_TRANSITION, errno, ZELOO_HERE, "Invalid state transition: %s -> %s.",
                      OldState.Abbrev(), NewState.Abbrev());
    return 0;
}

// Whether `transition` may be offered to a user from `state`.
static bool IsOffered(const Transition& transition, const State& state)
{
    return transition.IsVisible() && transition.GetOldState() == state;
}

short StateMachine::GetVisibleTransitionCount(State& state) const
{
    int count = 0;
    for (TransitionSafeArrayIter transition(Transitions); transition(); ++transition)
        if (IsOffered(*transition(), state))
            count++;
    return static_cast<short>(std::min(count, SHRT_MAX));
}

void StateMachine::GetVisibleTransitionList(State& state, char* TList) const
{
    ZELOO_REQUIRE(TList != nullptr, "Misc/state");
    for (TransitionSafeArrayIter transition(Transitions); transition(); ++transition) {
        if (!IsOffered(*transition(), state))
            continue;
        const State& offered = transition()->GetNewState();
        TList = stpcpy(stpcpy(TList, offered.Abbrev()), ListSeparator);
        TList = stpcpy(stpcpy(TList, offered.Name()), ListSeparator);
    }
    *TList = '\0';
}

unsigned StateMachine::GetVisibleTransitionListLength(State& state) const
{
    size_t length = 1;
    for (TransitionSafeArrayIter transition(Transitions); transition(); ++transition) {
        if (!IsOffered(*transition(), state))
            continue;
        const State& offered = transition()->GetNewState();
        length += std::strlen(offered.Abbrev()) + 1 + std::strlen(offered.Name()) + 1;
    }
    return static_cast<unsigned>(length);
}

// Puts the abbreviations of those of `states` that `isWanted` takes in the place of the elements of `names`.
template <class Predicate>
static void PutAbbreviations(const StateSafeArray& states, CStringSafeArray& names, Predicate isWanted)
{
    names.DeleteAllItems();
    for (StateSafeArrayIter state(states); state(); ++state)
        if (isWanted(*state()))
            if (CString* name = new (std::nothrow) CString(state()->Abbrev()))
                names.AddItem(name);
}

void StateMachine::GetValidStateNames(CStringSafeArray& Names) const
{
    PutAbbreviations(States, Names, [](const State&) { return true; });
}

void StateMachine::GetValidInitialStateNames(CStringSafeArray& Names) const
{
    PutAbbreviations(States, Names, [this](const State& state) { return !IsEntered(state); });
}

void StateMachine::GetValidLastStateNames(CStringSafeArray& Names) const
{
    PutAbbreviations(States, Names, [this](const State& state) { return !IsLeft(state); });
}

void StateMachine::dumpOn(std::ostream& os) const
{
    os << "Dumping valid States:\n";
    for (StateSafeArrayIter state(States); state(); ++state)
        state()->dumpOn(os);
    os << "Dumping Valid Transition:\n";
    for (TransitionSafeArrayIter transition(Transitions); transition(); ++transition)
        transition()->dumpOn(os);
}

// Whether a transition leads to `state` from another one.
bool StateMachine::IsEntered(const State& state) const
{
    for (TransitionSafeArrayIter transition(Transitions); transition(); ++transition)
        if (transition()->GetNewState() == state && transition()->GetOldState() != state)
            return true;
    return false;
}

// Whether a transition leads from `state` to another one.
bool StateMachine::IsLeft(const State& state) const
{
    for (TransitionSafeArrayIter transition(Transitions); transition(); ++transition)
        if (transition()->GetOldState() == state && transition()->GetNewState() != state)
            return true;
    return false;
}
