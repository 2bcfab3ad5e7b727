// SPDX-License-Identifier: BSD-2-Clause
// The objects of the fault daemon's events, from any bytes: what is taken is sound and survives another journey.
#include "examples/fault.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

namespace {

Buffer BufferOf(const std::string& bytes)
{
    Buffer buffer;
    buffer.Append(bytes.data(), static_cast<unsigned>(bytes.size()));
    return buffer;
}

bool AreEqual(const Buffer& a, const Buffer& b)
{
    return a.Size() == b.Size() &&
           (a.Size() == 0 || std::memcmp(static_cast<const void*>(a), static_cast<const void*>(b), a.Size()) == 0);
}

template <class Object>
void Check(const std::string& bytes)
{
    Buffer data = BufferOf(bytes);
    Object object;
    if (!Unpack(data, object))
        return;
    Buffer packed;
    Pack(object, packed);
    Object again;
    FUZZ_CHECK(Unpack(packed, again));
    Buffer repacked;
    Pack(again, repacked);
    FUZZ_CHECK(AreEqual(packed, repacked));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    const unsigned kind = in.Below(11);
    const std::string bytes = in.Rest();
    switch (kind) {
    case 0: Check<FaultSummary>(bytes); break;
    case 1: Check<FaultRecord>(bytes); break;
    case 2: Check<FaultList>(bytes); break;
    case 3: Check<FaultCommand>(bytes); break;
    case 4: Check<FaultMove>(bytes); break;
    case 5: Check<CommandResult>(bytes); break;
    case 7: Check<FaultChange>(bytes); break;
    case 8: Check<FaultChangeList>(bytes); break;
    case 9: Check<ChangesRequest>(bytes); break;
    case 10: Check<ChangesDone>(bytes); break;
    default: {
        Buffer buffer = BufferOf(bytes);
        FaultId id;
        if (Unpack(buffer, id) && IsFaultId(id))
            FUZZ_CHECK(FaultId(id.GetId(), id.GetNodeName()) == id);
    }
    }
    return 0;
}
