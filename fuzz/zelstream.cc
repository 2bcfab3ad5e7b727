// SPDX-License-Identifier: BSD-2-Clause
// ZEListream over a Buffer against sscanf, over an istream against its own writer, and the readers of objects.
#include <algorithm>
#include <cstdio>
#include <sstream>

#include "Misc/BitFlags.h"
#include "Misc/FaultId.h"
#include "Misc/Hierarc.h"
#include "Misc/Option.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

namespace {

// A stream over a Buffer, and where it has to be.
struct Reader {
    Buffer& buffer;
    const std::string& bytes;
    ZEListream stream;
    uint32_t position = 0;

    Reader(Buffer& theBuffer, const std::string& theBytes) : buffer(theBuffer), bytes(theBytes), stream(theBuffer) {}
    void CheckPosition()
    {
        FUZZ_CHECK(stream.tellg() == position);
        FUZZ_CHECK((stream.eof() != 0) == (position > bytes.size()));
    }
};

template <class N>
void CheckNumber(Reader& reader, const char* format)
{
    N expected = 77, read = 77;
    int length = 0;
    if (reader.position < reader.bytes.size())
        std::sscanf(reader.bytes.c_str() + reader.position, format, &expected, &length);
    reader.stream >> read;
    reader.position += static_cast<uint32_t>(length);
    FUZZ_CHECK(read == expected);
}

void CheckRead(Reader& reader, uint16_t n)
{
    std::string read(n + 1u, '#');
    const uint32_t available = static_cast<uint32_t>(reader.bytes.size()) - reader.position + 1; // wraps far beyond it
    const uint32_t expected = std::min<uint32_t>(n, available);
    FUZZ_CHECK(static_cast<uint32_t>(reader.stream.read(read.data(), n)) == expected);
    if (reader.position < reader.bytes.size()) {
        const std::string part = reader.bytes.substr(reader.position, expected);
        FUZZ_CHECK(read.compare(0, part.size(), part) == 0);
    }
    FUZZ_CHECK(read[expected] == '#');
    reader.position += expected;
}

void CheckString(Reader& reader)
{
    unsigned short announced = 0;
    int length = 0;
    if (reader.position < reader.bytes.size())
        std::sscanf(reader.bytes.c_str() + reader.position, "%hu|%n", &announced, &length);
    CString text("earlier");
    reader.stream >> text;
    FUZZ_CHECK(text.strlen() <= announced);
    if (length == 0 && announced == 0)
        FUZZ_CHECK(text.strlen() == 0);
    reader.position = reader.stream.tellg();
}

template <class Object>
void CheckObject(Reader& reader)
{
    Object object;
    reader.stream >> object;
    Buffer again;
    {
        ZELostream out(again);
        out << object;
    }
    reader.position = reader.stream.tellg();
}

void Step(Input& in, Reader& reader)
{
    switch (in.Below(14)) {
    case 0: CheckNumber<short>(reader, "%hd|%n"); break;
    case 1: CheckNumber<int>(reader, "%d|%n"); break;
    case 2: CheckNumber<long>(reader, "%ld|%n"); break;
    case 3: CheckNumber<unsigned short>(reader, "%hu|%n"); break;
    case 4: CheckNumber<unsigned int>(reader, "%u|%n"); break;
    case 5: CheckNumber<unsigned long>(reader, "%lu|%n"); break;
    case 6: {
        char c = 'c';
        reader.stream >> c;
        if (reader.position < reader.bytes.size())
            FUZZ_CHECK(c == reader.bytes[reader.position]);
        if (reader.position != reader.bytes.size() + 1)
            reader.position++;
        break;
    }
    case 7: CheckRead(reader, in.Byte()); break;
    case 8: {
        const long to = in.Flag() ? in.Number<long>() : in.Byte();
        reader.stream.seekg(to, std::ios::end);
        reader.position = static_cast<uint32_t>(to);
        break;
    }
    case 9: CheckString(reader); break;
    case 10: CheckObject<Option>(reader); break;
    case 11: CheckObject<HierarchicNum>(reader); break;
    case 12: CheckObject<BitFlags>(reader); break;
    default: CheckObject<FaultId>(reader);
    }
    reader.CheckPosition();
}

// Values of every type, written and read back.
void CheckRoundTrip(Input in, ZELostream& out, ZEListream& back)
{
    const short a = in.Number<short>();
    const int b = in.Number<int>();
    const long c = in.Number<long>();
    const char d = in.Char();
    const unsigned short e = in.Number<unsigned short>();
    const unsigned f = in.Number<unsigned>();
    const unsigned char g = in.Byte();
    const unsigned long h = in.Number<unsigned long>();
    const CString text(in.Text().c_str());
    out << a << b << c << text << e << f << text << d << g << h;
    out.flush();
    short ra = 0;
    int rb = 0;
    long rc = 0;
    char rd = 0;
    unsigned short re = 0;
    unsigned rf = 0;
    unsigned char rg = 0;
    unsigned long rh = 0;
    CString first, second;
    back >> ra >> rb >> rc >> first >> re >> rf >> second >> rd >> rg >> rh;
    FUZZ_CHECK(ra == a && rb == b && rc == c && rd == d && re == e && rf == f && rg == g);
    FUZZ_CHECK(first == text && second == text);
    FUZZ_CHECK(rh == h && back.good());
}

void CheckRoundTrips(const Input& in)
{
    Buffer buffer;
    ZELostream toBuffer(buffer);
    ZEListream fromBuffer(buffer);
    CheckRoundTrip(in, toBuffer, fromBuffer);
}

void CheckStream(const std::string& bytes)
{
    std::istringstream source(bytes);
    ZEListream stream(source);
    Option option;
    FaultId id;
    short number = 0;
    while (stream.good())
        stream >> number >> option >> id;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    CheckRoundTrips(in);
    const std::string choices = in.Run();
    const std::string bytes = in.Rest();
    Buffer buffer;
    buffer.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
    Reader reader(buffer, bytes);
    for (Input steps(reinterpret_cast<const uint8_t*>(choices.data()), choices.size()); !steps.IsAtEnd();)
        Step(steps, reader);
    CheckStream(bytes);
    return 0;
}
