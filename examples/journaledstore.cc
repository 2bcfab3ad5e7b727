// SPDX-License-Identifier: BSD-2-Clause
#include "journaledstore.h"

#include <cerrno>
#include <cstring>

short JournaledStore::Load()
{
    short status = journal.Load();
    if (status == NO_ERRORS)
        status = Read();
    if (status != NO_ERRORS)
        return status;
    const bool isInStep = journal.IsInStep() && !IsDamaged();
    if (!isInStep)
        status = journal.LoseStep(); // before anything is set aside: the next start would not see it any more
    if (status == NO_ERRORS)
        status = Mend();
    if (status == NO_ERRORS)
        status = isInStep ? Redo() : Snapshot();
    return status;
}

static bool AreEqual(const FaultRecord& a, const FaultRecord& b)
{
    Buffer first, second;
    Pack(a, first);
    Pack(b, second);
    return first.Size() == second.Size() &&
           std::memcmp(static_cast<const void*>(first), static_cast<const void*>(second), first.Size()) == 0;
}

// Does the newest change to the store, unless it is there.
short JournaledStore::Redo()
{
    FaultChange change;
    const short status = journal.Read(journal.Newest(), change);
    if (status != NO_ERRORS)
        return status;
    const FaultSummary& summary = change.fault.summary;
    const FaultId& id = summary.hdr.myId;
    const FaultRecord* fault = Find(id);
    if (change.kind == FaultChange::Raised && (fault == nullptr || !AreEqual(*fault, change.fault)))
        return FaultStore::Put(change.fault);
    if (change.kind == FaultChange::Moved && fault != nullptr && fault->summary.state != summary.state)
        return FaultStore::SetState(id, summary.state);
    if (change.kind == FaultChange::Cleared && fault != nullptr)
        return FaultStore::Remove(id);
    return NO_ERRORS;
}

short JournaledStore::Snapshot()
{
    short status = journal.BeginSnapshot();
    for (auto at = All().begin(); at != All().end() && status == NO_ERRORS; ++at)
        status = journal.Append(FaultChange::Raised, at->second);
    return status == NO_ERRORS ? journal.EndSnapshot() : status;
}

short JournaledStore::Put(const FaultRecord& fault)
{
    short status = FindRoom(fault.summary.hdr.myId); // the next start could not do it either
    if (status == NO_ERRORS)
        status = journal.Append(FaultChange::Raised, fault);
    return status == NO_ERRORS ? Settle(FaultStore::Put(fault)) : status;
}

short JournaledStore::SetState(const FaultId& id, const char* state)
{
    FaultRecord moved;
    moved.summary.hdr.myId = id;
    moved.summary.state = state;
    if (moved.summary.state != state) // without memory it is empty
        return OUT_OF_MEMORY;
    const short status = journal.Append(FaultChange::Moved, moved);
    return status == NO_ERRORS ? Settle(FaultStore::SetState(id, state)) : status;
}

short JournaledStore::Remove(const FaultId& id)
{
    FaultRecord cleared;
    cleared.summary.hdr.myId = id;
    const short status = journal.Append(FaultChange::Cleared, cleared);
    return status == NO_ERRORS ? Settle(FaultStore::Remove(id)) : status;
}

// What the store says of the newest change. A store that cannot know what its disk holds leaves that to the next start.
short JournaledStore::Settle(short status)
{
    if (status != NO_ERRORS && IsInStep())
        journal.TakeBack();
    else if (status != NO_ERRORS)
        journal.Withhold();
    return status;
}

void JournaledStore::dumpOn(std::ostream& out) const
{
    FaultStore::dumpOn(out);
    journal.dumpOn(out);
}
