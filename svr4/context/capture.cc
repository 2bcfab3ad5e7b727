// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context.h"

#include <atomic>
#include <cerrno>

#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "svr4/context/registers.h"
#include "svr4/deadline.h"
#include "svr4/errno.h"
#include "svr4/signal.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __asan_unpoison_memory_region(const volatile void* from, size_t length);
#endif

namespace svr4 {

namespace {

constexpr size_t AlternateSize = 1024 * 1024; // a capture opens files and calls the program's dumps
constexpr size_t ReserveSize = 256 * 1024;

// Takes the stack away from its owner while a handler runs, so that the handler can name another for its own faults.
// <signal.h> does not have it and <linux/signal.h> cannot be included beside it.
constexpr int AutoDisarm = static_cast<int>(1u << 31);

stack_t alternate; // ss_sp is null until the memory is there
stack_t reserve;   // for the faults of a handler that runs on `alternate`

void (*handlers[NSIG])(int);
SignalledContext kept;
bool isKept = false;

// The thread that handles a captured signal: its process in the upper half, since a child forked meanwhile has no such
// thread, and its own id in the lower. 0 while there is none.
std::atomic<uint64_t> owner{0};

uint64_t ThisThread() { return static_cast<uint64_t>(getpid()) << 32 | static_cast<uint32_t>(syscall(SYS_gettid)); }

bool IsOtherThread(uint64_t one, uint64_t self) { return one != 0 && one >> 32 == self >> 32 && one != self; }

// Makes the calling thread the owner, as soon as no other thread of the process is. Returns the owner before.
uint64_t BecomeOwner()
{
    const uint64_t self = ThisThread();
    for (;;) {
        uint64_t earlier = owner;
        if (IsOtherThread(earlier, self))
            pause_microseconds(10000);
        else if (owner.compare_exchange_strong(earlier, self))
            return earlier;
    }
}

void OnSignal(int sig, siginfo_t*, void* context)
{
    const SavedErrno savedErrno;
    const uint64_t earlier = BecomeOwner();
    kept = ReadContext(*static_cast<const ucontext_t*>(context));
    isKept = true;
    if (reserve.ss_sp != nullptr)
        sigaltstack(&reserve, nullptr); // refused where the host did not disarm: faults are then handled in place
    handlers[sig](sig);
    owner = earlier;
}

// One mapping: guard, alternate stack, guard, reserve stack, guard.
int MakeStacks()
{
    const size_t guard = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t total = AlternateSize + ReserveSize + 3 * guard;
    void* memory = mmap(nullptr, total, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED)
        return -1;
    char* first = static_cast<char*>(memory) + guard;
    char* second = first + AlternateSize + guard;
    if (mprotect(first, AlternateSize, PROT_READ | PROT_WRITE) != 0 ||
        mprotect(second, ReserveSize, PROT_READ | PROT_WRITE) != 0) {
        const SavedErrno savedErrno;
        munmap(memory, total);
        return -1;
    }
    reserve.ss_sp = second;
    reserve.ss_size = ReserveSize;
    alternate.ss_sp = first;
    alternate.ss_size = AlternateSize;
    return 0;
}

} // namespace

int capture_signal(int sig, void (*handler)(int))
{
    if (sig <= 0 || sig >= NSIG)
        return FailWith(EINVAL);
    void (*const earlier)(int) = handlers[sig];
    handlers[sig] = handler;
    struct sigaction action = {};
    action.sa_sigaction = OnSignal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    if (sigaction(sig, &action, nullptr) == 0)
        return 0;
    handlers[sig] = earlier;
    return -1;
}

int use_alternate_stack()
{
    if (alternate.ss_sp == nullptr && MakeStacks() != 0)
        return -1;
    stack_t current;
    if (sigaltstack(nullptr, &current) != 0)
        return -1;
    const bool enabled = (current.ss_flags & SS_DISABLE) == 0;
    if (enabled && (current.ss_sp == alternate.ss_sp || current.ss_sp == reserve.ss_sp))
        return 0;
    alternate.ss_flags = AutoDisarm;
    if (sigaltstack(&alternate, nullptr) == 0)
        return 0;
    alternate.ss_flags = 0; // a host that cannot disarm: one stack for everything
    return sigaltstack(&alternate, nullptr);
}

__attribute__((noinline)) void forget_frames()
{
#if defined(__SANITIZE_ADDRESS__)
    const char* const low = static_cast<const char*>(alternate.ss_sp);
    const char* const here = static_cast<const char*>(__builtin_frame_address(0));
    if (here > low && here <= low + alternate.ss_size)
        __asan_unpoison_memory_region(low, static_cast<size_t>(here - low));
#endif
}

bool is_captured_elsewhere() { return IsOtherThread(owner, ThisThread()); }

void wait_while_captured_elsewhere()
{
    while (is_captured_elsewhere())
        pause_microseconds(10000);
}

static void SetDisposition(int sig, SignalHandler handler)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    sigaction(sig, &action, nullptr);
}

void end_with_core()
{
    // All are dropped, those that are held back too: none of them may end the process in the place of SIGABRT. Only what
    // another thread's fault does stays, since the host ends the process where a fault is to be ignored.
    for (int sig = 1; sig < NSIG; sig++)
        switch (sig) {
        case SIGSEGV:
        case SIGBUS:
        case SIGFPE:
        case SIGILL:
        case SIGTRAP:
        case SIGSYS: break;
        case SIGABRT: SetDisposition(sig, SIG_DFL); break;
        default: SetDisposition(sig, SIG_IGN);
        }
    sigset_t abortOnly;
    sigemptyset(&abortOnly);
    sigaddset(&abortOnly, SIGABRT);
    sigprocmask(SIG_UNBLOCK, &abortOnly, nullptr);
    // abort(3) has a lock, which a thread that waits in its handler may hold.
    syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), SIGABRT);
    SetDisposition(SIGILL, SIG_DFL);
    for (;;)
        __builtin_trap(); // the first process of a container is not ended by a signal that it sends
}

int signalled_context(SignalledContext* context)
{
    *context = kept;
    return isKept ? 0 : -1;
}

} // namespace svr4
