// SPDX-License-Identifier: BSD-2-Clause
// What the clients and the server of a storm say to each other. Both sides compute all of it from the client's identity
// and the number of its request, so that each can check what the other sent to the byte.
#ifndef TESTS_SYSTEM_STORM_TRAFFIC_H
#define TESTS_SYSTEM_STORM_TRAFFIC_H

#include <cstdint>
#include <cstring>
#include <vector>

#include "Misc/buffer.h"

namespace storm {

constexpr uint32_t Kilobyte = 1024;
constexpr uint32_t Megabyte = 1024 * Kilobyte;
constexpr uint32_t BurstLength = 8;  // requests that are sent before the first answer is awaited
constexpr uint32_t SmallBytes = 900; // fits one block on any queue
constexpr uint32_t BurstBytes = 20000;
constexpr short IdleEvent = 32000;

/// A well mixed number.
inline uint64_t Mix(uint64_t value)
{
    value += 0x9E3779B97F4A7C15;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
    return value ^ (value >> 31);
}

/// One of a hundred has a megabyte, the others any size up to 64 kilobytes.
inline uint32_t SizeOf(uint64_t chance, bool onlyLarge)
{
    if (chance % 100 == 0)
        return Megabyte;
    const uint32_t least = onlyLarge ? 2 * Kilobyte : 0;
    return least + uint32_t((chance >> 16) % (64 * Kilobyte - least + 1));
}

/// Within a burst: often one block, else several, while the partner sends several as well.
inline uint32_t SizeInBurst(uint64_t chance, bool onlyLarge)
{
    const uint32_t least = onlyLarge ? 2 * Kilobyte : 0;
    const bool isSmall = !onlyLarge && chance % 2 == 0;
    return least + uint32_t((chance >> 16) % (isSmall ? SmallBytes : BurstBytes));
}

/// A request and its answer.
struct Exchange {
    Exchange(uint32_t client, uint32_t requestNumber, bool onlyLarge)
        : number(requestNumber), seed(Mix(uint64_t(client) << 32 | requestNumber)), event(short(1 + number % 30000)),
          status(short(seed % 1000)), isInBurst(Mix(~(uint64_t(client) << 32 | requestNumber / BurstLength)) % 4 == 0)
    {
        const auto sizeOf = isInBurst ? SizeInBurst : SizeOf;
        requestSize = sizeOf(Mix(seed + 1), onlyLarge);
        answerSize = sizeOf(Mix(seed + 2), onlyLarge);
    }
    uint64_t RequestPattern() const { return seed + 3; }
    uint64_t AnswerPattern() const { return seed + 4; }

    uint32_t number;
    uint64_t seed;
    short event;
    short status;
    bool isInBurst;
    uint32_t requestSize;
    uint32_t answerSize;
};

/// The bytes of an event.
inline void Fill(std::vector<uint64_t>& words, uint64_t pattern, uint32_t size)
{
    words.resize(size / sizeof(uint64_t) + 1);
    for (uint64_t& word : words)
        word = Mix(pattern++);
}

inline bool Holds(const Buffer& data, uint64_t pattern, uint32_t size)
{
    static std::vector<uint64_t> words;
    if (data.Size() != size)
        return false;
    Fill(words, pattern, size);
    return size == 0 || std::memcmp(static_cast<const void*>(data), words.data(), size) == 0;
}

} // namespace storm

#endif
