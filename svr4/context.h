// SPDX-License-Identifier: BSD-2-Clause
// The registers and the stack of a process at the moment of a signal.
#ifndef SVR4_CONTEXT_H
#define SVR4_CONTEXT_H

#include <csignal>
#include <cstddef>
#include <cstdint>

namespace svr4 {

/// The registers in the order in which a crash dump prints them, under the labels that it gives them: those of the
/// 32-bit processor, for every other one as well, so that all crash dumps have the same lines.
constexpr const char* RegisterLabels[] = {"SS",  "UESP", "EFL", "CS",  "EIP", "ERR", "TRAPNO", "EAX", "ECX", "EDX",
                                          "EBX", "ESP",  "EBP", "ESI", "EDI", "DS",  "ES",     "FS",  "GS"};
constexpr size_t RegisterCount = sizeof RegisterLabels / sizeof *RegisterLabels;

/// What a signal interrupted. On a 64-bit host the values are those of the 64-bit registers. What the host does not
/// tell, or a processor does not have, is 0.
struct SignalledContext {
    uintptr_t stackPointer;
    uintptr_t framePointer;
    uint64_t registers[RegisterCount];
};

/// Installs `handler`, a function, for `sig`, to run on the alternate stack (see use_alternate_stack) with no other
/// signal than `sig` blocked. The context of the signal is kept for signalled_context before `handler` is called.
/// A handler installed with SA_ONSTACK for a fault of `handler` itself runs on a reserve stack, so that it works
/// when `handler` overflows the alternate stack. A call that the signal interrupts fails with EINTR. In a process with
/// threads one of them at a time handles such a signal; others that get one wait until it has returned, if it does.
/// Returns 0, or -1 with `errno`.
int capture_signal(int sig, void (*handler)(int));

/// Gives the process an alternate signal stack of its own, so that a handler can run when the stack itself has
/// overflowed. The memory is taken once and kept; a further call puts the stack back where another one replaced it.
/// A page below the stack that cannot be touched stops an overflow. Returns 0, or -1 with `errno`.
int use_alternate_stack();

/// Tells a memory checker that the frames below the caller's on the alternate stack are gone. For who has left them with
/// siglongjmp.
void forget_frames();

/// Whether another thread of this process is in a handler of capture_signal.
bool is_captured_elsewhere();

/// Waits while another thread is. For handlers that a handler of capture_signal installs meanwhile for signals of its own,
/// which those of the other threads meet as well. Usable in a handler.
void wait_while_captured_elsewhere();

/// Ends the process as abort(3) does, with SIGABRT and a core image, whatever its signals are set to, whatever signals
/// arrive meanwhile and whatever its threads are at. Usable in a handler.
[[noreturn]] void end_with_core();

/// The context that the last signal installed with capture_signal interrupted. Returns 0, or -1 when there was none;
/// `*context` is all 0 then.
int signalled_context(SignalledContext* context);

/// The bounds of the memory that holds `address`, when that is a readable mapping of this process: used to keep a
/// walk over a stack inside that stack. Returns 0, or -1 when `address` is not mapped readable. Usable in a handler:
/// it allocates nothing and keeps `errno`.
int mapping_of(uintptr_t address, uintptr_t* low, uintptr_t* high);

/// Copies `length` bytes of this process's memory, which may be any part of any stack frame: memory checkers do not
/// look at the read. REQUIRES: the bytes are mapped readable.
void copy_memory(uintptr_t address, void* to, size_t length);

} // namespace svr4

#endif
