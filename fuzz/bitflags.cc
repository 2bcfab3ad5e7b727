// SPDX-License-Identifier: BSD-2-Clause
// BitFlags against std::bitset.
#include <bitset>
#include <sstream>

#include "Misc/BitFlags.h"
#include "Misc/ZELstream.h"
#include "Misc/buffer.h"

#include "fuzz/fuzzing.h"

using fuzzing::Input;

typedef std::bitset<32> Model;

static void SetByWord(Input& in, BitFlags& flags, Model& model, unsigned long mask)
{
    static const char* const words[] = {"on", "true", "off", "false", "ON", ""};
    const unsigned which = in.Below(7);
    const std::string word = which < 6 ? words[which] : in.Text();
    const unsigned long left = flags.SetFlagViaString(mask, word.c_str());
    if (word == "on" || word == "true")
        model |= Model(mask);
    else if (word == "off" || word == "false")
        model &= ~Model(mask);
    FUZZ_CHECK(left == (model & Model(mask)).to_ulong());
}

static void CheckStreams(const BitFlags& flags)
{
    std::stringstream stream;
    {
        ZELostream out(stream);
        out << flags;
    }
    ZEListream in(stream);
    BitFlags back;
    in >> back;
    FUZZ_CHECK(static_cast<unsigned long>(back) == static_cast<unsigned long>(flags));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size)
{
    Input in(data, size);
    BitFlags flags;
    Model model;
    while (!in.IsAtEnd()) {
        const unsigned operation = in.Below(6);
        const unsigned long mask = in.Number<unsigned long>();
        switch (operation) {
        case 0:
            flags.SetFlag(mask);
            model |= Model(mask);
            break;
        case 1:
            flags.ResetFlag(mask);
            model &= ~Model(mask);
            break;
        case 2:
            flags.ToggleFlag(mask);
            model ^= Model(mask);
            break;
        case 3: SetByWord(in, flags, model, mask); break;
        case 4:
            flags.Clear();
            model.reset();
            break;
        default: CheckStreams(flags);
        }
        FUZZ_CHECK(static_cast<unsigned long>(flags) == model.to_ulong());
        FUZZ_CHECK(flags.GetFlag(mask) == (model & Model(mask)).to_ulong());
    }
    std::ostringstream dump;
    flags.dumpOn(dump);
    FUZZ_CHECK(dump.str() == "myFlagBits:\t" + std::to_string(model.to_ulong()) + "\n");
    return 0;
}
