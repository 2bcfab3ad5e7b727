// SPDX-License-Identifier: BSD-2-Clause
// A table of states and of the moves allowed between them.
#ifndef MISC_STATE_H
#define MISC_STATE_H

#include <ostream>

#include "Misc/CstrArray.h"
#include "Misc/Error.h"
#include "Misc/SafeArray.h"
#include "Misc/cstring.h"
#include "Misc/export.h"

/// A state that an object may be in: a short abbreviation, which is its key, and a title for display. Two states with
/// the same abbreviation are the same state, whatever their titles. A null text counts as empty.
class ZELOO_API State {
public:
    /// A state with an empty abbreviation and an empty title.
    State() = default;
    /// A state with copies of both texts.
    State(const char* Abbrev, const char* Title);
    /// A copy of both texts.
    State(const State& s) = default;
    /// Assigning a state to itself does nothing.
    State& operator=(const State& s);
    /// Sets both texts, which may be those of this state.
    void init(const char* Abbrev, const char* Title);

    /// The abbreviation, never null; valid until it is set again or the state goes.
    const char* Abbrev() const { return abbrev; }
    /// The title, never null; valid until it is set again or the state goes.
    const char* Name() const { return title; }
    /// Sets the abbreviation, and so which state this is.
    void SetAbbrev(const char* Abbrev) { abbrev = Abbrev; }
    /// Sets the title.
    void SetName(const char* Title) { title = Title; }

    /// Whether the abbreviations are the same.
    bool operator==(const State& s) const { return abbrev == s.abbrev; }
    /// Whether the abbreviations differ.
    bool operator!=(const State& s) const { return abbrev != s.abbrev; }
    /// Writes title and abbreviation in one line.
    void dumpOn(std::ostream& os) const;

private:
    CString abbrev;
    CString title;
};

template <>
ZELOO_API const char* SafeArray<State>::ElementName();
extern template class SafeArray<State>;

/// The array of State; it owns its elements.
class ZELOO_API StateSafeArray : public SafeArray<State> {
public:
    using SafeArray<State>::SafeArray;
};

/// The iterator over a StateSafeArray, which walks backwards too.
class ZELOO_API StateSafeArrayIter : public SafeArrayIter<State> {
public:
    using SafeArrayIter<State>::SafeArrayIter;
    /// One step backward, as prev.
    void operator--() { prev(); }
};

/// A move from one state to another, possibly to the same one. Two transitions are equal when they lead from equal
/// states to equal states; whether they are visible does not matter.
class ZELOO_API Transition {
public:
    /// Copies both states. A `v` other than 0 makes the transition visible: it may be offered to a user.
    Transition(State& from, State& to, short v);
    /// A copy of both states and the flag.
    Transition(const Transition& t) = default;

    /// The flag as it was given.
    short IsVisible() const { return Visible; }
    /// The state from which the move leads: the transition's own copy, which may be changed.
    State& GetOldState() { return OldState; }
    /// The state from which the move leads.
    const State& GetOldState() const { return OldState; }
    /// The state to which the move leads: the transition's own copy, which may be changed.
    State& GetNewState() { return NewState; }
    /// The state to which the move leads.
    const State& GetNewState() const { return NewState; }

    /// Whether the transitions lead from equal states to equal states.
    bool operator==(const Transition& t) const { return OldState == t.OldState && NewState == t.NewState; }
    /// Whether an old or a new state differs.
    bool operator!=(const Transition& t) const { return !(*this == t); }
    /// Writes the old state and the new one, each in a line, between a line that opens a brace and one that closes it.
    void dumpOn(std::ostream& os) const;

private:
    State OldState;
    State NewState;
    short Visible;
};

template <>
ZELOO_API const char* SafeArray<Transition>::ElementName();
extern template class SafeArray<Transition>;

/// The array of Transition; it owns its elements.
class ZELOO_API TransitionSafeArray : public SafeArray<Transition> {
public:
    using SafeArray<Transition>::SafeArray;
};

/// The iterator over a TransitionSafeArray.
class ZELOO_API TransitionSafeArrayIter : public SafeArrayIter<Transition> {
public:
    using SafeArrayIter<Transition>::SafeArrayIter;
};

/// The states that the objects of a program may be in and the moves allowed between them. A program builds the tables
/// at its start with AddTransition and asks them afterwards; the state of each object is kept by its owner. States and
/// transitions stay in the order in which they were added, and all searches go through them in that order, comparing
/// abbreviations exactly. A null abbreviation counts as the empty one. The tables are the machine's own copies; what
/// finds no memory is left out of them.
class ZELOO_API StateMachine : public ErrorReporter {
public:
    /// Appends a copy of `s1`, unless a state with its abbreviation is there: the first title stays.
    void AddState(State& s1);
    /// Adds both states, the old one first, and then the transition, unless an equal one is there: the first flag
    /// stays.
    void AddTransition(State& stateFrom, State& stateTo, short v);

    /// The index of the state with the abbreviation of `ThisState`; -1 when there is none.
    int FindState(State& ThisState) const;
    /// The index of the state with that abbreviation; -1 when there is none.
    int FindState(const char* Abbrev) const;
    /// The index of the transition that equals `t`; -1 when there is none.
    int FindTransition(Transition& t) const;
    /// 1 when there is a state with that abbreviation, else 0.
    short IsValidState(const char* stateAbbrev) const;
    /// The machine's state with that abbreviation. When there is none this is reported (WARNING, INVALID_STATE) and
    /// the first state of the table stands in, so that the caller always has a state to go on with. REQUIRES: the
    /// machine has a state, which is checked with assertions off too.
    State& GetState(const char* NewStateAbbrev);
    /// 1 when the machine has a transition from `OldState` to `NewState`, visible or not, else 0. A stay in the state
    /// "waiting_escalation" is always valid. A refused stay in the same state is reported (WARNING,
    /// INVALID_TRANSITION); a refused move between different states is not, which is intended.
    short ValidTransition(State& OldState, State& NewState) const;

    /// The number of visible transitions from `state`; 32767 when there are more.
    short GetVisibleTransitionCount(State& state) const;
    /// Writes the moves that may be offered from `state`: for each visible transition, in the order of the table, the
    /// abbreviation of the new state, "|", its title and "|". REQUIRES: `TList` has room for
    /// GetVisibleTransitionListLength(`state`) characters, which is for the caller to see to; no bound is known here.
    void GetVisibleTransitionList(State& state, char* TList) const;
    /// The number of characters that GetVisibleTransitionList writes, the terminator included; at least 1.
    unsigned GetVisibleTransitionListLength(State& state) const;

    /// Puts the abbreviations of all states, in the order of the table, in the place of the elements of `Names`.
    /// REQUIRES, here and below: `Names` owns its elements.
    void GetValidStateNames(CStringSafeArray& Names) const;
    /// The same for the states that no transition leads to from another state. One without transitions is among them.
    void GetValidInitialStateNames(CStringSafeArray& Names) const;
    /// The same for the states that no transition leaves for another state. One without transitions is among them.
    void GetValidLastStateNames(CStringSafeArray& Names) const;

    /// Writes the states and then the transitions, each group under a title line.
    virtual void dumpOn(std::ostream& os) const;

protected:
    TransitionSafeArray Transitions; ///< The moves, in the order in which they were added.
    StateSafeArray States;           ///< The states, in the order in which they were added.

private:
    bool IsEntered(const State& state) const;
    bool IsLeft(const State& state) const;
};

#endif
