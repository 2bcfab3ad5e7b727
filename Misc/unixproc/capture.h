// SPDX-License-Identifier: BSD-2-Clause
// The output of a child, collected within bounds.
#ifndef MISC_UNIXPROC_CAPTURE_H
#define MISC_UNIXPROC_CAPTURE_H

#include <cstddef>
#include <cstdint>

#include "Misc/buffer.h"

namespace zeloo {

/// Collects the first bytes of what a child writes and counts the others. What comes behind a byte that found no memory
/// is not kept either: the output has no holes.
class Capture {
public:
    /// Keeps at most `bound` bytes, and never more than a Buffer holds with the lines behind them. 0 is no bound.
    explicit Capture(uint64_t bound);
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    void Take(const char* bytes, size_t n);
    /// Puts what was kept in the place of the contents of `output`; behind it, when more than the bound has come, a line
    /// that tells how much was left out; and behind that `last`, which has fewer than 100 characters. There is always
    /// room for these lines when there was for any output. The capture is empty afterwards. `errno` is kept.
    void HandOver(Buffer& output, const char* last);

private:
    bool MakeRoom(uint64_t needed);

    const uint64_t most; // bytes to keep
    char* block;         // malloc'd; null while nothing was kept
    uint64_t size;       // of the block
    uint64_t used;       // bytes kept
    uint64_t taken;      // bytes that came
    bool isClosed;       // memory has failed once
};

} // namespace zeloo

#endif
