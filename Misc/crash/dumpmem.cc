#include "Misc/crash/dumpmem.h"

#include <cstdio>
#include <cstring>

#include "svr4/context.h"

[[maybe_unused]] static const char* ModuleId()
{
    return "$Id: mobject.cc,v 1.1 2026/11/21 12:00:00 orv Exp $";
}

namespace zeloo {

namespace {

void WriteRow(uintptr_t address, const unsigned char* row, std::ostream& file)
{
    uint32_t words[4];
    memcpy(words, row, sizeof words);
    char characters[RowSize + 1];
    for (unsigned i = 0; i < RowSize; i++) {
        const char c = static_cast<char>(row[i] & 0x7f);
        characters[i] = c < ' ' || c == 0x7f ? ' ' : c;
    }
    characters[RowSize] = '\0';
    char line[128];
    snprintf(line, sizeof line, "%lx: %08x %08x %08x %08x [%s]\n", static_cast<unsigned long>(address), words[0],
             words[1], words[2], words[3], characters);
    file << line;
}

void WriteDuplicates(unsigned long count, std::ostream& file)
{
    char line[64];
    snprintf(line, sizeof line, "\t dup %lu line(s)\n", count);
    file << line;
}

// The row at `address`, or zero bytes where there is none.
void ReadRowIfMapped(uintptr_t address, unsigned char* row)
{
    uintptr_t low, high;
    if (svr4::mapping_of(address, &low, &high) == 0 && high - address >= RowSize)
        svr4::copy_memory(address, row, RowSize);
    else
        memset(row, 0, RowSize);
}

} // namespace

void dumpmem(uintptr_t address, unsigned long length, const char* label, std::ostream& file)
{
    char sizes[96];
    snprintf(sizes, sizeof sizes, ": 0x%lx -- [size %ld[0x%lx] bytes]\n", static_cast<unsigned long>(address),
             static_cast<long>(length), length);
    file << label << sizes;

    const uintptr_t end = address + length;
    unsigned char previous[RowSize] = {};
    unsigned char row[RowSize];
    unsigned long duplicates = 0;
    for (; address < end; address += RowSize) {
        svr4::copy_memory(address, row, RowSize);
        if (memcmp(row, previous, RowSize) == 0) {
            duplicates++;
            continue;
        }
        if (duplicates != 0)
            WriteDuplicates(duplicates, file);
        duplicates = 0;
        WriteRow(address, row, file);
        memcpy(previous, row, RowSize);
    }
    if (duplicates != 0) {
        WriteDuplicates(duplicates, file);
        ReadRowIfMapped(end, row); // the row past the region closes the run; the region may end with its mapping
        WriteRow(end, row, file);
    }
}

} // namespace zeloo
