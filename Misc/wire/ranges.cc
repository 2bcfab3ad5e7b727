// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/wire/ranges.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

[[maybe_unused]] static const char* ModuleId() { return "$Id: ranges.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo::wire {

Ranges::~Ranges() { Clear(); }

void Ranges::Clear()
{
    if (list != own)
        std::free(list);
    list = own;
    used = 0;
    capacity = FirstCapacity;
    count = 0;
}

// The index of the first range that ends at `begin` or after it: the only one that can touch what begins there from
// below.
size_t Ranges::FirstEndingAtOrAfter(int32_t begin) const
{
    const auto endsBefore = [](const Range& range, int32_t number) { return range.end < number; };
    return static_cast<size_t>(std::lower_bound(list, list + used, begin, endsBefore) - list);
}

Ranges::Result Ranges::Add(int32_t begin, int32_t end)
{
    if (begin == end)
        return Added;
    const size_t at = FirstEndingAtOrAfter(begin);
    const bool touchesBelow = at < used && list[at].end == begin;
    const size_t next = touchesBelow ? at + 1 : at;
    if (next < used && list[next].begin < end)
        return Overlaps;
    const bool touchesAbove = next < used && list[next].begin == end;

    if (touchesBelow && touchesAbove) {
        list[at].end = list[next].end;
        std::memmove(list + next, list + next + 1, (used - next - 1) * sizeof *list);
        used--;
    } else if (touchesBelow) {
        list[at].end = end;
    } else if (touchesAbove) {
        list[next].begin = begin;
    } else if (!Insert(at, {begin, end})) {
        return NoMemory;
    }
    count += int64_t(end) - begin;
    return Added;
}

bool Ranges::Insert(size_t at, Range range)
{
    if (used == capacity && !Grow())
        return false;
    std::memmove(list + at + 1, list + at, (used - at) * sizeof *list);
    list[at] = range;
    used++;
    return true;
}

bool Ranges::Grow()
{
    void* larger = std::realloc(list == own ? nullptr : list, 2 * capacity * sizeof *list);
    if (larger == nullptr)
        return false;
    if (list == own)
        std::memcpy(larger, own, sizeof own);
    list = static_cast<Range*>(larger);
    capacity *= 2;
    return true;
}

} // namespace zeloo::wire
