// SPDX-License-Identifier: BSD-2-Clause
// A header that makes macros of these names must not harm the class.
#define malloc(n) no such function
#define free(p) no such function
#include "Misc/dsa.h"
#undef malloc
#undef free

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/failing_memory.h"
#include "tests/support/testing.h"

using namespace testing_support;

// The size of the table, which no operation tells.
template <int32_t* member>
struct ListSizeAccess {
    friend int32_t ListSize() { return *member; }
};
int32_t ListSize();
template struct ListSizeAccess<&DSA::alloc_list_size>;

namespace {

const std::string Dashes = std::string(54, '-') + "\n";
const std::string Start = "DSA: start dump of currently allocated blocks\n";
const std::string End = "DSA: end dump of currently allocated blocks\n";

std::string Total(int blocks, int corrupted, int bytes)
{
    return "DSA: " + std::to_string(blocks) + " blocks (" + std::to_string(corrupted) + " corrupted) for " +
           std::to_string(bytes) + " bytes currently allocated\n";
}

// A listed block of up to 16 bytes that holds `data`, of characters that print.
std::string Listed(const std::string& data, int tag, const char* status = "good")
{
    char text[200];
    std::snprintf(text, sizeof text, "DSA: data block size: %d, object tag: %d, status: %s\n",
                  static_cast<int>(data.size()), tag, status);
    std::string block = Dashes + text;
    std::snprintf(text, sizeof text, "DSA: HexDump for %d (%04x) bytes\n0000: ", static_cast<int>(data.size()),
                  static_cast<unsigned>(data.size()));
    block += text;
    for (size_t i = 0; i < 16; i++) {
        std::snprintf(text, sizeof text, i < data.size() ? "%02x " : "   ", data[i]);
        block += text;
    }
    return block + " " + data + "\n";
}

// A block that holds `data`.
char* New(const std::string& data)
{
    void* p = DSA::malloc(static_cast<unsigned>(data.size()));
    std::memcpy(p, data.data(), data.size());
    return static_cast<char*>(p);
}

// What `body`, run in a process whose allocator is new, prints. It must end well and say nothing on standard error.
std::string Printed(const std::function<void()>& body)
{
    const ChildResult child = RunInChild(body);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.err, "");
    return child.out;
}

// The same for a body that aborts.
std::string PrintedBeforeAbort(const std::function<void()>& body)
{
    const ChildResult child = RunInChild(body);
    EXPECT_EQ(child.signal, SIGABRT) << "exit code " << child.exitCode;
    EXPECT_EQ(child.err, "");
    return child.out;
}

std::string Statistics(int allocations, int deallocations, int net, int blocks, int bytes, int tide)
{
    return "DSA: Statistics:\nDSA: allocations: " + std::to_string(allocations) +
           " deallocations: " + std::to_string(deallocations) + " net gain/loss: " + std::to_string(net) +
           "\nDSA: NumBlocks: " + std::to_string(blocks) + " Total Size: " + std::to_string(bytes) +
           "  High Tide: " + std::to_string(tide) + " \n";
}

std::string WithoutPointers(const std::string& text) { return Replaced(text, "0x[0-9a-f]+", "<p>"); }

// ---- Before main and after it

// In a process of its own: a static object of another unit uses the allocator before main.
struct EarlyUser {
    EarlyUser()
    {
        if (std::getenv("DSA_TEST_EARLY") == nullptr)
            return;
        static DSA listsAtTheEnd;
        New("early");
        DSA::statistics();
        std::exit(0);
    }
} earlyUser;

TEST(Dsa, WorksBeforeMainAndListsAfterIt)
{
    const std::string out = Printed([] {
        setenv("DSA_TEST_EARLY", "1", 1);
        Execute("/proc/self/exe", {});
    });
    EXPECT_EQ(out, Statistics(1, 0, 1, 1, 5, 5) + Start + Listed("early", 1) + End + Total(1, 0, 5));
}

