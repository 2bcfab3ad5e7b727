// SPDX-License-Identifier: BSD-2-Clause
#include "options.h"

#include <cstring>

#include "examples/commandline.h"

namespace fleet {

bool ReadEngineOption(const char* option, const char* value, EngineAddress* address)
{
    std::string* place = std::strcmp(option, "--engine") == 0        ? &address->servers
                         : std::strcmp(option, "--credentials") == 0 ? &address->credentials
                                                                     : nullptr;
    if (place == nullptr || *value == '\0')
        return false;
    *place = value;
    return true;
}

bool ReadCount(const char* text, long* number) { return ReadNumber(text, number) && *number > 0; }

} // namespace fleet
