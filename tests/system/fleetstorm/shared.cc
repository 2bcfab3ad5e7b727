// SPDX-License-Identifier: BSD-2-Clause
#include "tests/system/fleetstorm/shared.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include <sys/mman.h>
#include <unistd.h>

namespace fleetstorm {

Shared* shared = nullptr;

static const uint32_t MostNotes = 60;
static const char OpPrefix[] = "op ";

void MakeShared()
{
    // What is not used of it costs nothing.
    void* memory =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("fleetstorm: mmap");
        std::exit(2);
    }
    shared = static_cast<Shared*>(memory); // all zero
    shared->leader = -1;
}

void Note(const char* format, ...)
{
    if (shared->notes++ >= MostNotes)
        return;
    char text[500];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    std::fprintf(stderr, "fleetstorm: %s\n", text);
}

int StateIndex(const CString& name)
{
    for (int i = 0; i < StateCount; i++)
        if (name == States[i])
            return i;
    return -1;
}

// Reads a whole number behind a prefix; -1: the text is another.
static int NumberBehind(const char* prefix, const char* text)
{
    const size_t length = std::strlen(prefix);
    if (std::strncmp(text, prefix, length) != 0)
        return -1;
    int number = -1;
    const char* end = text + std::strlen(text);
    const std::from_chars_result read = std::from_chars(text + length, end, number);
    return read.ec == std::errc() && read.ptr == end && read.ptr != text + length ? number : -1;
}

std::string HostName(int index) { return "h" + std::to_string(index + 1); }

int HostIndex(const std::string& name)
{
    const int number = NumberBehind("h", name.c_str());
    return number >= 1 && number <= MostHosts ? number - 1 : -1;
}

std::string OpText(uint32_t op) { return OpPrefix + std::to_string(op); }

int32_t OpOfText(const CString& text)
{
    const int op = NumberBehind(OpPrefix, text);
    return op < static_cast<int>(MostOps) ? op : -1;
}

std::string Attachment(int host, uint32_t op, uint32_t size)
{
    const std::string line = HostName(host) + ", " + OpText(op) + "\n";
    std::string bytes;
    bytes.reserve(size + line.size());
    while (bytes.size() < size)
        bytes += line;
    bytes.resize(size);
    return bytes;
}

} // namespace fleetstorm
