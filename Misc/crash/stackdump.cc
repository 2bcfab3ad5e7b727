// SPDX-License-Identifier: BSD-2-Clause
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

struct Frame {
    uintptr_t address;
    uintptr_t caller; // the address of the next frame
    uintptr_t returnAddress;
};

// The chain of frames. Code compiled without frame pointers may leave anything in it, so it is followed only upwards and
// within the stack.
class Frames {
public:
    Frames(uintptr_t first, uintptr_t floor_p, uintptr_t low, uintptr_t high_p)
        : next(first), floor(floor_p > low ? floor_p : low), high(high_p)
    {
    }
    // Goes to the next frame; false at the end.
    bool Step(Frame* frame)
    {
        constexpr size_t Size = 2 * sizeof(uintptr_t);
        if (next < floor || next >= high || high - next < Size || next % sizeof(uintptr_t) != 0)
            return false;
        frame->address = next;
        svr4::copy_memory(next, &frame->caller, Size);
        floor = next + 1;
        next = frame->caller;
        return true;
    }

private:
    uintptr_t next, floor, high;
};

void WriteFrame(const Frame& frame, std::ostream& file)
{
    char line[64];
    snprintf(line, sizeof line, "bp=%08lx\tip=%08lx\n", static_cast<unsigned long>(frame.address),
             static_cast<unsigned long>(frame.returnAddress));
    file << line;
}

void WriteFrames(Frames frames, unsigned long most, std::ostream& file)
{
    constexpr unsigned long MostOutermost = 1000;
    static Frame outermost[MostOutermost]; // not on the handler's stack, which the objects may need
    const unsigned long keep = most / 2 < MostOutermost ? most / 2 + 1 : MostOutermost;
    unsigned long number = 0;
    Frame frame;
    for (; number < most && frames.Step(&frame); number++)
        WriteFrame(frame, file);
    if (number < most)
        return;
    for (number = 0; frames.Step(&frame); number++)
        outermost[number % keep] = frame;
    unsigned long at = 0;
    if (number > keep) {
        at = number - keep;
        char line[64];
        snprintf(line, sizeof line, "\t %lu frame(s) left out\n", at);
        file << line;
    }
    for (; at < number; at++)
        WriteFrame(outermost[at % keep], file);
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

void dumpstack(std::ostream& file, unsigned long mostFrames)
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
        WriteFrames(Frames(frame, stackPointer, low, high), mostFrames, file);
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
