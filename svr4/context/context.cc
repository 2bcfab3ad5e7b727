#include "svr4/context.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace svr4 {

namespace {

constexpr size_t kAlternateSize = 1024 * 1024; // a capture opens files, runs a command and calls the program's dumps
constexpr size_t kReserveSize = 256 * 1024;

// Takes the stack away from its owner while a handler runs, so that the handler can name another for its own faults.
// <signal.h> does not have it and <linux/signal.h> cannot be included beside it.
constexpr int kAutoDisarm = static_cast<int>(1u << 31);

stack_t alternate; // ss_sp is null until the memory is there
stack_t reserve;   // for the faults of a handler that runs on `alternate`

void (*handlers[NSIG])(int);
UserRegisters kept;
volatile sig_atomic_t isKept = 0;

#if defined(__x86_64__)

void KeepRegisters(const ucontext_t& context)
{
    const greg_t* g = context.uc_mcontext.gregs;
    const uint64_t segments = static_cast<uint64_t>(g[REG_CSGSFS]); // 16 bits each: cs, gs, fs, ss
    UserRegisters r = {};
    r.ss = segments >> 48;
    r.uesp = r.esp = static_cast<uint64_t>(g[REG_RSP]);
    r.efl = static_cast<uint64_t>(g[REG_EFL]);
    r.cs = segments & 0xffff;
    r.eip = static_cast<uint64_t>(g[REG_RIP]);
    r.err = static_cast<uint64_t>(g[REG_ERR]);
    r.trapno = static_cast<uint64_t>(g[REG_TRAPNO]);
    r.eax = static_cast<uint64_t>(g[REG_RAX]);
    r.ecx = static_cast<uint64_t>(g[REG_RCX]);
    r.edx = static_cast<uint64_t>(g[REG_RDX]);
    r.ebx = static_cast<uint64_t>(g[REG_RBX]);
    r.ebp = static_cast<uint64_t>(g[REG_RBP]);
    r.esi = static_cast<uint64_t>(g[REG_RSI]);
    r.edi = static_cast<uint64_t>(g[REG_RDI]);
    r.fs = segments >> 32 & 0xffff;
    r.gs = segments >> 16 & 0xffff;
    kept = r;
    isKept = 1;
}

#elif defined(__i386__)

void KeepRegisters(const ucontext_t& context)
{
    const greg_t* g = context.uc_mcontext.gregs;
    const auto value = [g](int index) { return static_cast<uint64_t>(static_cast<uint32_t>(g[index])); };
    kept = UserRegisters{value(REG_SS),  value(REG_UESP),   value(REG_EFL), value(REG_CS),  value(REG_EIP),
                         value(REG_ERR), value(REG_TRAPNO), value(REG_EAX), value(REG_ECX), value(REG_EDX),
                         value(REG_EBX), value(REG_ESP),    value(REG_EBP), value(REG_ESI), value(REG_EDI),
                         value(REG_DS),  value(REG_ES),     value(REG_FS),  value(REG_GS)};
    isKept = 1;
}

#else

void KeepRegisters(const ucontext_t&)
{
}

#endif

void OnSignal(int sig, siginfo_t*, void* context)
{
    const int savedErrno = errno;
    KeepRegisters(*static_cast<const ucontext_t*>(context));
    if (reserve.ss_sp != nullptr)
        sigaltstack(&reserve, nullptr); // refused where the host did not disarm: faults are then handled in place
    handlers[sig](sig);
    errno = savedErrno;
}

// One mapping: guard, alternate stack, guard, reserve stack, guard.
int MakeStacks()
{
    const size_t guard = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t total = kAlternateSize + kReserveSize + 3 * guard;
    void* memory = mmap(nullptr, total, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (memory == MAP_FAILED)
        return -1;
    char* first = static_cast<char*>(memory) + guard;
    char* second = first + kAlternateSize + guard;
    if (mprotect(first, kAlternateSize, PROT_READ | PROT_WRITE) != 0 ||
        mprotect(second, kReserveSize, PROT_READ | PROT_WRITE) != 0) {
        const int savedErrno = errno;
        munmap(memory, total);
        errno = savedErrno;
        return -1;
    }
    reserve.ss_sp = second;
    reserve.ss_size = kReserveSize;
    alternate.ss_sp = first;
    alternate.ss_size = kAlternateSize;
    return 0;
}

// The text of a file, byte by byte, without any allocation.
class ByteReader {
public:
    explicit ByteReader(int fd_p) : fd(fd_p), position(0), filled(0) {}

    // The next byte, or -1 at the end.
    int Next()
    {
        if (position == filled && !Fill())
            return -1;
        return static_cast<unsigned char>(block[position++]);
    }

    // A hexadecimal number; takes the character behind it too.
    uintptr_t NextHex()
    {
        uintptr_t value = 0;
        for (;;) {
            const int c = Next();
            if (c >= '0' && c <= '9')
                value = value * 16 + static_cast<uintptr_t>(c - '0');
            else if (c >= 'a' && c <= 'f')
                value = value * 16 + static_cast<uintptr_t>(c - 'a' + 10);
            else
                return value;
        }
    }

private:
    bool Fill()
    {
        ssize_t n;
        do
            n = read(fd, block, sizeof block);
        while (n < 0 && errno == EINTR);
        position = 0;
        filled = n > 0 ? static_cast<size_t>(n) : 0;
        return filled != 0;
    }

    int fd;
    size_t position, filled;
    char block[2048];
};

// Looks for the line "LOW-HIGH PERMISSIONS ..." that holds `address`; its bounds when the memory can be read.
int FindMapping(ByteReader& maps, uintptr_t address, uintptr_t* low, uintptr_t* high)
{
    for (;;) {
        const uintptr_t from = maps.NextHex();
        const uintptr_t to = maps.NextHex();
        int c = maps.Next();
        if (c == -1)
            return -1;
        if (from <= address && address < to) {
            *low = from;
            *high = to;
            return c == 'r' ? 0 : -1;
        }
        while (c != '\n' && c != -1)
            c = maps.Next();
    }
}

} // namespace

int capture_signal(int sig, void (*handler)(int))
{
    if (sig <= 0 || sig >= NSIG) {
        errno = EINVAL;
        return -1;
    }
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
    alternate.ss_flags = kAutoDisarm;
    if (sigaltstack(&alternate, nullptr) == 0)
        return 0;
    alternate.ss_flags = 0; // a host that cannot disarm: one stack for everything
    return sigaltstack(&alternate, nullptr);
}

int signalled_registers(UserRegisters* registers)
{
    *registers = kept;
    return isKept != 0 ? 0 : -1;
}

int mapping_of(uintptr_t address, uintptr_t* low, uintptr_t* high)
{
    const int savedErrno = errno;
    const int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
    int result = -1;
    if (fd >= 0) {
        ByteReader maps(fd);
        uintptr_t from, to;
        result = FindMapping(maps, address, &from, &to);
        if (result == 0) {
            *low = from;
            *high = to;
        }
        close(fd);
    }
    errno = savedErrno;
    return result;
}

// Byte by byte through a volatile pointer: a call of memcpy would be checked.
__attribute__((no_sanitize("address"))) void copy_memory(uintptr_t address, void* to, size_t length)
{
    const volatile unsigned char* from = reinterpret_cast<const volatile unsigned char*>(address);
    unsigned char* target = static_cast<unsigned char*>(to);
    for (size_t i = 0; i < length; i++)
        target[i] = from[i];
}

} // namespace svr4
