// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/dsa.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Misc/detail/hexdump.h"
#include "Misc/detail/standardstreams.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: dsa.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace {

// What stands before the caller's data.
struct Header {
    uint32_t size; // of the data
    uint32_t tag;
};
static_assert(sizeof(Header) == 8, "the layout of a block is fixed");

} // namespace

static const unsigned Overhead = sizeof(Header) + sizeof(uint32_t); // header and trailer
static const int FirstListSize = 1000;

// All constant-initialised and trivially destroyed: the allocator works before main and after it.
int32_t DSA::numBlocks = 0;
int32_t DSA::allocatedBlocks = 0;
int32_t DSA::highTide = 0;
int32_t DSA::allocations = 0;
int32_t DSA::deallocations = 0;
int32_t DSA::trace_flag = 0;
char DSA::mark_flag = 0;
const uint32_t DSA::dsa_magic_cookie = 0xAABBCCDD;
int32_t DSA::alloc_list_size = 0;
void** DSA::alloc_list = nullptr;
char* DSA::mark_list = nullptr;
uint32_t DSA::alloc_tag = 1;
uint32_t DSA::abort_alloc_tag = 0;

// Sums and counts wrap like the 32-bit words they are kept in.
static int32_t Add(int32_t count, uint32_t n) { return static_cast<int32_t>(static_cast<uint32_t>(count) + n); }

static Header* HeaderOf(const void* p) { return static_cast<Header*>(const_cast<void*>(p)) - 1; }

static char* TrailerOf(const void* p) { return static_cast<char*>(const_cast<void*>(p)) + HeaderOf(p)->size; }

// What follows a block's data is not aligned: it is copied bytewise.
static bool IsIntact(const void* p, uint32_t cookie) { return std::memcmp(TrailerOf(p), &cookie, sizeof cookie) == 0; }

// Prints `reason` and aborts. abort() flushes nothing, and what was printed tells why it came to this.
[[noreturn]] static void Abort(const char* reason)
{
    std::printf("%s", reason);
    std::fflush(stdout);
    std::abort();
}

DSA::DSA() { mark_begin(); }

DSA::~DSA() { show_allocated_blocks(); }

void*(DSA::malloc)(unsigned int size)
{
    if (alloc_tag == abort_alloc_tag)
        Abort("DSA: Abort because alloc_tag matches\n");
    if (size == 0)
        Abort("DSA: Abort because attempt to alloc bad number of bytes (0)\n");
    // Intended: the counters move even when the system then has no memory.
    allocations = Add(allocations, 1);
    numBlocks = Add(numBlocks, 1);
    allocatedBlocks = Add(allocatedBlocks, size);
    highTide = std::max(highTide, allocatedBlocks);

    if (size > UINT32_MAX - Overhead)
        return nullptr;
    Header* header = static_cast<Header*>(std::malloc(static_cast<std::size_t>(size) + Overhead));
    if (header == nullptr)
        return nullptr;
    const int slot = empty_slot();
    if (slot < 0) { // a block that is in no table could not be freed
        std::free(header);
        return nullptr;
    }
    void* p = header + 1;
    header->size = size;
    header->tag = alloc_tag++;
    std::memcpy(TrailerOf(p), &dsa_magic_cookie, sizeof dsa_magic_cookie);
    if (trace_flag > 0)
        std::printf("DSA: allocated %u returning %p\n", size, p);
    alloc_list[slot] = p;
    mark_list[slot] = mark_flag;
    return p;
}

void(DSA::free)(void* p)
{
    if (p == nullptr)
        Abort("DSA: ERROR...Attempt to free a null ptr\n");
    const int slot = find_in_list(p);
    const uint32_t size = slot >= 0 ? HeaderOf(p)->size : 0; // before a pointer that is no block there may be nothing
    if (trace_flag > 0)
        std::printf("DSA: deallocating %u bytes at %p\n", size, p);
    if (slot < 0)
        Abort("DSA: ERROR...attempt to free a bad pointer\n");
    alloc_list[slot] = nullptr;
    mark_list[slot] = 0;
    if (!IsIntact(p, dsa_magic_cookie)) {
        std::printf("DSA: ERROR...buffer overwrite detected\n");
        hexdump(p, static_cast<int>(size));
        Abort("");
    }
    deallocations = Add(deallocations, 1);
    numBlocks = Add(numBlocks, -1u);
    allocatedBlocks = Add(allocatedBlocks, -size);
    std::free(HeaderOf(p));
}

void DSA::mark()
{
    allocations = 0;
    deallocations = 0;
}

