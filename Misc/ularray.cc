// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/ularray.h"

#include <algorithm>
#include <new>

#include "Misc/detail/assertion.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: ularray.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

ulongArray::ulongArray(int n) : theCells(nullptr), numCells(0) { growBy(n); }

ulongArray::ulongArray(const ulongArray& a) : theCells(nullptr), numCells(0) { copy(a); }

ulongArray::~ulongArray() { delete[] theCells; }

ulongArray& ulongArray::operator=(const ulongArray& a)
{
    if (this != &a) {
        PurgeContents();
        copy(a);
    }
    return *this;
}

void ulongArray::growBy(int n)
{
    if (n <= 0)
        return;
    unsigned long* theNewCells = nullptr;
    if (n <= INT32_MAX - numCells) // more cells than can be counted are more than there is memory for
        theNewCells = new (std::nothrow) unsigned long[static_cast<size_t>(numCells + n)];
    ZELOO_REQUIRE(theNewCells != 0, "Misc/ularray");
    std::copy_n(theCells, numCells, theNewCells);
    delete[] theCells;
    theCells = theNewCells;
    numCells += n;
}

void ulongArray::PurgeContents()
{
    delete[] theCells;
    theCells = nullptr;
    numCells = 0;
}

// Copies the cells of `a` into this array, which is empty.
void ulongArray::copy(const ulongArray& a)
{
    growBy(a.numCells);
    std::copy_n(a.theCells, numCells, theCells);
}
