#include "svr4/context.h"

#include <cerrno>

#include <sys/mman.h>
#include <unistd.h>

#include "svr4/context/registers.h"
#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

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

void OnSignal(int sig, siginfo_t*, void* context)
{
    const SavedErrno savedErrno;
    kept = ReadContext(*static_cast<const ucontext_t*>(context));
    isKept = true;
    if (reserve.ss_sp != nullptr)
        sigaltstack(&reserve, nullptr); // refused where the host did not disarm: faults are then handled in place
    handlers[sig](sig);
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

int signalled_context(SignalledContext* context)
{
    *context = kept;
    return isKept ? 0 : -1;
}

} // namespace svr4
