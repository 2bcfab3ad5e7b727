#include "Misc/crash/stackdump.h"

#include <cstdio>
#include <cstring>

#include "Misc/detail/hexdump.h"
#include "svr4/context.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

namespace {

constexpr uintptr_t StackBeyond = 5120; // bytes of the stack that are dumped above the frame pointer

void WriteRow(uintptr_t address, const unsigned char* row, std::ostream& file)
{
    char line[24 + RowTextLength];
    char* end = line + snprintf(line, 24, "%lx: ", static_cast<unsigned long>(address));
    end = PutWordRow(end, row);
    *end++ = '\n';
    file.write(line, end - line);
}

void WriteDuplicates(unsigned long count, std::ostream& file)
{
    char line[64];
    snprintf(line, sizeof line, "\t dup %lu line(s)\n", count);
    file << line;
}

void WriteRegisters(const svr4::SignalledContext& context, std::ostream& file)
{
    for (size_t i = 0; i < svr4::RegisterCount; i++) {
        char line[64];
        snprintf(line, sizeof line, "u_ar0[%s]=%08lx\n", svr4::RegisterLabels[i],
                 static_cast<unsigned long>(context.registers[i]));
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

void dumpmem(uintptr_t address, unsigned long length, const char* label, std::ostream& file)
{
    char sizes[96];
    snprintf(sizes, sizeof sizes, ": 0x%lx -- [size %ld[0x%lx] bytes]\n", static_cast<unsigned long>(address),
             static_cast<long>(length), length);
    file << label << sizes;

    const uintptr_t end = address + length;
    unsigned char previous[BytesInRow] = {};
    unsigned char row[BytesInRow];
    unsigned long duplicates = 0;
    for (; address < end; address += BytesInRow) {
        svr4::copy_memory(address, row, BytesInRow);
        if (memcmp(row, previous, BytesInRow) == 0) {
            duplicates++;
            continue;
        }
        if (duplicates != 0)
            WriteDuplicates(duplicates, file);
        duplicates = 0;
        WriteRow(address, row, file);
        memcpy(previous, row, BytesInRow);
    }
    if (duplicates != 0) {
        WriteDuplicates(duplicates, file);
        // The row past the region closes the run; the region may end with its mapping.
        uintptr_t low, high;
        memset(row, 0, BytesInRow);
        if (svr4::mapping_of(end, &low, &high) == 0 && high - end >= BytesInRow)
            svr4::copy_memory(end, row, BytesInRow);
        WriteRow(end, row, file);
    }
}

void dumpstack(std::ostream& file)
{
    svr4::SignalledContext context;
    svr4::signalled_context(&context);
    WriteRegisters(context, file);

    const uintptr_t stackPointer = context.stackPointer;
    const uintptr_t frame = context.framePointer;
    uintptr_t low = 0, high = 0;
    // The pointer of a stack that has overflowed lies outside of it, and the frame pointer tells its bounds.
    const bool known = frame != 0 && frame >= stackPointer &&
                       (svr4::mapping_of(stackPointer, &low, &high) == 0 || svr4::mapping_of(frame, &low, &high) == 0);

    file << "Dynamic link:\tReturn Address:\n";
    if (known)
        WriteFrames(frame, stackPointer, low, high, file);
    file << '\n';

    uintptr_t start = stackPointer & ~uintptr_t(BytesInRow - 1);
    unsigned long length = 0;
    if (known) {
        const uintptr_t end = high - frame > StackBeyond && frame < high ? frame + StackBeyond : high;
        if (start < low)
            start = low;
        length = (end - start) & ~uintptr_t(BytesInRow - 1);
    }
    dumpmem(start, length, "Stack", file);
}

} // namespace zeloo
