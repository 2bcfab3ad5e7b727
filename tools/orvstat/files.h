// SPDX-License-Identifier: BSD-2-Clause
// What lies in a directory.
#ifndef TOOLS_ORVSTAT_FILES_H
#define TOOLS_ORVSTAT_FILES_H

#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace orvstat {

/// The names in a directory, in no order; those before an error where it cannot be read whole.
inline std::vector<std::string> NamesIn(const std::string& directory)
{
    std::vector<std::string> names;
    std::error_code error;
    const std::filesystem::directory_iterator end;
    for (std::filesystem::directory_iterator entry(directory, error); entry != end; entry.increment(error))
        names.push_back(entry->path().filename().string());
    return names;
}

} // namespace orvstat

#endif
