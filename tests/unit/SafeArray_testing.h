// SPDX-License-Identifier: BSD-2-Clause
// What the tests of the arrays share: an array of pointers that are never followed, and what an array prints.
#ifndef TESTS_UNIT_SAFEARRAY_TESTING_H
#define TESTS_UNIT_SAFEARRAY_TESTING_H

#include <string>
#include <vector>

#include "Misc/SafeArray.h"
#include "tests/support/objects.h"

namespace safearray_testing {

/// The most elements that an array holds.
const unsigned Ceiling = 256000;

/// Refers to its elements, and notes what it is asked to delete.
struct Pointers : SafeArrayBase {
    explicit Pointers(unsigned initialCapacity = 0) : SafeArrayBase(initialCapacity) {}
    void DeleteItem(void* item) override { deleted.push_back(item); }
    std::vector<void*> deleted;
};

/// The pointer number `i`, below 2 * Ceiling.
inline void* P(unsigned i)
{
    static char bytes[2 * Ceiling];
    return bytes + i;
}

inline std::vector<void*> Contents(const SafeArrayBase& a)
{
    std::vector<void*> contents;
    for (unsigned i = 0; i < a.Quantity(); i++)
        contents.push_back(a.at(i));
    return contents;
}

/// What an array's print writes.
template <class Array>
std::string Printed(const Array& array)
{
    std::ostringstream out;
    array.print(out);
    return out.str();
}

/// What print writes of an array of `elements` with this capacity.
inline std::string PrintOf(const std::string& elementName, int capacity, const std::vector<const void*>& elements,
                           const std::string& purgable = "purgable")
{
    const std::string name = "SafeArray(" + elementName + ")";
    std::string text = name + "***************\n********** Capacity =" + std::to_string(capacity) +
                       "\n********** Quantity =" + std::to_string(elements.size()) + "\n********** This SafeArray is " +
                       purgable + ".\n";
    for (size_t i = 0; i < elements.size(); i++)
        text += "****" + name + "[" + std::to_string(i) + "] address = " + testing_support::Address(elements[i]) + "\n";
    return text;
}

} // namespace safearray_testing

#endif
