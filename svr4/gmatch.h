// SPDX-License-Identifier: BSD-2-Clause
// Shell patterns.
#ifndef SVR4_GMATCH_H
#define SVR4_GMATCH_H

#include <fnmatch.h>

namespace svr4 {

/// gmatch(3G) of System V: non-zero when `str` matches the shell pattern `pattern`. "*" and "?" also match "/".
inline int gmatch(const char* str, const char* pattern) { return fnmatch(pattern, str, 0) == 0; }

} // namespace svr4

#endif
