// SPDX-License-Identifier: BSD-2-Clause
// A record of the queues or the connections by its offsets alone, as a peer of another make would write it: none of the
// library's own declarations is used, so that a test shows the layout itself.
#ifndef TESTS_SUPPORT_RAW_RECORD_H
#define TESTS_SUPPORT_RAW_RECORD_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace testing_support {

/// `bytes` in the host's byte order, or, where that is asked for, little-endian; a new one is all zeros. Offsets are those
/// of the whole record.
struct RecordBytes {
    enum Order { OfTheHost, LittleEndian };

    std::string bytes;

    explicit RecordBytes(std::size_t size, Order order = OfTheHost)
        : bytes(size, '\0'), isReversed(order == LittleEndian && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__)
    {
    }

    void Put(std::size_t offset, const std::string& text) { bytes.replace(offset, text.size(), text); }
    void Put16(std::size_t offset, int value) { PutNumber(offset, static_cast<int16_t>(value)); }
    void Put32(std::size_t offset, long value) { PutNumber(offset, static_cast<int32_t>(value)); }
    int Get16(std::size_t offset) const { return GetNumber<int16_t>(offset); }
    int32_t Get32(std::size_t offset) const { return GetNumber<int32_t>(offset); }
    /// The text at `offset` up to its zero byte.
    std::string Text(std::size_t offset) const { return &bytes[offset]; }

private:
    template <class N>
    void PutNumber(std::size_t offset, N value)
    {
        std::memcpy(&bytes[offset], &value, sizeof value);
        Turn(&bytes[offset], sizeof value);
    }
    template <class N>
    N GetNumber(std::size_t offset) const
    {
        char turned[sizeof(N)];
        std::memcpy(turned, &bytes[offset], sizeof turned);
        Turn(turned, sizeof turned);
        N value;
        std::memcpy(&value, turned, sizeof value);
        return value;
    }
    void Turn(char* number, std::size_t size) const
    {
        if (isReversed)
            std::reverse(number, number + size);
    }

    bool isReversed;
};

} // namespace testing_support

#endif
