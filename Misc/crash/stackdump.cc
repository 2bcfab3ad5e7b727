#include "Misc/crash/stackdump.h"

#include <cstdint>
#include <cstdio>

#include "Misc/crash/dumpmem.h"
#include "svr4/context.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace zeloo {

namespace {

constexpr uintptr_t StackBeyond = 5120; // bytes of the stack that are dumped above the frame pointer

// The bounds of the stack that the signal interrupted. When that stack has overflowed its pointer is outside, and
// the frame pointer tells.
bool FindStack(const svr4::SignalledContext& context, uintptr_t* low, uintptr_t* high)
{
    return svr4::mapping_of(context.stackPointer, low, high) == 0 ||
           svr4::mapping_of(context.framePointer, low, high) == 0;
}

void WriteRegisters(const svr4::Register* registers, std::ostream& file)
{
    for (; registers->label != nullptr; registers++) {
        char line[64];
        snprintf(line, sizeof line, "u_ar0[%s]=%08lx\n", registers->label,
                 static_cast<unsigned long>(registers->value));
        file << line;
    }
}

// Follows the chain of frames. Code compiled without frame pointers may leave anything in the chain, so it is
// followed only upwards and within the stack.
void WriteFrames(uintptr_t frame, uintptr_t floor, uintptr_t low, uintptr_t high, std::ostream& file)
{
    struct {
        uintptr_t caller;
        uintptr_t returnAddress;
    } saved;
    while (frame >= floor && frame >= low && frame < high && high - frame >= sizeof saved &&
           frame % sizeof(uintptr_t) == 0) {
        svr4::copy_memory(frame, &saved, sizeof saved);
        char line[64];
        snprintf(line, sizeof line, "bp=%08lx\tip=%08lx\n", static_cast<unsigned long>(frame),
                 static_cast<unsigned long>(saved.returnAddress));
        file << line;
        floor = frame + 1;
        frame = saved.caller;
    }
}

} // namespace

void dumpstack(std::ostream& file)
{
    svr4::SignalledContext context;
    svr4::signalled_context(&context);
    WriteRegisters(context.registers, file);

    const uintptr_t stackPointer = context.stackPointer;
    const uintptr_t frame = context.framePointer;
    uintptr_t low = 0, high = 0;
    const bool known = frame != 0 && frame >= stackPointer && FindStack(context, &low, &high);

    file << "Dynamic link:\tReturn Address:\n";
    if (known)
        WriteFrames(frame, stackPointer, low, high, file);
    file << '\n';

    uintptr_t start = stackPointer & ~(RowSize - 1);
    unsigned long length = 0;
    if (known) {
        const uintptr_t end = high - frame > StackBeyond && frame < high ? frame + StackBeyond : high;
        if (start < low)
            start = low;
        length = (end - start) & ~(RowSize - 1);
    }
    dumpmem(start, length, "Stack", file);
}

} // namespace zeloo
