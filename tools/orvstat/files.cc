// SPDX-License-Identifier: BSD-2-Clause
#include "files.h"

#include <dirent.h>

namespace orvstat {

std::vector<std::string> NamesIn(const std::string& directory)
{
    std::vector<std::string> names;
    DIR* open = opendir(directory.c_str());
    if (open == nullptr)
        return names;
    while (const struct dirent* entry = readdir(open))
        names.emplace_back(entry->d_name);
    closedir(open);
    return names;
}

} // namespace orvstat
