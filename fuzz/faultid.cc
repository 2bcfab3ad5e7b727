// SPDX-License-Identifier: BSD-2-Clause
// The written form of a fault against its rule, and the file of a fault list with any content.
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <vector>

#include "Misc/FaultId.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

static std::string Text(const std::string& node, long number)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%08ld", number);
    return node + "/" + digits;
}

static void CheckId(const FaultId& id, const std::string& node, long number)
{
    FUZZ_CHECK(id.GetId() == number);
    FUZZ_CHECK(static_cast<const char*>(id.GetNodeName()) == node);
    FUZZ_CHECK(static_cast<const char*>(id) == Text(node, number));
}

static FaultId CheckText(const std::string& text)
{
    FaultId id;
    id = text.c_str();
    std::size_t at = text.find('/');
    if (at == std::string::npos)
        at = text.find(':');
    const std::string digits = at != std::string::npos ? text.substr(at + 1) : "";
    CheckId(id, text.substr(0, at), std::atol(digits.c_str()));
    const FaultId copy(id.GetId(), id.GetNodeName());
    if (id.GetNodeName().strlen() > 0)
        FUZZ_CHECK(copy == id);
    return id;
}

static bool HasOne(const std::vector<FaultId>& list, const FaultId& id)
{
    for (const FaultId& each : list)
        if (each == id)
            return true;
    return false;
}

static void CheckFile(const std::vector<FaultId>& ids, const std::string& content)
{
    static const std::string file = fuzzing::Directory() + "/list";
    fuzzing::WriteFile(file.c_str(), content);
    FaultIdList damaged(file.c_str());
    damaged.Load();
    std::vector<FaultId> expected;
    while (const FaultId* id = damaged.GetNext())
        expected.push_back(*id);
    FUZZ_CHECK(expected.size() == static_cast<std::size_t>(damaged.MyQuantity()));
    for (const FaultId& id : ids)
        if (id.GetId() == static_cast<int>(id.GetId()) && id.GetNodeName().strlen() < 1000) {
            damaged.AddFaultId(id);
            if (!HasOne(expected, id))
                expected.push_back(id);
        }
    damaged.Save();

    FaultIdList saved(file.c_str());
    saved.Load();
    for (const FaultId& id : expected) {
        const FaultId* next = saved.GetNext();
        FUZZ_CHECK(next != nullptr && *next == id);
    }
    FUZZ_CHECK(saved.GetNext() == nullptr);
    for (const FaultId& id : expected)
        saved.DeleteOne(id);
    FUZZ_CHECK(saved.MyQuantity() == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    std::vector<FaultId> ids;
    for (unsigned n = in.Below(8); n > 0; n--)
        ids.push_back(CheckText(in.Text()));
    if (in.Flag())
        CheckFile(ids, in.Rest());
    return 0;
}
