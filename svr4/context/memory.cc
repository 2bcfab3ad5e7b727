// SPDX-License-Identifier: BSD-2-Clause
#include "svr4/context.h"

#include <cerrno>

#include <fcntl.h>
#include <unistd.h>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: context.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace svr4 {

namespace {

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

int mapping_of(uintptr_t address, uintptr_t* low, uintptr_t* high)
{
    const SavedErrno savedErrno;
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
