// SPDX-License-Identifier: BSD-2-Clause
// Sets of numbers kept as ranges.
#ifndef MISC_WIRE_RANGES_H
#define MISC_WIRE_RANGES_H

#include <cstddef>
#include <cstdint>

namespace zeloo::wire {

/// A set of numbers to which disjoint ranges are added. What comes in order, from either end, stays one range and costs
/// the same whatever the size; memory is taken only when many ranges lie apart.
class Ranges {
public:
    enum Result { Added, Overlaps, NoMemory };

    Ranges() = default;
    ~Ranges();
    Ranges(const Ranges&) = delete;
    Ranges& operator=(const Ranges&) = delete;

    /// Adds the numbers from `begin` to `end` - 1, none when both are equal. Changes nothing when one of them is in the
    /// set already or memory fails. REQUIRES: `begin` is not above `end`.
    Result Add(int32_t begin, int32_t end);
    /// How many numbers there are.
    int64_t Count() const { return count; }
    /// Makes the set empty.
    void Clear();

private:
    struct Range {
        int32_t begin;
        int32_t end;
    };

    bool Insert(size_t at, Range range);
    bool Grow();
    size_t FirstEndingAtOrAfter(int32_t begin) const;

    static constexpr size_t FirstCapacity = 4;
    Range own[FirstCapacity];
    Range* list = own; // sorted, apart from each other
    size_t used = 0;
    size_t capacity = FirstCapacity;
    int64_t count = 0;
};

} // namespace zeloo::wire

#endif
