// SPDX-License-Identifier: BSD-2-Clause
// What lies in a directory.
#ifndef TOOLS_ORVSTAT_FILES_H
#define TOOLS_ORVSTAT_FILES_H

#include <string>
#include <vector>

namespace orvstat {

/// The names in a directory, in no order; none where it cannot be read.
std::vector<std::string> NamesIn(const std::string& directory);

} // namespace orvstat

#endif
