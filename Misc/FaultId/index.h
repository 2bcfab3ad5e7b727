// SPDX-License-Identifier: BSD-2-Clause
// Finds the elements of a fault list that a fault may equal, without a look at the others.
#ifndef MISC_FAULTID_INDEX_H
#define MISC_FAULTID_INDEX_H

#include <cstdint>
#include <memory>

class FaultId;

namespace zeloo {

/// A hash table of fault identifiers, which belong to somebody else. Equal ones must have the same hash for as long as
/// they are in it.
class FaultIndex {
public:
    typedef uint32_t (*Hash)(const FaultId& f);
    explicit FaultIndex(Hash hash) : hash(hash) {}

    /// Enters an element. False without memory; the index is as it was then.
    bool Add(const FaultId* element);
    /// Takes an element out, if it is there. REQUIRES: it lives.
    void Remove(const FaultId* element);
    bool Has(const FaultId& f) const;
    /// An element equal to `f`, or null; `count` is how many there are.
    const FaultId* Find(const FaultId& f, unsigned& count) const;

private:
    struct Entry {
        const FaultId* element;
        uint32_t hash;
        int32_t next; // in its chain, or in that of the entries without an element; -1 at the end
    };

    bool matches(int32_t entry, uint32_t value, const FaultId& f) const;
    bool grow();
    void link(int32_t entry);
    int32_t& headOf(uint32_t value) const { return heads[value & (capacity - 1)]; }
    int32_t firstOf(uint32_t value) const { return capacity != 0 ? headOf(value) : -1; }

    const Hash hash;
    uint32_t capacity = 0; // entries and chains; a power of two, or 0
    std::unique_ptr<Entry[]> entries;
    std::unique_ptr<int32_t[]> heads; // the first entry of each chain
    int32_t unused = -1;              // the first entry without an element
};

} // namespace zeloo

#endif
