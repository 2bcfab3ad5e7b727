// SPDX-License-Identifier: BSD-2-Clause
// infstream against the big-endian bytes that it reads, and the fault list's reader over it.
#include <algorithm>
#include <set>
#include <sstream>

#include "Misc/FaultId.h"
#include "Misc/nfstream.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

// A number of the next bytes, the first the most significant; zeros for those that are missing.
template <class N>
static N Expected(Input& model, std::size_t width)
{
    std::string bytes = model.Bytes(width);
    bytes.resize(width, '\0');
    uint32_t number = 0;
    for (const char c : bytes)
        number = number << 8 | static_cast<unsigned char>(c);
    return width == 2 ? static_cast<N>(static_cast<int16_t>(number)) : static_cast<N>(static_cast<int32_t>(number));
}

template <class N>
static void CheckNumber(Input& model, infstream& stream, std::size_t width)
{
    N number = 99;
    stream >> number;
    N expected = Expected<N>(model, width);
    if (sizeof(N) > 4 && static_cast<N>(-1) > 0)
        expected &= static_cast<N>(0xFFFFFFFF);
    FUZZ_CHECK(number == expected);
}

static void CheckNumbers(Input in)
{
    const std::string choices = in.Run();
    const std::string bytes = in.Rest();
    std::istringstream source(bytes);
    infstream stream(source);
    Input model(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
    for (const char choice : choices)
        switch (choice & 7) {
        case 0: CheckNumber<short>(model, stream, 2); break;
        case 1: CheckNumber<unsigned short>(model, stream, 2); break;
        case 2: CheckNumber<int>(model, stream, 4); break;
        case 3: CheckNumber<unsigned>(model, stream, 4); break;
        case 4: CheckNumber<long>(model, stream, 4); break;
        case 5: CheckNumber<unsigned long>(model, stream, 4); break;
        default: {
            CString text;
            const unsigned length = Expected<unsigned short>(model, 2);
            const std::string expected = model.Bytes(length);
            stream >> text;
            FUZZ_CHECK(static_cast<const char*>(text) == fuzzing::UpToZero(expected));
        }
        }
}

static std::string Written(const FaultIdList& list)
{
    std::ostringstream bytes;
    {
        onfstream out(bytes);
        list.printOn(out);
    }
    return bytes.str();
}

static void CheckList(const std::string& bytes)
{
    std::istringstream source(bytes);
    infstream stream(source);
    FaultIdList list("");
    list.scanFrom(stream);
    FUZZ_CHECK(list.MyQuantity() >= 0);

    const std::string written = Written(list);
    std::istringstream again(written);
    infstream second(again);
    FaultIdList back("");
    back.scanFrom(second);
    FUZZ_CHECK(second.good() && Written(back) == written);
    std::set<std::string> texts;
    while (const FaultId* id = list.GetNext()) {
        std::ostringstream dump;
        id->dumpOn(dump);
        FUZZ_CHECK(texts.insert(dump.str() + static_cast<const char*>(*id)).second);
    }
    FUZZ_CHECK(texts.size() == static_cast<std::size_t>(list.MyQuantity()));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    CheckNumbers(Input(data, size));
    CheckList(std::string(reinterpret_cast<const char*>(data), size));
    return 0;
}
