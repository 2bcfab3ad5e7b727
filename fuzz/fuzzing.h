// SPDX-License-Identifier: BSD-2-Clause
// What the fuzz targets share: the input as a sequence of choices, checks, and a quiet process.
#ifndef FUZZ_FUZZING_H
#define FUZZ_FUZZING_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

/// What libFuzzer calls with every input.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace fuzzing {

/// Ends the process with a finding when `condition` does not hold: what differs from the model, or from what a header
/// promises.
#define FUZZ_CHECK(condition) ((condition) ? void() : fuzzing::Found(#condition, __FILE__, __LINE__))
[[noreturn]] void Found(const char* what, const char* file, int line);

/// What of a text is before its first zero byte.
inline std::string UpToZero(const std::string& text) { return text.substr(0, text.find('\0')); }

/// An input, consumed from the front. Past its end there are zeros and empty texts.
class Input {
public:
    Input(const uint8_t* data, std::size_t size) : at(reinterpret_cast<const char*>(data)), end(at + size) {}

    bool IsAtEnd() const { return at == end; }
    std::size_t Left() const { return static_cast<std::size_t>(end - at); }
    unsigned char Byte() { return IsAtEnd() ? 0 : static_cast<unsigned char>(*at++); }
    char Char() { return static_cast<char>(Byte()); }
    /// A number from -128 to 127.
    int Small() { return static_cast<int8_t>(Byte()); }
    /// A number from 0 to `limit` - 1.
    unsigned Below(unsigned limit) { return Byte() % limit; }
    bool Flag() { return (Byte() & 1) != 0; }
    /// The bytes of a number in the host's order.
    template <class N>
    N Number()
    {
        N number = 0;
        const std::string bytes = Bytes(sizeof number);
        std::memcpy(&number, bytes.data(), bytes.size());
        return number;
    }
    /// `size` bytes, or what there is.
    std::string Bytes(std::size_t size)
    {
        const std::string bytes(at, size < Left() ? size : Left());
        at += bytes.size();
        return bytes;
    }
    /// A run of bytes behind its length, a byte.
    std::string Run() { return Bytes(Byte()); }
    /// As Run, up to its first zero byte.
    std::string Text() { return UpToZero(Run()); }
    std::string Rest() { return Bytes(Left()); }

private:
    const char* at;
    const char* end;
};

/// Gives the process a name and a version, as a program's main does. Once.
void NameProgram();

/// Replaces the content of a file.
void WriteFile(const char* name, const std::string& content);

/// The directory of the process for its files; it goes with the process.
const std::string& Directory();

/// A child that waits until it is killed or its parent ends.
int IdleProcess();

} // namespace fuzzing

#endif
