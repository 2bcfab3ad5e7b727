// SPDX-License-Identifier: BSD-2-Clause
// A storage allocator for hunting leaks and overwrites.
#ifndef MISC_DSA_H
#define MISC_DSA_H

#include <cstdint>

#include "Misc/export.h"

/// A debugging storage allocator. It gives every block a serial number, its allocation tag (1 for the first block of
/// the process), and a fixed word behind its end that shows an overwrite; it keeps a table of all live blocks with a
/// mark on each, and counts. Blocks that are not marked can be listed with their contents, so that one can see what
/// was allocated since a chosen moment and not freed; then abort_on_alloc_tag stops the program where that was done.
///
/// Everything is static and serves the whole process, also before main and after it. A static DSA object lists at the
/// program's end every block that was allocated since its construction and is still there.
///
/// All output goes to standard output. A misuse, or damage that is found, is told there and aborts the process. The
/// table is searched from its start: malloc and free take time in proportion to the blocks that are alive. Only for a
/// process of one thread, and not for signal handlers.
class ZELOO_API DSA {
public:
    /// mark_begin().
    DSA();
    /// show_allocated_blocks().
    ~DSA();
    DSA(const DSA&) = delete;
    DSA& operator=(const DSA&) = delete;

    // The names stand in parentheses so that macros with parameters of these names leave the declarations alone. A
    // caller with such macros writes (DSA::malloc)(n).

    /// A new block of `size` bytes, aligned for 8-byte objects and not cleared; released with DSA::free only. Null when
    /// memory fails and for a size within 12 bytes of 4 GB; the counters count such a call all the same. Aborts when
    /// `size` is 0, and, before anything is allocated or counted, when the block's tag is the one chosen by
    /// abort_on_alloc_tag.
    static void*(malloc)(unsigned int size);
    /// Releases a block. Aborts when `p` is null or no live block of DSA::malloc (one freed before included), and, with
    /// a dump of the contents, when the word behind the block has been overwritten.
    static void(free)(void* p);

    /// Sets the counts of allocations and deallocations to 0.
    static void mark();
    /// Excludes all blocks that are alive now from the listings.
    static void mark_begin();
    /// Excludes one block from the listings. A pointer that is no live block is ignored.
    static void mark_ok(const void* p);
    /// Lists new blocks: sets the mark given to them to 0, the value at the start.
    static void mark_on();
    /// Keeps new blocks off the listings: sets the mark given to them to 1.
    static void mark_off();
    /// Sets the mark given to new blocks, a char, and returns it; all but 0 keep them off the listings.
    static short set_mark_flag(short flag);
    /// The mark that new blocks get.
    static short get_mark_flag();

    /// Lists every live block whose mark is 0: size, tag, whether the word behind its end is intact ("good") or not
    /// ("CORRUPT"), and its contents; then the totals of what was listed. Flushes standard output.
    static void show_allocated_blocks();
    /// Prints the counts of allocations and deallocations since mark(), the live blocks, their bytes and the most bytes
    /// that were ever alive at once.
    static void statistics();

    /// Makes the allocation of the block with this tag abort the process. No block has the tag 0.
    static void abort_on_alloc_tag(unsigned int tag);
    /// Turns tracing up: it prints a line for each allocation and each release while trace_on has been called more
    /// often than trace_of.
    static void trace_on();
    /// Takes one trace_on back; the count never goes below 0. The name is intended.
    static void trace_of();

    /// Prints `n` bytes from `p` on, 16 a row, in hexadecimal and as characters; only the heading and an empty row
    /// when `n` is not above 0.
    static void hexdump(const void* p, int n);

private:
    static int find_in_list(const void* p);
    static int empty_slot();
    static int grow_list();

    static int32_t numBlocks;       // live blocks
    static int32_t allocatedBlocks; // live bytes
    static int32_t highTide;        // the most live bytes so far
    static int32_t allocations;     // since mark()
    static int32_t deallocations;
    static int32_t trace_flag; // tracing is on above 0
    static char mark_flag;     // the mark of new blocks
    static const uint32_t dsa_magic_cookie;

    // The table of live blocks; an empty slot holds a null pointer and the mark 0. It is never released.
    static int32_t alloc_list_size;
    static void** alloc_list; // the pointers that the callers have
    static char* mark_list;

    static uint32_t alloc_tag;       // of the next block
    static uint32_t abort_alloc_tag; // the tag at which to abort
};

#endif
