// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/FaultId/index.h"

#include <algorithm>
#include <new>
#include <utility>

#include "Misc/FaultId.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: FaultId.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

bool FaultIndex::Add(const FaultId* element)
{
    if (unused < 0 && !grow())
        return false;
    const int32_t entry = unused;
    unused = entries[entry].next;
    entries[entry].element = element;
    entries[entry].hash = hash(*element);
    link(entry);
    return true;
}

void FaultIndex::Remove(const FaultId* element)
{
    if (capacity == 0)
        return;
    int32_t* place = &headOf(hash(*element));
    while (*place >= 0 && entries[*place].element != element)
        place = &entries[*place].next;
    const int32_t entry = *place;
    if (entry < 0)
        return;
    *place = entries[entry].next;
    entries[entry].next = unused;
    unused = entry;
}

bool FaultIndex::Has(const FaultId& f) const
{
    const uint32_t value = hash(f);
    for (int32_t i = firstOf(value); i >= 0; i = entries[i].next)
        if (matches(i, value, f))
            return true;
    return false;
}

const FaultId* FaultIndex::Find(const FaultId& f, unsigned& count) const
{
    const FaultId* found = nullptr;
    count = 0;
    const uint32_t value = hash(f);
    for (int32_t i = firstOf(value); i >= 0; i = entries[i].next)
        if (matches(i, value, f)) {
            found = entries[i].element;
            count++;
        }
    return found;
}

bool FaultIndex::matches(int32_t entry, uint32_t value, const FaultId& f) const
{
    return entries[entry].hash == value && *entries[entry].element == f;
}

// Twice the entries, and the chains anew. REQUIRES: each entry has an element.
bool FaultIndex::grow()
{
    const uint32_t larger = capacity == 0 ? 64 : 2 * capacity;
    std::unique_ptr<Entry[]> newEntries(new (std::nothrow) Entry[larger]);
    std::unique_ptr<int32_t[]> newHeads(new (std::nothrow) int32_t[larger]);
    if (newEntries == nullptr || newHeads == nullptr)
        return false;
    std::copy_n(entries.get(), capacity, newEntries.get());
    std::fill_n(newHeads.get(), larger, -1);
    const uint32_t used = capacity;
    entries = std::move(newEntries);
    heads = std::move(newHeads);
    capacity = larger;
    for (uint32_t i = 0; i < used; i++)
        link(static_cast<int32_t>(i));
    for (uint32_t i = larger; i-- > used; unused = static_cast<int32_t>(i))
        entries[i].next = unused;
    return true;
}

void FaultIndex::link(int32_t entry)
{
    int32_t& head = headOf(entries[entry].hash);
    entries[entry].next = head;
    head = entry;
}

} // namespace zeloo
