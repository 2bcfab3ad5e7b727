// SPDX-License-Identifier: BSD-2-Clause
#include "Misc/BitFlags.h"

#include <cstring>

#include "Misc/ZELstream.h"

[[maybe_unused]] static const char* ModuleId() { return "$Id: BitFlags.cc,v 1.1 2026/11/21 12:00:00 orv Exp $"; }

unsigned long BitFlags::SetFlagViaString(unsigned long mask, const char* s)
{
    if (s != nullptr) {
        if (std::strcmp(s, "on") == 0 || std::strcmp(s, "true") == 0)
            SetFlag(mask);
        else if (std::strcmp(s, "off") == 0 || std::strcmp(s, "false") == 0)
            ResetFlag(mask);
    }
    return GetFlag(mask);
}

void BitFlags::dumpOn(std::ostream& os) const { os << "myFlagBits:\t" << myFlagBits << '\n'; }

void BitFlags::printOn(ZELostream& s) const { s << static_cast<unsigned long>(myFlagBits); }

void BitFlags::scanFrom(ZEListream& s)
{
    unsigned long word = myFlagBits;
    s >> word;
    myFlagBits = static_cast<uint32_t>(word);
}
