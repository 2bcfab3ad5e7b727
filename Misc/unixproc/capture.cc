// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/unixproc/capture.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "svr4/errno.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: unixproc.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

namespace zeloo {

static const uint64_t RoomForLines = 200; // behind what is kept
static const uint64_t MostInBuffer = UINT32_MAX - RoomForLines;

Capture::Capture(uint64_t bound)
    : most(bound == 0 ? MostInBuffer : std::min(bound, MostInBuffer)), block(nullptr), size(0), used(0), taken(0),
      isClosed(false)
{
}

Capture::~Capture() { std::free(block); }

// Whether the block has room for `needed` bytes and the lines behind them. It grows to twice what is needed, since each
// growth copies the whole; without memory for that the exact size may do.
bool Capture::MakeRoom(uint64_t needed)
{
    if (needed + RoomForLines <= size)
        return true;
    for (const uint64_t wanted : {std::min(2 * needed, most) + RoomForLines, needed + RoomForLines}) {
        void* grown = std::realloc(block, static_cast<size_t>(wanted));
        if (grown == nullptr)
            continue;
        block = static_cast<char*>(grown);
        size = wanted;
        return true;
    }
    return false;
}

void Capture::Take(const char* bytes, size_t n)
{
    taken += n;
    const uint64_t kept = std::min<uint64_t>(n, most - used);
    if (kept == 0 || isClosed)
        return;
    isClosed = !MakeRoom(used + kept);
    if (isClosed)
        return;
    std::memcpy(block + used, bytes, static_cast<size_t>(kept));
    used += kept;
}

void Capture::HandOver(Buffer& output, const char* last)
{
    const svr4::SavedErrno savedErrno;
    char lines[RoomForLines] = "";
    int length = 0;
    if (taken > most)
        length = std::snprintf(lines, sizeof lines, "\n******** Output cut, %" PRIu64 " bytes left out **********\n",
                               taken - used);
    length += std::snprintf(lines + length, sizeof lines - static_cast<size_t>(length), "%s", last);

    output.PurgeContents();
    if (block == nullptr) {
        output.Append(lines);
        return;
    }
    std::memcpy(block + used, lines, static_cast<size_t>(length));
    used += static_cast<uint64_t>(length);
    void* trimmed = std::realloc(block, static_cast<size_t>(used));
    output.AssignPtr(trimmed != nullptr ? trimmed : block, static_cast<unsigned>(used));
    block = nullptr;
    size = used = taken = 0;
}

} // namespace zeloo
