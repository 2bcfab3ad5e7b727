// SPDX-License-Identifier: BSD-2-Clause
// A bare growable array of unsigned longs.
#ifndef MISC_ULARRAY_H
#define MISC_ULARRAY_H

#include <cstdint>

#include "Misc/export.h"

/// An array of cells, all of them usable; how many are in use is the business of the owner. The cells hold 32-bit
/// values: whoever computes with them keeps to 32 bits. A new cell is unset until it is written.
///
/// When memory fails the process is stopped by an assertion, with assertions off too: the cells are used unchecked.
class ZELOO_API ulongArray {
public:
    /// An array of `n` cells; an empty one when `n` is not above 0.
    explicit ulongArray(int n);
    /// A copy of all cells.
    ulongArray(const ulongArray& a);
    /// Frees all cells.
    ~ulongArray();
    /// Makes the cells copies of those of `a`.
    ulongArray& operator=(const ulongArray& a);

    /// Adds `n` cells behind the others; does nothing when `n` is not above 0. References to cells go stale.
    void growBy(int n);
    /// Frees all cells.
    void PurgeContents();

    /// The cell at `i`, unchecked: `i` is at least 0 and below Size().
    unsigned long& operator[](int i) { return theCells[i]; }
    /// The value of the cell at `i`, unchecked like operator[].
    unsigned long at(int i) const { return theCells[i]; }
    /// The number of cells.
    int Size() const { return numCells; }

private:
    void copy(const ulongArray& a);

    unsigned long* theCells; // owned; null while there are no cells
    int32_t numCells;
};

#endif