void DSA::mark_begin()
{
    for (int slot = 0; slot < alloc_list_size; slot++)
        if (alloc_list[slot] != nullptr)
            mark_list[slot] = 1;
}

void DSA::mark_ok(const void* p)
{
    const int slot = p != nullptr ? find_in_list(p) : -1;
    if (slot >= 0)
        mark_list[slot] = 1;
}

void DSA::mark_on() { mark_flag = 0; }
void DSA::mark_off() { mark_flag = 1; }

short DSA::set_mark_flag(short flag) { return mark_flag = static_cast<char>(flag); }

short DSA::get_mark_flag() { return mark_flag; }

void DSA::show_allocated_blocks()
{
    int blocks = 0;
    int corrupted = 0;
    int32_t bytes = 0;
    std::printf("DSA: start dump of currently allocated blocks\n");
    for (int slot = 0; slot < alloc_list_size; slot++) {
        const void* p = alloc_list[slot];
        if (p == nullptr || mark_list[slot] != 0)
            continue;
        const Header* header = HeaderOf(p);
        const bool intact = IsIntact(p, dsa_magic_cookie);
        std::printf("------------------------------------------------------\n");
        std::printf("DSA: data block size: %d, object tag: %d, status: %s\n", static_cast<int>(header->size),
                    static_cast<int>(header->tag), intact ? "good" : "CORRUPT");
        hexdump(p, static_cast<int>(header->size));
        blocks++;
        corrupted += intact ? 0 : 1;
        bytes = Add(bytes, header->size);
    }
    std::printf("DSA: end dump of currently allocated blocks\n");
    std::printf("DSA: %d blocks (%d corrupted) for %d bytes currently allocated\n", blocks, corrupted, bytes);
    std::fflush(stdout);
}

void DSA::statistics()
{
    const std::ios_base::Init streams; // the caller may run before the stream's own initialisation, or after its end
    std::fflush(stdout);               // the stream may have been cut off from stdio
    std::cout << "DSA: Statistics:\n"
              << "DSA: allocations: " << allocations << " deallocations: " << deallocations
              << " net gain/loss: " << Add(allocations, -static_cast<uint32_t>(deallocations)) << '\n'
              << "DSA: NumBlocks: " << numBlocks << " Total Size: " << allocatedBlocks << "  High Tide: " << highTide
              << " \n"
              << std::flush;
}

void DSA::abort_on_alloc_tag(unsigned int tag) { abort_alloc_tag = tag; }

void DSA::trace_on() { trace_flag++; }

void DSA::trace_of()
{
    if (trace_flag > 0)
        trace_flag--;
}

void DSA::hexdump(const void* p, int n)
{
    const unsigned char* bytes = static_cast<const unsigned char*>(p);
    const unsigned size = static_cast<unsigned>(std::max(n, 0));
    std::printf("DSA: HexDump for %d (%04x) bytes\n", n, static_cast<unsigned>(n));
    unsigned done = 0;
    do {
        const unsigned count = std::min(size - done, zeloo::BytesInRow);
        char row[zeloo::RowTextLength + 1];
        *zeloo::PutByteRow(row, bytes + done, count) = '\0';
        std::printf("%04x: %s\n", done, row);
        done += count;
    } while (done < size);
}

// The slot of a live block, or -1.
int DSA::find_in_list(const void* p)
{
    void** end = alloc_list + alloc_list_size;
    void** found = std::find(alloc_list, end, p);
    return found != end ? static_cast<int>(found - alloc_list) : -1;
}

// The first empty slot, in a larger table when there was none; -1 when memory fails.
int DSA::empty_slot()
{
    const int slot = find_in_list(nullptr);
    return slot >= 0 ? slot : grow_list();
}

// Doubles the table. Returns the first new slot, or -1 when memory fails, which leaves the table as it is.
int DSA::grow_list()
{
    if (alloc_list_size > INT_MAX / 2)
        return -1;
    const int slots = alloc_list_size == 0 ? FirstListSize : 2 * alloc_list_size;
    const std::size_t room = static_cast<std::size_t>(slots);
    void** list = static_cast<void**>(std::realloc(alloc_list, room * sizeof *list));
    if (list == nullptr)
        return -1;
    alloc_list = list;
    char* marks = static_cast<char*>(std::realloc(mark_list, room));
    if (marks == nullptr)
        return -1;
    mark_list = marks;
    const int firstNew = alloc_list_size;
    std::fill(alloc_list + firstNew, alloc_list + slots, nullptr);
    std::fill(mark_list + firstNew, mark_list + slots, '\0');
    alloc_list_size = slots;
    return firstNew;
}