TEST(Dsa, AnObjectListsWhatWasAllocatedInItsLife)
{
    const std::string out = Printed([] {
        char* before = New("before");
        char* during;
        {
            const DSA object;
            during = New("during");
            DSA::free(New("freed"));
        }
        std::printf("after\n");
        DSA::free(before);
        DSA::free(during);
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, Start + Listed("during", 2) + End + Total(1, 0, 6) + "after\n" + Start + End + Total(0, 0, 0));
}

// ---- Allocating

TEST(Dsa, ABlockHasItsHeaderAndItsTrailer)
{
    Printed([] {
        for (const unsigned size : {1u, 2u, 3u, 4u, 5u, 1000u}) {
            unsigned char* p = static_cast<unsigned char*>(DSA::malloc(size));
            std::memset(p, 'x', size);
            uint32_t words[3];
            std::memcpy(words, p - 8, 8);
            std::memcpy(words + 2, p + size, 4);
            static uint32_t tag = 0;
            CHILD_CHECK(words[0] == size);
            CHILD_CHECK(words[1] == ++tag);
            CHILD_CHECK(words[2] == 0xAABBCCDD);
            CHILD_CHECK(reinterpret_cast<uintptr_t>(p) % 8 == 0);
            if (tag % 2 == 0)
                DSA::free(p); // the tags go on all the same
        }
    });
}

TEST(Dsa, AbortsAtTheChosenTagBeforeAllocating)
{
    const std::string out = PrintedBeforeAbort([] {
        DSA::abort_on_alloc_tag(3);
        DSA::trace_on();
        New("a");
        New("bc");
        New("def");
    });
    EXPECT_EQ(WithoutPointers(out), "DSA: allocated 1 returning <p>\nDSA: allocated 2 returning <p>\n"
                                    "DSA: Abort because alloc_tag matches\n");
}

TEST(Dsa, TheChosenTagComesBeforeTheSize)
{
    EXPECT_EQ(PrintedBeforeAbort([] {
                  DSA::abort_on_alloc_tag(1);
                  DSA::malloc(0);
              }),
              "DSA: Abort because alloc_tag matches\n");
}

TEST(Dsa, AbortsForASizeOfZero)
{
    EXPECT_EQ(PrintedBeforeAbort([] { DSA::malloc(0); }),
              "DSA: Abort because attempt to alloc bad number of bytes (0)\n");
}

TEST(Dsa, ASizeNearFourGigabytesGivesNullAndIsCounted)
{
    const std::string out = Printed([] {
        for (const unsigned size : {4294967295u, 4294967284u})
            CHILD_CHECK(DSA::malloc(size) == nullptr);
        DSA::statistics();
        New("x");
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, Statistics(2, 0, 2, 2, -13, 0) + Start + Listed("x", 1) + End + Total(1, 0, 1))
        << "a call that fails uses no tag";
}

TEST(Dsa, GivesNullWhenMemoryFailsAndCountsTheCall)
{
    if (!MemoryLimit::IsPossible)
        GTEST_SKIP() << "memory cannot be limited here";
    const std::string out = Printed([] {
        const MemoryLimit limit(256 << 20);
        CHILD_CHECK(DSA::malloc(1 << 30) == nullptr);
        DSA::statistics();
        New("x");
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, Statistics(1, 0, 1, 1, 1 << 30, 1 << 30) + Start + Listed("x", 1) + End + Total(1, 0, 1));
}

#ifndef __SANITIZE_ADDRESS__ // whose realloc is its own

TEST(Dsa, GivesNullWithoutRoomForTheTablesAndGoesOnLater)
{
    Printed([] {
        for (const long count : {0, 1}) { // one table and the other
            std::vector<void*> blocks;
            const MemoryFailure failure = MemoryFailure::After(count, Realloc);
            while (void* block = DSA::malloc(1))
                blocks.push_back(block);
            CHILD_CHECK(failure.HasHappened());
            CHILD_CHECK(DSA::malloc(1) == nullptr);
            for (void* block : blocks)
                DSA::free(block);
        }
        for (int i = 0; i < 10000; i++)
            CHILD_CHECK(DSA::malloc(1) != nullptr);
    });
}

#endif

// ---- Releasing

TEST(Dsa, FreeingNullAborts)
{
    EXPECT_EQ(PrintedBeforeAbort([] {
                  DSA::trace_on();
                  DSA::free(nullptr);
              }),
              "DSA: ERROR...Attempt to free a null ptr\n");
}

TEST(Dsa, FreeingTwiceAborts)
{
    EXPECT_EQ(PrintedBeforeAbort([] {
                  char* p = New("ab");
                  DSA::free(p);
                  DSA::free(p);
              }),
              "DSA: ERROR...attempt to free a bad pointer\n");
}

TEST(Dsa, FreeingWhatIsNoBlockAbortsWithoutLookingIntoIt)
{
    EXPECT_EQ(WithoutPointers(PrintedBeforeAbort([] {
                  DSA::trace_on();
                  DSA::free(reinterpret_cast<void*>(8)); // nothing is mapped there
              })),
              "DSA: deallocating 0 bytes at <p>\nDSA: ERROR...attempt to free a bad pointer\n");
    EXPECT_EQ(PrintedBeforeAbort([] { DSA::free(New("ab") + 1); }), "DSA: ERROR...attempt to free a bad pointer\n");
}

TEST(Dsa, AnOverwriteAbortsTheFreeWithADump)
{
    EXPECT_EQ(PrintedBeforeAbort([] {
                  char* p = New("abc");
                  p[3] = 'd';
                  DSA::free(p);
              }),
              "DSA: ERROR...buffer overwrite detected\n"
              "DSA: HexDump for 3 (0003) bytes\n"
              "0000: 61 62 63                                         abc\n");
}

TEST(Dsa, EveryByteOfTheTrailerCounts)
{
    for (int i = 0; i < 4; i++)
        PrintedBeforeAbort([i] {
            char* p = New("abc");
            p[3 + i]++;
            DSA::free(p);
        });
}

// ---- The listing and the marks

TEST(Dsa, ListsBlocksWithTheirState)
{
    const std::string out = Printed([] {
        New("abc");
        New("0123456789abcdef")[16] = '!';
        New("xyz");
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, Start + Listed("abc", 1) + Listed("0123456789abcdef", 2, "CORRUPT") + Listed("xyz", 3) + End +
                       Total(3, 1, 22));
}

TEST(Dsa, TheListingIsFlushed)
{
    const std::string out = Printed([] {
        New("abc");
        DSA::show_allocated_blocks();
        _exit(0);
    });
    EXPECT_EQ(out, Start + Listed("abc", 1) + End + Total(1, 0, 3));
}

TEST(Dsa, ABlockTakesTheFirstEmptySlot)
{
    const std::string out = Printed([] {
        New("one");
        char* two = New("two");
        char* three = New("three");
        New("four");
        DSA::free(three);
        DSA::free(two);
        New("five");
        DSA::show_allocated_blocks();
        New("six");
        New("seven");
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, Start + Listed("one", 1) + Listed("five", 5) + Listed("four", 4) + End + Total(3, 0, 11) + Start +
                       Listed("one", 1) + Listed("five", 5) + Listed("six", 6) + Listed("four", 4) +
                       Listed("seven", 7) + End + Total(5, 0, 19));
}

TEST(Dsa, MarkBeginExcludesWhatIsThere)
{
    const std::string out = Printed([] {
        char* first = New("first");
        New("second");
        DSA::mark_begin();
        New("third");
        DSA::free(first);
        New("fourth"); // in the slot of the first, without its mark
        DSA::show_allocated_blocks();
        DSA::mark_begin();
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out,
              Start + Listed("fourth", 4) + Listed("third", 3) + End + Total(2, 0, 11) + Start + End + Total(0, 0, 0));
}

TEST(Dsa, MarkOkExcludesOneBlock)
{
    const std::string out = Printed([] {
        DSA::mark_ok("before there is a table");
        New("a");
        char* p = New("b");
        char* freed = New("c");
        DSA::free(freed);
        DSA::mark_ok(p);
        DSA::mark_ok(p + 1);
        DSA::mark_ok(nullptr); // the empty slots stay unmarked
        DSA::mark_ok(freed);
        New("d");
        New("e");
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, Start + Listed("a", 1) + Listed("d", 4) + Listed("e", 5) + End + Total(3, 0, 3));
}

TEST(Dsa, NewBlocksCarryTheMark)
{
    const std::string out = Printed([] {
        std::printf("%d", DSA::get_mark_flag());
        New("a");
        DSA::mark_off();
        std::printf(" %d", DSA::get_mark_flag());
        New("b");
        DSA::mark_on();
        std::printf(" %d", DSA::get_mark_flag());
        New("c");
        std::printf(" %d", DSA::set_mark_flag(7));
        std::printf(" %d\n", DSA::get_mark_flag());
        New("d");
        DSA::set_mark_flag(0);
        New("e");
        DSA::show_allocated_blocks();
    });
    EXPECT_EQ(out, "0 1 0 7 7\n" + Start + Listed("a", 1) + Listed("c", 3) + Listed("e", 5) + End + Total(3, 0, 3));
}

TEST(Dsa, TheTableDoubles)
{
    const std::string out = Printed([] {
        std::vector<void*> blocks;
        const auto allocate = [&](unsigned count) {
            while (blocks.size() < count)
                blocks.push_back(New("x"));
            std::printf("%u: %d\n", count, ListSize());
        };
        for (const unsigned count : {0u, 1u, 1000u, 1001u, 2000u, 2001u, 4001u})
            allocate(count);
        DSA::mark_begin();
        DSA::free(blocks[1500]);
        New("found");
        DSA::show_allocated_blocks();
        blocks.erase(blocks.begin() + 1500);
        for (void* p : blocks)
            DSA::free(p);
        DSA::statistics();
    });
    EXPECT_EQ(out, "0: 0\n1: 1000\n1000: 1000\n1001: 2000\n2000: 2000\n2001: 4000\n4001: 8000\n" + Start +
                       Listed("found", 4002) + End + Total(1, 0, 5) + Statistics(4002, 4001, 1, 1, 5, 4005));
}

// ---- Counters and tracing

TEST(Dsa, CountsAllocationsAndReleases)
{
    const std::string out = Printed([] {
        DSA::statistics();
        char* a = New("12345");
        char* b = New("1234567");
        DSA::free(a);
        DSA::statistics();
        DSA::mark();
        DSA::statistics();
        New("1");
        DSA::free(b);
        DSA::free(New("123"));
        DSA::statistics();
    });
    EXPECT_EQ(out, Statistics(0, 0, 0, 0, 0, 0) + Statistics(2, 1, 1, 1, 7, 12) + Statistics(0, 0, 0, 1, 7, 12) +
                       Statistics(2, 2, 0, 1, 1, 12));
}

TEST(Dsa, OutputKeepsItsOrderWithAStreamOfItsOwnBuffer)
{
    const std::string out = Printed([] {
        std::ios::sync_with_stdio(false);
        std::printf("first\n");
        DSA::statistics();
        std::printf("last\n");
    });
    EXPECT_EQ(out, "first\n" + Statistics(0, 0, 0, 0, 0, 0) + "last\n");
}

TEST(Dsa, TracingCountsItsCalls)
{
    const std::string out = Printed([] {
        const auto use = [](const char* step) {
            std::printf("%s\n", step);
            DSA::free(New("four"));
        };
        use("off");
        DSA::trace_of(); // not below 0
        DSA::trace_on();
        use("on");
        DSA::trace_on();
        DSA::trace_of();
        use("still on");
        DSA::trace_of();
        use("off again");
    });
    const std::string pair = "DSA: allocated 4 returning <p>\nDSA: deallocating 4 bytes at <p>\n";
    EXPECT_EQ(WithoutPointers(out), "off\non\n" + pair + "still on\n" + pair + "off again\n");
}

TEST(Dsa, TracingShowsThePointerOfTheCaller)
{
    const std::string out = Printed([] {
        DSA::trace_on();
        void* p = DSA::malloc(9);
        std::printf("%p\n", p);
        DSA::free(p);
    });
    const std::string p = ReportField(out, "returning ");
    ASSERT_EQ(p.substr(0, 2), "0x");
    EXPECT_EQ(out, "DSA: allocated 9 returning " + p + "\n" + p + "\nDSA: deallocating 9 bytes at " + p + "\n");
}

// ---- The hex dump

std::string HexDump(const std::string& bytes, int n)
{
    return CaptureStdout([&] { DSA::hexdump(bytes.data(), n); });
}

TEST(DsaHexDump, FillsUpAShortRow)
{
    EXPECT_EQ(HexDump("Az", 2), "DSA: HexDump for 2 (0002) bytes\n"
                                "0000: 41 7a                                            Az\n");
    EXPECT_EQ(HexDump("0123456789abcde", 15), "DSA: HexDump for 15 (000f) bytes\n"
                                              "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65     "
                                              "0123456789abcde\n");
}

TEST(DsaHexDump, WritesWholeRows)
{
    EXPECT_EQ(HexDump("0123456789abcdef", 16),
              "DSA: HexDump for 16 (0010) bytes\n"
              "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n");
    EXPECT_EQ(HexDump("0123456789abcdefABCDEFGHIJKLMNOP", 32),
              "DSA: HexDump for 32 (0020) bytes\n"
              "0000: 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "0010: 41 42 43 44 45 46 47 48 49 4a 4b 4c 4d 4e 4f 50  ABCDEFGHIJKLMNOP\n");
}

TEST(DsaHexDump, ShowsBlanksForWhatDoesNotPrint)
{
    EXPECT_EQ(HexDump(std::string("\0\x1f ~\x7f\x80\xff\n%s%n0123456", 19), 19),
              "DSA: HexDump for 19 (0013) bytes\n"
              "0000: 00 1f 20 7e 7f 80 ff 0a 25 73 25 6e 30 31 32 33     ~    %s%n0123\n"
              "0010: 34 35 36                                         456\n");
}

TEST(DsaHexDump, NoBytesGiveAnEmptyRow)
{
    EXPECT_EQ(HexDump("", 0), "DSA: HexDump for 0 (0000) bytes\n0000: " + std::string(48, ' ') + " \n");
    EXPECT_EQ(HexDump("", -1), "DSA: HexDump for -1 (ffffffff) bytes\n0000: " + std::string(48, ' ') + " \n");
}

TEST(DsaHexDump, OffsetsGrowBeyondFourDigits)
{
    const std::string out = HexDump(std::string(65537, 'x'), 65537);
    EXPECT_EQ(out.substr(0, out.find('\n')), "DSA: HexDump for 65537 (10001) bytes");
    EXPECT_EQ(out.substr(out.size() - 58), "10000: 78 " + std::string(45, ' ') + " x\n");
}

} // namespace
