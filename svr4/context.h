// The registers and the stack of a process at the moment of a signal.
#ifndef SVR4_CONTEXT_H
#define SVR4_CONTEXT_H

#include <csignal>
#include <cstddef>
#include <cstdint>

namespace svr4 {

/// The registers that the crash dump prints, in the order in which it prints them. On a 64-bit host the fields hold
/// the 64-bit registers; a segment register that the host does not save is 0.
struct UserRegisters {
    uint64_t ss, uesp, efl, cs, eip, err, trapno, eax, ecx, edx, ebx, esp, ebp, esi, edi, ds, es, fs, gs;
};

/// Installs `handler`, a function, for `sig`, to run on the alternate stack (see use_alternate_stack) with no other
/// signal than `sig` blocked. The context of the signal is kept for signalled_registers before `handler` is called.
/// A handler installed with SA_ONSTACK for a fault of `handler` itself runs on a reserve stack, so that it works
/// when `handler` overflows the alternate stack. A call that the signal interrupts fails with EINTR. Returns 0, or
/// -1 with `errno`.
int capture_signal(int sig, void (*handler)(int));

/// Gives the process an alternate signal stack of its own, so that a handler can run when the stack itself has
/// overflowed. The memory is taken once and kept; a further call puts the stack back where another one replaced it.
/// A page below the stack that cannot be touched stops an overflow. Returns 0, or -1 with `errno`.
int use_alternate_stack();

/// The registers of the context that the last signal installed with capture_signal interrupted. Returns 0, or -1
/// when there was none or the host's registers are not known here; `*registers` is all 0 then.
int signalled_registers(UserRegisters* registers);

/// The bounds of the memory that holds `address`, when that is a readable mapping of this process: used to keep a
/// walk over a stack inside that stack. Returns 0, or -1 when `address` is not mapped readable. Usable in a handler:
/// it allocates nothing and keeps `errno`.
int mapping_of(uintptr_t address, uintptr_t* low, uintptr_t* high);

/// Copies `length` bytes of this process's memory, which may be any part of any stack frame: memory checkers do not
/// look at the read. REQUIRES: the bytes are mapped readable.
void copy_memory(uintptr_t address, void* to, size_t length);

} // namespace svr4

#endif
