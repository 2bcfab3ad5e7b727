// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context.h"

#include <algorithm>
#include <cerrno>
#include <csetjmp>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tests/support/stack_overflow.h"
#include "tests/support/testing.h"

using namespace testing_support;

// The faults of these tests are theirs to handle. <sanitizer/...> need not be there for this.
extern "C" const char* __asan_default_options()
{
    return "handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0:use_sigaltstack=0";
}

namespace {

#if defined(__x86_64__) || defined(__i386__) || defined(__aarch64__)
const bool KnowsRegisters = true;
#else
const bool KnowsRegisters = false; // of this processor all are 0
#endif

const uintptr_t PageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));

uintptr_t Address(const void* p) { return reinterpret_cast<uintptr_t>(p); }

int SaveNothing(int sig)
{
    return svr4::capture_signal(sig, [](int) {});
}

TEST(MappingOf, GivesTheBoundsOfAMapping)
{
    char* memory = static_cast<char*>(mmap(nullptr, 5 * PageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    ASSERT_EQ(mprotect(memory + PageSize, 3 * PageSize, PROT_READ | PROT_WRITE), 0);
    const uintptr_t first = Address(memory) + PageSize;
    const uintptr_t behind = first + 3 * PageSize;
    for (const uintptr_t address : {first, first + 1, first + PageSize, behind - 1}) {
        uintptr_t low = 0, high = 0;
        EXPECT_EQ(svr4::mapping_of(address, &low, &high), 0);
        EXPECT_EQ(low, first);
        EXPECT_EQ(high, behind);
    }
    for (const uintptr_t address : {first - 1, behind}) {
        uintptr_t low = 1, high = 2;
        EXPECT_EQ(svr4::mapping_of(address, &low, &high), -1) << "mapped, but not readable";
        EXPECT_EQ(low, 1u);
        EXPECT_EQ(high, 2u);
    }
    munmap(memory, 5 * PageSize);
    uintptr_t low, high;
    EXPECT_EQ(svr4::mapping_of(first, &low, &high), -1);
}

TEST(MappingOf, FindsTheStackAndTheCodeButNotWhatIsNoMemory)
{
    int local = 0;
    uintptr_t low, high;
    ASSERT_EQ(svr4::mapping_of(Address(&local), &low, &high), 0);
    EXPECT_LE(low, Address(&local));
    EXPECT_GT(high, Address(&local));
    EXPECT_EQ(low % PageSize, 0u);
    EXPECT_EQ(high % PageSize, 0u);
    ASSERT_EQ(svr4::mapping_of(reinterpret_cast<uintptr_t>(&SaveNothing), &low, &high), 0) << "code can be read";
    EXPECT_EQ(svr4::mapping_of(0, &low, &high), -1);
    EXPECT_EQ(svr4::mapping_of(UINTPTR_MAX, &low, &high), -1);
}

TEST(MappingOf, FindsTheLastOfManyMappings)
{
    // Neighbours of different protection are not merged: the list is much longer than one read of it.
    char* memory = static_cast<char*>(mmap(nullptr, 2000 * PageSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(memory, MAP_FAILED);
    for (int i = 0; i < 2000; i += 2)
        ASSERT_EQ(mprotect(memory + i * PageSize, PageSize, PROT_READ), 0);
    for (int i = 0; i < 2000; i++) {
        const uintptr_t page = Address(memory) + i * PageSize;
        uintptr_t low = 0, high = 0;
        if (i % 100 > 1)
            continue;
        ASSERT_EQ(svr4::mapping_of(page + 17, &low, &high), i % 2 == 0 ? 0 : -1) << i;
        if (i % 2 == 0 && i != 0) {
            EXPECT_EQ(low, page);
            EXPECT_EQ(high, page + PageSize);
        }
    }
    munmap(memory, 2000 * PageSize);
}

TEST(MappingOf, KeepsErrnoAndLeavesNoDescriptor)
{
    const int before = OpenDescriptors();
    uintptr_t low, high;
    errno = EXDEV;
    svr4::mapping_of(Address(&low), &low, &high);
    EXPECT_EQ(errno, EXDEV);
    svr4::mapping_of(0, &low, &high);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_EQ(OpenDescriptors(), before);
}

TEST(MappingOf, FailsWithoutADescriptor)
{
    EXPECT_EQ(RunInChild([] {
                  LimitDescriptors(0);
                  uintptr_t low, high;
                  errno = EXDEV;
                  const int result = svr4::mapping_of(Address(&low), &low, &high);
                  _exit(result == -1 && errno == EXDEV ? 7 : 1);
              }).exitCode,
              7);
}

TEST(CopyMemory, CopiesOtherFrames)
{
    char text[] = "0123456789";
    char copy[sizeof text] = {};
    svr4::copy_memory(Address(text) + 2, copy, 4);
    EXPECT_STREQ(copy, "2345");
    svr4::copy_memory(Address(text), copy, 0);
    EXPECT_STREQ(copy, "2345");
    // Everything above this frame, whatever lies between the objects there.
    uintptr_t low, high;
    ASSERT_EQ(svr4::mapping_of(Address(text), &low, &high), 0);
    const size_t length = std::min<size_t>(high - Address(text), 65536);
    std::vector<char> all(length);
    svr4::copy_memory(Address(text), all.data(), length);
    EXPECT_EQ(memcmp(all.data(), text, sizeof text), 0);
}

TEST(AlternateStack, IsLargeAndGuarded)
{
    const ChildResult result = RunInChild([] {
        stack_t before;
        sigaltstack(nullptr, &before);
        if ((before.ss_flags & SS_DISABLE) == 0)
            _exit(1);
        if (svr4::use_alternate_stack() != 0)
            _exit(2);
        stack_t now;
        sigaltstack(nullptr, &now);
        if ((now.ss_flags & SS_DISABLE) != 0 || now.ss_size < 256 * 1024)
            _exit(3);
        uintptr_t low, high;
        if (svr4::mapping_of(Address(now.ss_sp), &low, &high) != 0 || low != Address(now.ss_sp) ||
            high != low + now.ss_size)
            _exit(4);
        if (svr4::mapping_of(low - 1, &low, &high) != -1)
            _exit(5);
        // Again: the same memory; and back in its place when another stack was put there.
        if (svr4::use_alternate_stack() != 0)
            _exit(6);
        static char mine[65536];
        stack_t other = {};
        other.ss_sp = mine;
        other.ss_size = sizeof mine;
        sigaltstack(&other, nullptr);
        if (svr4::use_alternate_stack() != 0)
            _exit(7);
        stack_t after;
        sigaltstack(nullptr, &after);
        _exit(after.ss_sp == now.ss_sp && after.ss_size == now.ss_size ? 0 : 8);
    });
    EXPECT_EQ(result.exitCode, 0);
}

volatile sig_atomic_t handled = 0;

TEST(CaptureSignal, RefusesWhatIsNoSignal)
{
    for (const int sig : {-1, 0, NSIG, SIGKILL}) {
        errno = 0;
        EXPECT_EQ(SaveNothing(sig), -1) << sig;
        EXPECT_EQ(errno, EINVAL) << sig;
    }
}

TEST(CaptureSignal, TheHandlerMayReturn)
{
    const ChildResult result = RunInChild([] {
        svr4::SignalledContext context;
        memset(&context, 0xff, sizeof context);
        if (svr4::signalled_context(&context) != -1 || context.stackPointer != 0 || context.framePointer != 0 ||
            context.registers[0] != 0)
            _exit(1);
        svr4::use_alternate_stack();
        stack_t before, after;
        sigaltstack(nullptr, &before);
        svr4::capture_signal(SIGUSR2, [](int sig) {
            sigset_t mask;
            sigprocmask(SIG_BLOCK, nullptr, &mask);
            for (int other = 1; other < NSIG; other++)
                if (sigismember(&mask, other) != (other == sig ? 1 : 0))
                    _exit(2);
            stack_t now;
            sigaltstack(nullptr, &now);
            if (svr4::use_alternate_stack() != 0)
                _exit(3);
            handled = handled + sig;
            errno = EXDEV;
        });
        for (int i = 1; i <= 2; i++) {
            errno = EAGAIN;
            raise(SIGUSR2);
            if (errno != EAGAIN || handled != i * SIGUSR2)
                _exit(4);
            sigaltstack(nullptr, &after);
            if (after.ss_sp != before.ss_sp || (after.ss_flags & SS_DISABLE) != 0)
                _exit(5);
        }
        _exit(svr4::signalled_context(&context) == 0 && (context.stackPointer != 0) == KnowsRegisters ? 0 : 6);
    });
    EXPECT_EQ(result.exitCode, 0);
}

sigjmp_buf back;

TEST(CaptureSignal, AnOverflowOfTheStackIsHandled)
{
    const ChildResult result = RunInChild([] {
        LimitStack();
        svr4::use_alternate_stack();
        svr4::capture_signal(SIGSEGV, [](int) {
            svr4::SignalledContext context;
            svr4::signalled_context(&context);
            uintptr_t low, high, own;
            const uintptr_t here = Address(__builtin_frame_address(0));
            if (KnowsRegisters && svr4::mapping_of(context.framePointer, &low, &high) != 0)
                _exit(1);
            if (KnowsRegisters && here >= low && here < high)
                _exit(2);
            if (svr4::mapping_of(here, &own, &high) != 0 || high - own < 256 * 1024)
                _exit(3);
            _exit(0);
        });
        OverflowStack(1);
    });
    EXPECT_EQ(result.exitCode, 0);
}

TEST(CaptureSignal, AnOverflowOfTheAlternateStackIsHandledOnTheReserveStack)
{
    const ChildResult result = RunInChild([] {
        LimitStack();
        svr4::use_alternate_stack();
        svr4::capture_signal(SIGSEGV, [](int) {
            struct sigaction action = {};
            action.sa_flags = SA_ONSTACK;
            sigemptyset(&action.sa_mask);
            action.sa_handler = [](int) { siglongjmp(back, 1); };
            sigaction(SIGSEGV, &action, nullptr);
            sigset_t own;
            sigemptyset(&own);
            sigaddset(&own, SIGSEGV);
            sigprocmask(SIG_UNBLOCK, &own, nullptr);
            for (volatile int i = 0; i < 3; i = i + 1)
                if (sigsetjmp(back, 1) == 0)
                    OverflowStack(1);
            _exit(5);
        });
        OverflowStack(1);
    });
    EXPECT_EQ(result.exitCode, 5) << result.err;
}

uint64_t Value(const svr4::SignalledContext& context, const std::string& label)
{
    for (size_t i = 0; i < svr4::RegisterCount; i++)
        if (svr4::RegisterLabels[i] == label)
            return context.registers[i];
    _exit(7);
}

TEST(SignalledContext, HasTheLabelsOfACrashDumpInTheirOrder)
{
    const ChildResult result = RunInChild([] {
        svr4::capture_signal(SIGUSR2, [](int) {
            svr4::SignalledContext context;
            if (svr4::signalled_context(&context) != 0)
                _exit(1);
            const std::vector<std::string> labels(std::begin(svr4::RegisterLabels), std::end(svr4::RegisterLabels));
            if (labels != std::vector<std::string>{"SS", "UESP", "EFL", "CS", "EIP", "ERR", "TRAPNO", "EAX", "ECX",
                                                   "EDX", "EBX", "ESP", "EBP", "ESI", "EDI", "DS", "ES", "FS", "GS"})
                _exit(2);
            if (context.stackPointer != Value(context, "UESP") || context.framePointer != Value(context, "EBP"))
                _exit(3);
            _exit(0);
        });
        raise(SIGUSR2);
        _exit(8);
    });
    EXPECT_EQ(result.exitCode, 0);
}

#if defined(__x86_64__) || defined(__i386__)

#if defined(__x86_64__)
const uint64_t AccumulatorValue = 0x1111222233334444;
const size_t SegmentsKept = 2; // of those below

void StopWithKnownRegisters()
{
    asm volatile("movabs $0x1111222233334444, %%rax\n\tmov $2, %%ebx\n\tmov $3, %%ecx\n\tmov $4, %%edx\n\t"
                 "mov $5, %%esi\n\tmov $6, %%edi\n\tmov %%rsp, %%rbp\n\tud2" ::
                     : "rax", "rbx", "rcx", "rdx", "rsi", "rdi", "memory");
}
#else
const uint64_t AccumulatorValue = 0xf1112222;
const size_t SegmentsKept = 6;

void StopWithKnownRegisters()
{
    asm volatile("mov $0xf1112222, %%eax\n\tmov $2, %%ebx\n\tmov $3, %%ecx\n\tmov $4, %%edx\n\t"
                 "mov $5, %%esi\n\tmov $6, %%edi\n\tmov %%esp, %%ebp\n\tud2" ::
                     : "eax", "ebx", "ecx", "edx", "esi", "edi", "memory");
}
#endif

TEST(SignalledContext, HoldsWhatTheRegistersHeld)
{
    const ChildResult result = RunInChild([] {
        svr4::use_alternate_stack();
        svr4::capture_signal(SIGILL, [](int) {
            svr4::SignalledContext context;
            if (svr4::signalled_context(&context) != 0)
                _exit(1);
            const auto value = [&context](const char* label) { return Value(context, label); };
            if (value("EAX") != AccumulatorValue || value("EBX") != 2 || value("ECX") != 3 || value("EDX") != 4 ||
                value("ESI") != 5 || value("EDI") != 6)
                _exit(2);
            if (value("TRAPNO") != 6 || value("ERR") != 0)
                _exit(3);
            unsigned short instruction; // at any address, so aligned or not
            std::memcpy(&instruction, reinterpret_cast<const void*>(value("EIP")), sizeof instruction);
            if (instruction != 0x0b0f) // the illegal instruction itself
                _exit(4);
            if (value("UESP") != value("ESP") || value("UESP") == 0 || value("EBP") != value("ESP") ||
                context.stackPointer != value("ESP") || context.framePointer != value("EBP"))
                _exit(5);
            const char* const labels[] = {"CS", "SS", "DS", "ES", "FS", "GS"};
            unsigned short segments[6];
            asm("mov %%cs, %0" : "=r"(segments[0]));
            asm("mov %%ss, %0" : "=r"(segments[1]));
            asm("mov %%ds, %0" : "=r"(segments[2]));
            asm("mov %%es, %0" : "=r"(segments[3]));
            asm("mov %%fs, %0" : "=r"(segments[4]));
            asm("mov %%gs, %0" : "=r"(segments[5]));
            for (size_t i = 0; i < SegmentsKept; i++)
                if ((value(labels[i]) & 0xffff) != segments[i]) // the host leaves the upper half to chance
                    _exit(6);
            _exit(value("EFL") != 0 ? 0 : 7);
        });
        StopWithKnownRegisters();
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

#elif defined(__aarch64__)

TEST(SignalledContext, HoldsProgramCounterStackAndFramePointer)
{
    const ChildResult result = RunInChild([] {
        svr4::use_alternate_stack();
        svr4::capture_signal(SIGILL, [](int) {
            svr4::SignalledContext context;
            if (svr4::signalled_context(&context) != 0)
                _exit(1);
            const auto value = [&context](const char* label) { return Value(context, label); };
            uint32_t instructions[2];
            std::memcpy(instructions, reinterpret_cast<const void*>(value("EIP") - 4), sizeof instructions);
            if (instructions[0] != 0x910083fd || instructions[1] != 0) // the illegal instruction, behind its neighbour
                _exit(2);
            if (value("UESP") != value("ESP") || value("UESP") == 0 || value("EBP") != value("ESP") + 32 ||
                context.stackPointer != value("ESP") || context.framePointer != value("EBP"))
                _exit(3);
            _exit(value("EAX") == 0 && value("SS") == 0 && value("GS") == 0 ? 0 : 4);
        });
        asm volatile("add x29, sp, #32\n\tudf #0" ::: "memory");
    });
    EXPECT_EQ(result.exitCode, 0) << result.err;
}

#endif

} // namespace
